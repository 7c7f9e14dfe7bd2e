#pragma once

#include <linux/filter.h>

#include <cstdint>
#include <span>

#include "base/fd.h"

/// A packet socket (packet(7)) that receives the frames of `protocol` (host order, for example
/// `ETH_P_ARP`) which `filter` passes. The filter is in force before the first frame can arrive.
OpenedFd open_frame_receiver(std::uint16_t protocol, std::span<const sock_filter> filter);

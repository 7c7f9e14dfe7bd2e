#pragma once

#include <linux/filter.h>

#include <cstdint>
#include <span>

#include "host/asked_addresses.h"
#include "net/fd.h"

/// The filter that passes neighbour advertisements directly behind the IPv6 header, with room for a
/// link-layer address, and cuts them there.
///
/// It asks for ICMPv6 beside the type: in a forwarded TCP or UDP packet the type's place is the
/// high byte of the source port, and every such packet from the ports 34816 to 35071 would leave an
/// entry of its own in the table of asked addresses.
std::span<const sock_filter> pass_advertisements();

/// A packet socket that receives neighbour advertisements only, of every interface of the calling
/// thread's namespace; closed where none can be had.
///
/// It is bound to IPv6 rather than to all protocols: a tap on all protocols would run its filter
/// for every packet that enters or leaves the router. What it does not see that way is what the
/// router itself sends, and its own advertisements tell of no next hop.
Fd open_neighbor_receiver();

/// The neighbour receiver thread, one per namespace: writes the advertisements of addresses that
/// were asked for into the kernel's neighbour table. The argument is an `AskedAddressesRef*`; the
/// thread takes it over, and the socket in it. Ends, with a message, only when the socket fails.
void* recv_neighbor(void* targets);

/// Handles one received frame. False, with a line on the standard error stream, where the target
/// cannot be printed: that ends the thread.
bool take_neighbor_frame(std::span<const std::uint8_t> frame, AskedAddresses& asked);

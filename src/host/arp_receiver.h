#pragma once

#include <linux/filter.h>

#include <cstdint>
#include <span>

#include "host/asked_addresses.h"
#include "net/fd.h"

/// The filter that passes, of ARP frames, replies only.
std::span<const sock_filter> pass_arp_replies();

/// A packet socket that receives ARP replies only, of every interface of the calling thread's
/// namespace; closed where none can be had.
Fd open_arp_receiver();

/// The ARP receiver thread, one per namespace: writes the answers to our requests into the kernel's
/// ARP table. The argument is an `AskedAddressesRef*`; the thread takes it over, and the socket in
/// it. Ends, with a message, only when the socket fails.
void* recv_arp(void* targets);

/// Handles one received frame; always true, for no frame ends the thread.
bool take_arp_frame(std::span<const std::uint8_t> frame, AskedAddresses& asked);

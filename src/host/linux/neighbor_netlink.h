#pragma once

#include <linux/netlink.h>
#include <sys/uio.h>

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "host/neighbours.h"

/// The kernel's IPv6 neighbour table over route netlink, rtnetlink(7). Integers are in host order,
/// addresses in network order. Every call runs in the namespace of its thread. host/neighbours.h is
/// what the daemon asks; the calls of given form stand here.

/// What one received buffer of answers means.
enum class NetlinkAnswer { go_on, done, acknowledged, refused, found };

/// Walks the answers in `received` and hands every entry with an address and a link-layer address
/// to `take`, which says whether to stop there (`found`). A header that does not fit ends the walk;
/// so does an attribute that does not fit, for its message. An error of the kernel is logged.
/// Touches nothing beyond `received`, which is aligned as netlink messages are.
NetlinkAnswer walk_netlink_answers(std::span<const std::uint8_t> received,
                                   const std::function<bool(const host::Neighbor&)>& take);

/// Sends one request made of `count` buffers and reads its answers. 1 with the MAC in `mac` when an
/// entry for `address` came (-1 where `mac` is null); 0 at the end of a dump or on the
/// acknowledgement; -1 on an error, logged.
int neighbor_netlink_talk(iovec* iov, int count, unsigned char* mac, const std::string& address);

/// The most that a request and its attributes may be long.
inline constexpr int neighbor_request_bound = 1'048'604;
/// Appends an attribute to the message, which lies in a buffer of at least the bound or of the room
/// that the caller knows to suffice. 0, or -1 with a line on the standard error stream where it
/// would exceed the bound.
int addattr_l(nlmsghdr* message, int type, const void* data, int length);

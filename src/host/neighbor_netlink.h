#pragma once

#include <linux/netlink.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "net/bytes.h"

/// The kernel's IPv6 neighbour table over route netlink, rtnetlink(7). Integers are in host order,
/// addresses in network order. Every call runs in the namespace of its thread.

/// One entry of a dump: the address as the kernel prints it, and the link-layer address.
struct Neighbor {
    std::string address;
    MacAddress mac{};
};

/// What one received buffer of answers means.
enum class NetlinkAnswer { go_on, done, acknowledged, refused, found };

/// Walks the answers in `received` and hands every entry with an address and a link-layer address
/// to `take`, which says whether to stop there (`found`). A header that does not fit ends the walk;
/// so does an attribute that does not fit, for its message. An error of the kernel is logged.
/// Touches nothing beyond `received`.
NetlinkAnswer walk_netlink_answers(std::span<const std::uint8_t> received,
                                   const std::function<bool(const Neighbor&)>& take);

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

/// Writes an entry into the kernel's table: reachable, with that MAC. Failures are logged.
void add_neighbor_entry(const std::string& address, const std::string& ifname,
                        const MacAddress& mac);

/// As `LBNeighbor::check_neighbor_exist`, for any address. The table is dumped once in a pass of
/// the calling thread, and again when an address is missing and an entry was written meanwhile: a
/// dump per uplink would make a pass quadratic, and one per advertisement would let a neighbour
/// that floods them stall it.
int find_neighbor(const std::string& address, unsigned char* mac);

/// Starts a pass of the calling thread: the kernel's table may have changed since the last one.
void forget_neighbors();

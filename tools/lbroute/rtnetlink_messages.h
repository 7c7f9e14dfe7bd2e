#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "lbroute/kernel_state.h"

/// The messages of rtnetlink(7) for links, addresses, routes and next-hop objects
/// (linux/nexthop.h), by libmnl; without a system call. Requests are appended to a buffer, so that
/// many go to the kernel at once; what a message does not hold as it should is left out.
namespace lbroute {

using Buffer = std::vector<std::uint8_t>;

/// One request that changes something; the kernel acknowledges it under its sequence number.
void append_request(Buffer& buffer, const Step& step, std::uint32_t sequence);

enum class Dump {
    links,
    addresses,
    next_hops,
    own_routes4,
    own_routes6,
    routes4,
    routes6,
    buckets
};
/// A request to list everything of a kind. `selector` is the table of `routes4` and `routes6`, the
/// group of `buckets`.
void append_dump(Buffer& buffer, Dump what, std::uint32_t selector, std::uint32_t sequence);

std::optional<Link> read_link(const nlmsghdr& message);
std::optional<LinkAddress> read_address(const nlmsghdr& message);
/// Cached and cloned entries are none.
std::optional<KernelRoute> read_route(const nlmsghdr& message);

struct NextHopMessage {
    std::uint32_t id = 0;
    std::uint8_t protocol = 0;
    std::optional<HopObject> hop;  ///< where it is one with a gateway
    std::optional<Group> group;
};
std::optional<NextHopMessage> read_next_hop(const nlmsghdr& message);
/// Whether a message about a next-hop object or group, also of its end, is about one of ours.
bool is_own_next_hop(const nlmsghdr& message);
/// The hop object that a bucket of a resilient group leads to; 0 for none.
std::uint32_t read_bucket(const nlmsghdr& message);

/// The answer in an NLMSG_ERROR message.
Answer read_answer(const nlmsghdr& message);

}  // namespace lbroute

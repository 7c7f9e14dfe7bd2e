#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <optional>

#include "lbroute/kernel_state.h"

/// The kernel's messages of rtnetlink(7) about links, addresses, routes and next-hop objects
/// (linux/nexthop.h) as values, by libmnl; without a system call. What a message does not hold as
/// it should is left out.
namespace lbroute {

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

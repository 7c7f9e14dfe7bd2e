#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "lbroute/address.h"

/// What the kernel routes by in one network namespace, and the single steps that change it, as
/// plain values: rtnetlink(7) without its bytes. Numbers are in host order.
namespace lbroute {

/// The routing protocol number of everything that this program writes, `lb` in
/// /etc/iproute2/rt_protos.d.
inline constexpr std::uint8_t own_protocol = 76;

inline constexpr std::uint32_t main_table = 254;

struct Link {
    int index = 0;
    std::string name;
    bool is_up = false;
    bool has_carrier = false;  ///< its own; the kernel tells it for VLANs and tunnels as well
    bool is_ethernet = false;  ///< its frames have Ethernet addresses (ARPHRD_ETHER)
};

/// An address of a link with the network that it connects.
struct LinkAddress {
    int link = 0;
    Address address;  ///< the link's own
    Prefix network;   ///< of a point-to-point link: the peer's
};

/// A next-hop object of a gateway.
struct HopObject {
    std::uint32_t id = 0;
    Address gateway;
    int link = 0;

    bool operator==(const HopObject&) const = default;
};

struct GroupEntry {
    std::uint32_t id = 0;  ///< of a hop object
    int weight = 1;

    bool operator==(const GroupEntry&) const = default;
};

struct Group {
    std::uint32_t id = 0;
    std::vector<GroupEntry> entries;
    bool is_resilient = false;
    std::uint16_t buckets = 0;  ///< of a resilient one, as the next two
    std::uint32_t idle_timer_s = 0;
    std::uint32_t unbalanced_timer_s = 0;

    bool operator==(const Group&) const = default;
};

/// One next hop of a route as the kernel tells it.
struct PathHop {
    std::optional<Address> gateway;
    int link = 0;
    int weight = 1;
    bool is_dead = false;     ///< its link is down or without carrier
    bool is_on_link = false;  ///< to be written with RTNH_F_ONLINK; not read

    bool operator==(const PathHop&) const = default;
};

struct KernelRoute {
    Prefix prefix;
    std::uint32_t table = main_table;
    std::uint32_t priority = 0;
    std::uint8_t protocol = own_protocol;
    std::uint8_t type = 1;       ///< RTN_UNICAST
    std::uint32_t group_id = 0;  ///< the next-hop object or group that it uses; 0 for none
    std::vector<PathHop> hops;   ///< may be missing where `group_id` tells

    /// Two routes of one place cannot stand side by side as one writes them: the later replaces
    /// the earlier or is refused.
    bool is_at_place_of(const KernelRoute& other) const {
        return prefix == other.prefix && table == other.table && priority == other.priority;
    }

    bool operator==(const KernelRoute&) const = default;
};

/// Everything of interest in one namespace at one moment. "Own" is what carries `own_protocol`.
struct KernelState {
    std::vector<Link> links;
    std::vector<LinkAddress> addresses;
    std::vector<HopObject> hops;             ///< own
    std::vector<Group> groups;               ///< own
    std::vector<KernelRoute> routes;         ///< own, of all tables
    std::vector<std::uint32_t> foreign_ids;  ///< of next-hop objects of others

    const Link* link(int index) const;
    const Link* link(const std::string& name) const;
    const HopObject* hop(std::uint32_t id) const;
    const Group* group(std::uint32_t id) const;
};

struct AddHop {
    HopObject hop;
    bool is_on_link = false;  ///< with RTNH_F_ONLINK: in whatever network the gateway lies
};
struct PutGroup {
    Group group;
    bool replaces = false;  ///< the group stands already; else nothing may stand under its number
};
struct PutRoute {
    KernelRoute route;
    bool replaces = false;  ///< an own route stands at its place; else nothing may stand there
};
struct RemoveRoute {
    KernelRoute route;
};
struct RemoveNextHop {
    std::uint32_t id = 0;  ///< of a hop or a group
};

using Step = std::variant<AddHop, PutGroup, PutRoute, RemoveRoute, RemoveNextHop>;

/// What the kernel says to a step: 0, or an errno with its words for it.
struct Answer {
    int error = 0;
    std::string reason;
};

}  // namespace lbroute

#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lbroute/fragment.h"
#include "lbroute/kernel_state.h"
#include "lbroute/uplinks.h"

/// The routes that the fragments of one namespace ask for, each next hop with what becomes of it;
/// without a system call.
namespace lbroute {

/// How routes reach the kernel.
enum class Mode {
    sticky,  ///< resilient next-hop groups: busy flows stay where they are
    group,   ///< next-hop groups
    plain    ///< multipath routes without next-hop objects
};

enum class HopState {
    routed,
    last_though_held,  ///< held without force, and nothing else is left to the route: routed
    held,
    no_interface,  ///< none is known, or it is not there, or it is down
    no_carrier,
    refused  ///< by the kernel
};

struct PlannedHop {
    Address gateway;
    int weight = 1;  ///< the fragment's; those of one gateway and interface are one hop
    std::string interface;
    int link = 0;
    HopState state = HopState::routed;
    bool is_hold_forced = false;  ///< held also where nothing else is left
    /// No network of the interface holds the gateway: a lease of /32, a gateway next door. The
    /// kernel takes it with RTNH_F_ONLINK alone.
    bool is_on_link = false;
    std::string reason;  ///< why it is not routed, where its state does not tell alone

    bool is_routed() const {
        return state == HopState::routed || state == HopState::last_though_held;
    }
};

struct PlannedRoute {
    Prefix prefix;
    std::uint32_t table = main_table;
    std::uint32_t priority = 0;
    std::vector<PlannedHop> hops;
    bool is_shared = false;      ///< what a next hop means follows the daemon's dumps
    bool is_postponed = false;   ///< what stands in the kernel stays until the dumps tell more
    std::string refusal;         ///< why the kernel does not have it, empty where it has
    std::uint32_t group_id = 0;  ///< its group; 0 while it has none

    std::vector<const PlannedHop*> routed() const;
    KernelRoute place() const;
};

/// Interfaces out of use, and whether also where they are the last of a route.
using HeldInterfaces = std::map<std::string, bool>;

struct PlanContext {
    std::string namespace_name;
    std::uint32_t table = main_table;
    Mode mode = Mode::sticky;
    const Uplinks* uplinks = nullptr;
    const KernelState* kernel = nullptr;
    const HeldInterfaces* held = nullptr;  ///< of the fragment's family
    bool guesses = false;  ///< where the dumps do not tell whose a next hop is, take the first
};

/// The kernel's priority for a metric; none means what it means to the kernel.
std::uint32_t priority_of(Family family, std::optional<std::uint32_t> metric);

std::vector<PlannedRoute> plan_routes(const Fragment& fragment, const PlanContext& context);

/// Marks a next hop as refused wherever it is routed; true where that left a route with another
/// set of next hops.
bool refuse_hop(std::vector<PlannedRoute>& routes, const Address& gateway, int link,
                const std::string& reason);

/// The weights of the routed hops as the kernel's groups and routes take them: 1 to 256, in
/// proportion, and none so small that it would get none of `buckets` (0: no buckets).
std::vector<int> kernel_weights(const std::vector<const PlannedHop*>& hops, int buckets);

}  // namespace lbroute

#include "lbroute/plan.h"

#include <algorithm>
#include <numeric>
#include <optional>

#include "lbroute/resolve.h"
#include "lbroute/weights.h"

namespace lbroute {

namespace {

/// What the kernel makes of an IPv6 route without a priority (IP6_RT_PRIO_USER).
constexpr std::uint32_t default_priority6 = 1024;

/// Whether the interface has addresses, but none whose network holds the gateway. Without any, the
/// route would carry the address of another interface, and the one to come may hold it.
bool is_beside_networks(const Address& gateway, int link, const KernelState& kernel) {
    bool has_address = false;
    for (const LinkAddress& one : kernel.addresses) {
        if (one.link == link && one.address.family == gateway.family &&
            !one.address.is_link_local()) {
            has_address = true;
            if (one.network.contains(gateway)) {
                return false;
            }
        }
    }
    return has_address && !gateway.is_link_local();
}

/// What is to be said of a hop before any hold: its interface, and whether that can carry it.
PlannedHop planned_hop(const ResolvedHop& hop, bool check_link, const PlanContext& context) {
    PlannedHop planned{.gateway = hop.gateway,
                       .weight = hop.weight,
                       .interface = hop.interface,
                       .link = 0,
                       .state = HopState::routed,
                       .is_hold_forced = false,
                       .is_on_link = false,
                       .reason = {}};
    if (hop.interface.empty()) {
        planned.state = HopState::no_interface;
        planned.reason = "no uplink has this next hop, and no connected network holds it";
        return planned;
    }
    const Link* link = context.kernel->link(hop.interface);
    if (link == nullptr) {
        planned.state = HopState::no_interface;
        planned.reason = "there is no interface " + hop.interface;
        return planned;
    }
    planned.link = link->index;
    planned.is_on_link = is_beside_networks(hop.gateway, link->index, *context.kernel);
    if (!link->is_up) {
        planned.state = HopState::no_interface;
        planned.reason = hop.interface + " is down";
    } else if (!link->has_carrier && (check_link || context.mode != Mode::plain)) {
        planned.state = HopState::no_carrier;
        planned.reason = hop.interface + " has no carrier";
    }
    return planned;
}

/// A gateway and interface that stand twice are one hop with both weights.
void add_hop(std::vector<PlannedHop>& hops, PlannedHop hop) {
    const auto same = std::ranges::find_if(hops, [&hop](const PlannedHop& one) {
        return one.gateway == hop.gateway && one.interface == hop.interface;
    });
    if (same == hops.end()) {
        hops.push_back(std::move(hop));
        return;
    }
    constexpr std::int64_t most = 2147483647;
    same->weight = static_cast<int>(
        std::min<std::int64_t>(most, static_cast<std::int64_t>(same->weight) + hop.weight));
}

/// Takes held hops that another one is left for, and gives back those that nothing else is left
/// for.
void settle_holds(PlannedRoute& route) {
    const bool has_other = std::ranges::any_of(
        route.hops, [](const PlannedHop& hop) { return hop.state == HopState::routed; });
    for (PlannedHop& hop : route.hops) {
        if (hop.state == HopState::last_though_held && has_other) {
            hop.state = HopState::held;
        } else if (hop.state == HopState::held && !has_other && !hop.is_hold_forced) {
            hop.state = HopState::last_though_held;
        }
    }
}

}  // namespace

std::vector<const PlannedHop*> PlannedRoute::routed() const {
    std::vector<const PlannedHop*> found;
    for (const PlannedHop& hop : hops) {
        if (hop.is_routed()) {
            found.push_back(&hop);
        }
    }
    return found;
}

KernelRoute PlannedRoute::place() const {
    KernelRoute route;
    route.prefix = prefix;
    route.table = table;
    route.priority = priority;
    return route;
}

std::uint32_t priority_of(Family family, std::optional<std::uint32_t> metric) {
    const std::uint32_t given = metric.value_or(0);
    return family == Family::ipv6 && given == 0 ? default_priority6 : given;
}

std::vector<PlannedRoute> plan_routes(const Fragment& fragment, const PlanContext& context) {
    std::vector<PlannedRoute> routes;
    for (const FragmentRoute& asked : fragment.routes) {
        const ResolvedRoute resolved =
            resolve(asked, context.namespace_name, *context.uplinks, *context.kernel);
        PlannedRoute& route = routes.emplace_back();
        route.prefix = asked.prefix;
        route.table = context.table;
        route.priority = priority_of(asked.prefix.address.family, asked.metric);
        route.is_shared = resolved.is_shared;
        route.is_postponed = resolved.is_uncertain && !context.guesses;
        for (const ResolvedHop& hop : resolved.hops) {
            PlannedHop planned = planned_hop(hop, fragment.check_link, context);
            const auto hold = context.held->find(hop.interface);
            if (planned.state == HopState::routed && hold != context.held->end()) {
                planned.state = HopState::held;
                planned.is_hold_forced = hold->second;
            }
            add_hop(route.hops, std::move(planned));
        }
        settle_holds(route);
    }
    return routes;
}

bool refuse_hop(std::vector<PlannedRoute>& routes, const Address& gateway, int link,
                const std::string& reason) {
    bool has_changed = false;
    for (PlannedRoute& route : routes) {
        for (PlannedHop& hop : route.hops) {
            if (hop.gateway == gateway && hop.link == link && hop.is_routed()) {
                hop.state = HopState::refused;
                hop.reason = reason;
                has_changed = true;
            }
        }
        settle_holds(route);
    }
    return has_changed;
}

std::vector<int> kernel_weights(const std::vector<const PlannedHop*>& hops, int buckets) {
    constexpr int most = 256;  // as many as 8 bits hold; kernels since 6.12 take more in groups
    std::vector<int> given;
    for (const PlannedHop* hop : hops) {
        given.push_back(hop->weight);
    }
    std::vector<int> weights = scaled_weights(given, most);
    const int total = std::accumulate(weights.begin(), weights.end(), 0);
    const int least = buckets == 0 ? 1 : (total + buckets - 1) / buckets;
    for (int& weight : weights) {
        weight = std::min(most, std::max(weight, least));
    }
    return weights;
}

}  // namespace lbroute

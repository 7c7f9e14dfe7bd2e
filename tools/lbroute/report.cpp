#include "lbroute/report.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include "lbroute/commands.h"
#include "lbroute/findings.h"

namespace lbroute {

namespace {

using HopPlace = std::pair<Address, int>;

/// One hop of a route as it stands in the kernel.
struct StandingHop {
    int weight = 0;
    std::optional<int> buckets;
};

struct StandingRoute {
    std::string mode;
    std::map<HopPlace, StandingHop> hops;
};

StandingRoute standing_route(const KernelRoute& route, const KernelState& kernel,
                             const BucketsOf& buckets_of) {
    StandingRoute standing;
    const Group* group = kernel.group(route.group_id);
    if (group == nullptr) {
        standing.mode = word_of(Mode::plain);
        for (const PathHop& hop : route.hops) {
            standing.hops[{hop.gateway.value_or(Address{}), hop.link}].weight += hop.weight;
        }
        return standing;
    }
    standing.mode = word_of(group->is_resilient ? Mode::sticky : Mode::group);
    // Each object of a next hop has the whole of its weight.
    for (const GroupEntry& entry : group->entries) {
        if (const HopObject* hop = kernel.hop(entry.id)) {
            standing.hops[{hop->gateway, hop->link}].weight = entry.weight;
        }
    }
    if (group->is_resilient) {
        for (const auto& [id, count] : buckets_of(group->id)) {
            if (const HopObject* hop = kernel.hop(id)) {
                StandingHop& place = standing.hops[{hop->gateway, hop->link}];
                place.buckets = place.buckets.value_or(0) + count;
            }
        }
        for (auto& [place, hop] : standing.hops) {
            hop.buckets = hop.buckets.value_or(0);
        }
    }
    return standing;
}

/// What of the route's flows leads there: by buckets where there are, else by weight.
void add_shares(std::vector<ReportedHop>& hops, const std::vector<const StandingHop*>& standing) {
    const auto measure = [](const StandingHop& hop) { return hop.buckets.value_or(hop.weight); };
    double total = 0;
    for (const StandingHop* hop : standing) {
        total += hop == nullptr ? 0 : measure(*hop);
    }
    for (std::size_t i = 0; i < hops.size(); ++i) {
        if (standing[i] != nullptr && total > 0) {
            hops[i].buckets = standing[i]->buckets;
            hops[i].share_percent = 100.0 * measure(*standing[i]) / total;
        }
    }
}

/// Whether two lists of weights are in the same proportions.
bool are_proportional(const std::vector<int>& one, const std::vector<int>& other) {
    for (std::size_t i = 1; i < one.size(); ++i) {
        if (static_cast<std::int64_t>(one[0]) * other[i] !=
            static_cast<std::int64_t>(one[i]) * other[0]) {
            return false;
        }
    }
    return true;
}

std::string link_name(int index, const KernelState& kernel) {
    const Link* link = kernel.link(index);
    return link == nullptr ? std::string("interface ").append(std::to_string(index)) : link->name;
}

ReportedRoute base_of(const PlannedRoute& route) {
    ReportedRoute reported;
    reported.prefix = route.prefix.text();
    reported.family = route.prefix.address.family;
    reported.metric = route.priority;
    reported.table = route.table;
    return reported;
}

/// Compares a planned route with the one that stands, hop by hop; false where they differ.
bool compare_hops(ReportedRoute& reported, const PlannedRoute& route, const StandingRoute& standing,
                  const KernelState& kernel) {
    std::vector<const StandingHop*> found;
    std::set<HopPlace> planned;
    bool is_same = true;
    for (const PlannedHop& hop : route.hops) {
        const HopPlace place{hop.gateway, hop.link};
        const auto stands = standing.hops.find(place);
        const bool is_there = stands != standing.hops.end();
        planned.insert(place);
        ReportedHop& shown = reported.hops.emplace_back();
        shown.gateway = hop.gateway.text();
        shown.interface = hop.interface;
        shown.weight = hop.weight;
        shown.state = hop.is_routed() && !is_there ? "missing" : word_of(hop.state);
        shown.reason = hop.reason;
        found.push_back(is_there ? &stands->second : nullptr);
        is_same &= hop.is_routed() == is_there;
    }
    for (const auto& [place, hop] : standing.hops) {
        if (!planned.contains(place)) {
            ReportedHop& shown = reported.hops.emplace_back();
            shown.gateway = place.first.text();
            shown.interface = link_name(place.second, kernel);
            shown.weight = hop.weight;
            shown.state = "leftover";
            found.push_back(&hop);
            is_same = false;
        }
    }
    add_shares(reported.hops, found);
    if (!is_same) {
        return false;
    }
    const auto routed = route.routed();
    std::vector<int> weights;
    for (const PlannedHop* hop : routed) {
        weights.push_back(standing.hops.at({hop->gateway, hop->link}).weight);
    }
    const Group* group = kernel.group(route.group_id);
    return are_proportional(kernel_weights(routed, group == nullptr ? 0 : group->buckets), weights);
}

/// Whether the fragment asks for something that nobody means to leave out.
bool lacks_hops(const PlannedRoute& route) {
    return std::ranges::any_of(route.hops, [](const PlannedHop& hop) {
        return hop.state == HopState::refused || hop.state == HopState::no_interface;
    });
}

}  // namespace

bool ReportedNamespace::agrees() const {
    return problem.empty() && not_served.empty() &&
           std::ranges::all_of(fragments,
                               [](const ReportedFragment& one) {
                                   return one.problems.empty() &&
                                          (one.state == "read" || one.state == "missing");
                               }) &&
           std::ranges::all_of(routes, &ReportedRoute::agrees);
}

bool Report::has_fragments() const {
    return std::ranges::any_of(namespaces, [](const ReportedNamespace& one) {
        return std::ranges::any_of(one.fragments, [](const ReportedFragment& fragment) {
            return fragment.state != "missing";
        });
    });
}

bool Report::agrees() const {
    return has_fragments() && problems.empty() &&
           std::ranges::all_of(namespaces, &ReportedNamespace::agrees);
}

std::vector<ReportedRoute> reported_routes(const View& view, const DaemonRecord& daemon,
                                           const std::string& namespace_name,
                                           const BucketsOf& buckets_of) {
    std::vector<ReportedRoute> routes;
    std::vector<const KernelRoute*> planned;
    for (PlannedRoute route : view.wanted.routes) {
        ReportedRoute& reported = routes.emplace_back(base_of(route));
        const auto stands = std::ranges::find_if(view.kernel.routes, [&](const KernelRoute& one) {
            return one.is_at_place_of(route.place());
        });
        StandingRoute standing;
        const bool is_there = stands != view.kernel.routes.end();
        if (is_there) {
            planned.push_back(&*stands);
            route.group_id = stands->group_id;
            standing = standing_route(*stands, view.kernel, buckets_of);
            reported.mode = standing.mode;
        }
        const bool is_same =
            compare_hops(reported, route, standing, view.kernel) && !lacks_hops(route);
        reported.state = !is_there ? "missing" : is_same ? "ok" : "differs";
        const auto refused = daemon.refused_routes.find({namespace_name, reported.prefix});
        if (!is_same && refused != daemon.refused_routes.end()) {
            reported.refusal = refused->second;
        }
        const KernelRoute* other = standing_in_place(route, view.foreign);
        if (!is_there && other != nullptr) {
            reported.in_place = removal_command(*other, view.kernel, namespace_name);
        }
        for (const KernelRoute* shadow : shadowing(route, view)) {
            reported.shadowed_by.push_back(removal_command(*shadow, view.kernel, namespace_name));
        }
        if (reported.state == "ok" && !reported.shadowed_by.empty()) {
            reported.state = "shadowed";
        }
    }
    for (const KernelRoute& route : view.kernel.routes) {
        if (std::ranges::find(planned, &route) != planned.end()) {
            continue;
        }
        PlannedRoute nothing;
        nothing.prefix = route.prefix;
        nothing.table = route.table;
        nothing.priority = route.priority;
        ReportedRoute& reported = routes.emplace_back(base_of(nothing));
        const StandingRoute standing = standing_route(route, view.kernel, buckets_of);
        reported.mode = standing.mode;
        compare_hops(reported, nothing, standing, view.kernel);
        reported.state = "leftover";
    }
    return routes;
}

}  // namespace lbroute

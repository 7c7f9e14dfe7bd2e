#include "lbroute/steps.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <map>
#include <set>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <variant>

namespace lbroute {

namespace {

/// Our own objects are numbered from here: far above what others, who begin at 1, come to.
constexpr std::uint32_t first_id = 0x4c420000;

/// Gives numbers that nothing has yet.
class Numbers {
  public:
    explicit Numbers(const KernelState& kernel) {
        taken_.insert(kernel.foreign_ids.begin(), kernel.foreign_ids.end());
        for (const HopObject& hop : kernel.hops) {
            taken_.insert(hop.id);
        }
        for (const Group& group : kernel.groups) {
            taken_.insert(group.id);
        }
    }

    std::uint32_t next() {
        while (taken_.contains(next_)) {
            ++next_;
        }
        return next_++;
    }

  private:
    std::unordered_set<std::uint32_t> taken_;
    std::uint32_t next_ = first_id;
};

using HopPlace = std::pair<Address, int>;

int objects_a_hop(Mode mode) {
    return mode == Mode::sticky ? 2 : 1;
}

/// The objects of each gateway and link, by number.
std::map<HopPlace, std::vector<std::uint32_t>> objects_of(const KernelState& kernel) {
    std::map<HopPlace, std::vector<std::uint32_t>> objects;
    for (const HopObject& hop : kernel.hops) {
        objects[{hop.gateway, hop.link}].push_back(hop.id);
    }
    for (auto& [place, ids] : objects) {
        std::ranges::sort(ids);
    }
    return objects;
}

using RoutePlace = std::tuple<Prefix, std::uint32_t, std::uint32_t>;

RoutePlace place_of(const KernelRoute& route) {
    return {route.prefix, route.table, route.priority};
}
RoutePlace place_of(const PlannedRoute& route) {
    return {route.prefix, route.table, route.priority};
}

std::map<RoutePlace, const KernelRoute*> by_place(const std::vector<KernelRoute>& routes) {
    std::map<RoutePlace, const KernelRoute*> found;
    for (const KernelRoute& route : routes) {
        found.try_emplace(place_of(route), &route);
    }
    return found;
}

/// Whether a route is put into force now: it has next hops, they are known, and its place is free.
bool is_to_stand(const PlannedRoute& route) {
    return !route.is_postponed && route.refusal.empty() && !route.routed().empty();
}

/// Groups that planned routes can go on using: by the route's place, else by its prefix, from a
/// route that is going to leave.
class UsableGroups {
  public:
    UsableGroups(const Wanted& wanted, const KernelState& kernel, Mode mode) {
        std::set<RoutePlace> planned;
        for (const PlannedRoute& route : wanted.routes) {
            planned.insert(place_of(route));
        }
        std::unordered_map<std::uint32_t, const Group*> groups;
        for (const Group& group : kernel.groups) {
            if (group.is_resilient == (mode == Mode::sticky)) {
                groups.emplace(group.id, &group);
            }
        }
        for (const KernelRoute& route : kernel.routes) {
            const auto group = groups.find(route.group_id);
            if (group == groups.end()) {
                continue;
            }
            if (planned.contains(place_of(route))) {
                by_place_.try_emplace(place_of(route), group->second);
            } else {
                by_prefix_.try_emplace(route.prefix, group->second);
            }
        }
    }

    /// Null for none; each group goes to one route only.
    const Group* take(const PlannedRoute& route) {
        const auto at_place = by_place_.find(place_of(route));
        const auto of_prefix = by_prefix_.find(route.prefix);
        const Group* group = at_place != by_place_.end()     ? at_place->second
                             : of_prefix != by_prefix_.end() ? of_prefix->second
                                                             : nullptr;
        return group != nullptr && taken_.insert(group->id).second ? group : nullptr;
    }

  private:
    std::map<RoutePlace, const Group*> by_place_;
    std::map<Prefix, const Group*> by_prefix_;
    std::unordered_set<std::uint32_t> taken_;
};

/// The path as the kernel lists it, in an order of our own.
std::vector<PathHop> sorted(std::vector<PathHop> hops) {
    for (PathHop& hop : hops) {
        hop.is_dead = hop.is_on_link = false;
    }
    std::ranges::sort(
        hops, {}, [](const PathHop& hop) { return std::tuple(hop.link, hop.gateway, hop.weight); });
    return hops;
}

KernelRoute kernel_route(const PlannedRoute& planned, Mode mode) {
    KernelRoute route = planned.place();
    if (mode != Mode::plain) {
        route.group_id = planned.group_id;
        return route;
    }
    const auto hops = planned.routed();
    const std::vector<int> weights = kernel_weights(hops, 0);
    for (std::size_t i = 0; i < hops.size(); ++i) {
        route.hops.push_back({.gateway = hops[i]->gateway,
                              .link = hops[i]->link,
                              .weight = weights[i],
                              .is_dead = false,
                              .is_on_link = hops[i]->is_on_link});
    }
    if (route.hops.size() == 1) {
        route.hops[0].weight = 1;
    }
    return route;
}

bool is_as(const KernelRoute& standing, const KernelRoute& wanted) {
    if (wanted.group_id != 0) {
        return standing.group_id == wanted.group_id;
    }
    return standing.group_id == 0 && sorted(standing.hops) == sorted(wanted.hops);
}

bool is_as(const Group& standing, const Group& wanted) {
    return standing.entries == wanted.entries &&
           (!wanted.is_resilient || (standing.idle_timer_s == wanted.idle_timer_s &&
                                     standing.unbalanced_timer_s == wanted.unbalanced_timer_s));
}

}  // namespace

void refuse_taken_places(Wanted& wanted, const KernelState& kernel,
                         const std::vector<KernelRoute>& foreign) {
    const auto standing = by_place(kernel.routes);
    const auto others = by_place(foreign);
    for (PlannedRoute& route : wanted.routes) {
        if (others.contains(place_of(route)) && !standing.contains(place_of(route))) {
            route.refusal = place_is_taken;
        }
    }
}

int buckets_for(std::size_t prefixes) {
    constexpr std::size_t all_together = std::size_t{1} << 15;
    const std::size_t share = std::bit_floor(all_together / std::max<std::size_t>(1, prefixes));
    return static_cast<int>(std::clamp<std::size_t>(share, fewest_buckets, most_buckets));
}

std::vector<Step> hop_steps(const Wanted& wanted, const KernelState& kernel, Mode mode) {
    std::vector<Step> steps;
    if (mode == Mode::plain) {
        return steps;
    }
    auto objects = objects_of(kernel);
    Numbers numbers(kernel);
    const auto needed = static_cast<std::size_t>(objects_a_hop(mode));
    for (const PlannedRoute& route : wanted.routes) {
        if (!is_to_stand(route)) {
            continue;
        }
        for (const PlannedHop* hop : route.routed()) {
            auto& ids = objects[{hop->gateway, hop->link}];
            while (ids.size() < needed) {
                ids.push_back(numbers.next());
                steps.push_back(AddHop{{ids.back(), hop->gateway, hop->link}, hop->is_on_link});
            }
        }
    }
    return steps;
}

std::vector<Step> group_steps(Wanted& wanted, const KernelState& kernel, Mode mode) {
    std::vector<Step> steps;
    if (mode == Mode::plain) {
        return steps;
    }
    const auto objects = objects_of(kernel);
    const auto needed = static_cast<std::size_t>(objects_a_hop(mode));
    UsableGroups usable(wanted, kernel, mode);
    Numbers numbers(kernel);
    const int new_buckets = buckets_for(wanted.routes.size());
    for (PlannedRoute& route : wanted.routes) {
        if (!is_to_stand(route)) {
            continue;
        }
        const Group* standing = usable.take(route);
        Group group;
        group.id = standing != nullptr ? standing->id : numbers.next();
        group.is_resilient = mode == Mode::sticky;
        if (group.is_resilient) {
            // The number of buckets of a group that stands can not be changed.
            group.buckets =
                standing != nullptr ? standing->buckets : static_cast<std::uint16_t>(new_buckets);
            group.idle_timer_s = idle_timer_s;
            group.unbalanced_timer_s = unbalanced_timer_s;
        }
        const auto hops = route.routed();
        const std::vector<int> weights = kernel_weights(hops, group.buckets);
        for (std::size_t i = 0; i < hops.size(); ++i) {
            const auto& ids = objects.at({hops[i]->gateway, hops[i]->link});
            for (std::size_t object = 0; object < needed; ++object) {
                group.entries.push_back({ids.at(object), weights[i]});
            }
        }
        route.group_id = group.id;
        if (standing == nullptr || !is_as(*standing, group)) {
            steps.push_back(PutGroup{std::move(group), standing != nullptr});
        }
    }
    return steps;
}

std::vector<Step> route_steps(Wanted& wanted, const KernelState& kernel,
                              const std::vector<KernelRoute>& foreign, Mode mode) {
    std::vector<Step> steps;
    const auto standing = by_place(kernel.routes);
    const auto others = by_place(foreign);
    for (PlannedRoute& route : wanted.routes) {
        if (!is_to_stand(route)) {
            continue;
        }
        KernelRoute made = kernel_route(route, mode);
        const auto found = standing.find(place_of(route));
        if (found != standing.end() && is_as(*found->second, made)) {
            continue;
        }
        if (others.contains(place_of(route))) {
            route.refusal = place_is_taken;
            continue;
        }
        steps.push_back(PutRoute{std::move(made), found != standing.end()});
    }
    return steps;
}

std::vector<Step> removal_steps(const Wanted& wanted, const KernelState& kernel) {
    std::vector<Step> steps;
    std::set<RoutePlace> kept;
    for (const PlannedRoute& route : wanted.routes) {
        // A route that the kernel refused leaves what stood there before.
        if (route.is_postponed || !route.routed().empty()) {
            kept.insert(place_of(route));
        }
    }
    std::unordered_set<std::uint32_t> used_groups;
    for (const KernelRoute& route : kernel.routes) {
        const bool is_kept =
            !wanted.knows(route.prefix.address.family) || kept.contains(place_of(route));
        if (is_kept) {
            used_groups.insert(route.group_id);
        } else {
            steps.push_back(RemoveRoute{route});
        }
    }
    std::unordered_set<std::uint32_t> used_hops;
    for (const Group& group : kernel.groups) {
        if (!used_groups.contains(group.id)) {
            steps.push_back(RemoveNextHop{group.id});
            continue;
        }
        for (const GroupEntry& entry : group.entries) {
            used_hops.insert(entry.id);
        }
    }
    // A route may lead to a hop without a group between; none of ours does, but it is no leftover.
    used_hops.insert(used_groups.begin(), used_groups.end());
    for (const HopObject& hop : kernel.hops) {
        if (!used_hops.contains(hop.id)) {
            steps.push_back(RemoveNextHop{hop.id});
        }
    }
    return steps;
}

std::vector<Step> flush_steps(const KernelState& kernel) {
    Wanted nothing;
    nothing.knows_ipv4 = nothing.knows_ipv6 = true;
    return removal_steps(nothing, kernel);
}

void apply_step(KernelState& kernel, const Step& step) {
    struct Applier {
        KernelState& kernel;

        void operator()(const AddHop& one) const { kernel.hops.push_back(one.hop); }
        void operator()(const PutGroup& one) const {
            const auto standing = std::ranges::find(kernel.groups, one.group.id, &Group::id);
            if (standing == kernel.groups.end()) {
                kernel.groups.push_back(one.group);
            } else {
                *standing = one.group;
            }
        }
        void operator()(const PutRoute& one) const {
            const auto standing =
                one.replaces ? std::ranges::find_if(kernel.routes,
                                                    [&](const KernelRoute& route) {
                                                        return route.is_at_place_of(one.route);
                                                    })
                             : kernel.routes.end();
            if (standing == kernel.routes.end()) {
                kernel.routes.push_back(one.route);
            } else {
                *standing = one.route;
            }
        }
        void operator()(const RemoveRoute& one) const {
            std::erase_if(kernel.routes, [&](const KernelRoute& route) {
                return route.is_at_place_of(one.route);
            });
        }
        void operator()(const RemoveNextHop& one) const {
            std::erase_if(kernel.hops, [&](const HopObject& hop) { return hop.id == one.id; });
            std::erase_if(kernel.groups, [&](const Group& group) { return group.id == one.id; });
        }
    };
    std::visit(Applier{kernel}, step);
}

}  // namespace lbroute

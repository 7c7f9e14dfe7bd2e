#include "dumps/in_force.h"

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace dumps {

namespace {

using Interfaces = std::map<std::pair<std::string, int>, Interface*>;

struct Candidate {
    Interface* interface = nullptr;
    int weight = 0;
};

/// The members of one family that are up, in the order of their names.
std::vector<Candidate> active_members(const Rule& rule, int family, const Interfaces& interfaces) {
    std::vector<Candidate> active;
    for (const Member& member : rule.members) {
        const auto found = interfaces.find({member.interface, member.family});
        if (member.family == family && found != interfaces.end() && found->second->is_active &&
            found->second->namespace_name == rule.namespace_name) {
            active.push_back({.interface = found->second, .weight = member.weight});
        }
    }
    return active;
}

bool has_member(const Rule& rule, int family) {
    return std::any_of(rule.members.begin(), rule.members.end(),
                       [family](const Member& member) { return member.family == family; });
}

/// The family whose choice the route's record tells: the rule's own, unless no member is of it.
int choosing_family(const Rule& rule) {
    return has_member(rule, rule.family) ? rule.family : 10 - rule.family;
}

/// Leaves what a failover rule has chosen: where the route's record tells it, that; else the
/// heaviest member, among equals the first by name.
void keep_choice(std::vector<Candidate>& active, const Route& route, bool is_told) {
    if (is_told) {
        std::erase_if(active, [&route](const Candidate& one) {
            return route.nexthop.empty() || one.interface->nexthop != route.nexthop;
        });
    }
    const auto best = std::max_element(
        active.begin(), active.end(),
        [](const Candidate& one, const Candidate& other) { return one.weight < other.weight; });
    if (best != active.end()) {
        active = {*best};
    }
}

void resolve(Route& route, const Rule& rule, const Interfaces& interfaces) {
    for (const int family : {4, 6}) {
        std::vector<Candidate> active = active_members(rule, family, interfaces);
        if (rule.is_failover) {
            keep_choice(active, route, family == choosing_family(rule));
        }
        for (const Candidate& one : active) {
            if (one.weight == 0 || one.interface->nexthop.empty()) {
                continue;
            }
            one.interface->is_routed = true;
            route.in_force.push_back({.address = one.interface->nexthop,
                                      .interface = one.interface->name,
                                      .weight = one.weight});
        }
    }
}

}  // namespace

void resolve_next_hops(State& state) {
    Interfaces interfaces;
    for (Interface& one : state.interfaces) {
        interfaces.emplace(std::pair(one.name, one.family), &one);
    }
    for (Route& route : state.routes) {
        const auto rule =
            std::find_if(state.rules.begin(), state.rules.end(), [&route](const Rule& one) {
                return one.number == route.rule_number && one.family == route.family;
            });
        if (rule != state.rules.end()) {
            resolve(route, *rule, interfaces);
        }
    }
}

}  // namespace dumps

// Which uplinks the destinations use: the half of World that reads rules and routes.

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "dumps/in_force.h"
#include "lbwatch/world.h"

namespace lbwatch {

namespace {

/// A member that the daemon has not judged by then counts as not used.
constexpr std::int64_t settling_ms = 30'000;

UplinkKey key_of(const dumps::Rule& rule, const dumps::Member& member) {
    return {
        .namespace_name = rule.namespace_name, .family = member.family, .name = member.interface};
}

/// Routes that are alike in these use the same uplinks.
using Way = std::pair<std::string, std::string>;

Way way_of(const dumps::Route& route) {
    return {route.rule_name(), route.nexthop};
}

std::string names_of(const std::vector<dumps::NextHop>& hops) {
    std::string names;
    for (const dumps::NextHop& hop : hops) {
        names += (names.empty() ? "" : ", ") + hop.interface;
    }
    return names.empty() ? "none" : names;
}

}  // namespace

/// The uplinks as they are believed now, with the rules and, of the routes of each that go through
/// the same chosen next hop, the first: all others go where it goes.
dumps::State World::state_for(const std::vector<dumps::Rule>& rules,
                              const std::vector<dumps::Route>& routes) const {
    dumps::State state;
    for (const auto& [key, uplink] : uplinks_) {
        state.interfaces.push_back({.name = key.name,
                                    .family = key.family,
                                    .namespace_name = key.namespace_name,
                                    .is_active = uplink.state == UplinkState::active,
                                    .nexthop = uplink.nexthop});
    }
    state.rules = rules;
    std::set<Way> ways;
    std::copy_if(routes.begin(), routes.end(), std::back_inserter(state.routes),
                 [&ways](const dumps::Route& route) { return ways.insert(way_of(route)).second; });
    dumps::resolve_next_hops(state);
    return state;
}

bool World::is_settled(const dumps::Rule& rule, const Moment& now) const {
    if (!begun_boot_ms_) {
        return false;
    }
    if (now.boot_ms - *begun_boot_ms_ >= settling_ms) {
        return true;
    }
    return std::all_of(rule.members.begin(), rule.members.end(), [&](const auto& member) {
        const auto found = uplinks_.find(key_of(rule, member));
        return found == uplinks_.end() || found->second.is_judged;
    });
}

/// Destinations of a rule that change alike are one event; the first sight of one is none.
std::vector<Event> World::tell_routes(const dumps::Rule& rule, RuleRoutes& entry,
                                      std::map<std::string, std::string> used,
                                      const Moment& now) const {
    std::map<std::pair<std::string, std::string>, Event> alike;
    for (const auto& [prefix, uplinks] : used) {
        const auto before = entry.used.find(prefix);
        if (before == entry.used.end() || before->second == uplinks) {
            continue;
        }
        Event& event = alike[{before->second, uplinks}];
        const auto since = entry.since_boot_ms.find(prefix);
        if (since != entry.since_boot_ms.end()) {
            event.after_s = seconds_since(since->second, now);
        }
        event.destinations.push_back(prefix);
        entry.since_boot_ms[prefix] = now.boot_ms;
    }
    std::vector<Event> events;
    for (auto& [change, event] : alike) {
        event.time_ms = now.wall_ms;
        event.kind = EventKind::routes;
        event.uplink = {.namespace_name = rule.namespace_name, .family = rule.family, .name = ""};
        event.rule = rule.name();
        event.from = change.first;
        event.to = change.second;
        events.push_back(std::move(event));
    }
    entry.used = std::move(used);
    return events;
}

std::vector<Event> World::read(const std::vector<dumps::Rule>& rules,
                               const std::vector<dumps::Route>& routes, const Moment& now) {
    const dumps::State state = state_for(rules, routes);
    std::map<Way, std::string> used_by;
    for (const dumps::Route& route : state.routes) {
        used_by[way_of(route)] = names_of(route.in_force);
    }
    // A rule's name is unique in the daemon's configuration, whatever the namespace.
    std::map<std::string, std::map<std::string, std::string>> used;
    for (const dumps::Route& route : routes) {
        used[route.rule_name()][route.prefix] = used_by[way_of(route)];
    }
    std::vector<Event> events;
    Rules known;
    for (const dumps::Rule& rule : rules) {
        const RuleKey key{.namespace_name = rule.namespace_name, .name = rule.name()};
        RuleRoutes& entry = known[key] = std::move(rules_[key]);
        entry.members.clear();
        for (const dumps::Member& member : rule.members) {
            entry.members.push_back(key_of(rule, member));
        }
        if (is_settled(rule, now)) {
            for (Event& event : tell_routes(rule, entry, std::move(used[rule.name()]), now)) {
                events.push_back(std::move(event));
            }
        }
    }
    rules_ = std::move(known);
    for (const dumps::Interface& one : state.interfaces) {
        uplinks_[{one.namespace_name, one.family, one.name}].is_routed = one.is_routed;
    }
    return events;
}

}  // namespace lbwatch

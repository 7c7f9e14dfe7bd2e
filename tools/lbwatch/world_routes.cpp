// Which uplinks the destinations use: the half of World that reads rules and routes.

#include <algorithm>
#include <utility>

#include "lbwatch/world.h"

namespace lbwatch {

namespace {

/// A member that the daemon has not judged by then counts as not used.
constexpr std::int64_t settling_ms = 30'000;

UplinkKey key_of(const lbshow::Rule& rule, const lbshow::Member& member) {
    return {
        .namespace_name = rule.namespace_name, .family = member.family, .name = member.interface};
}

}  // namespace

/// The names of the uplinks that carry a destination, and their keys into `routed`. A failover rule
/// names its choice by the next hop, every other one uses all active members that have one.
std::string World::used_by(const lbshow::Rule& rule, const std::string& chosen_nexthop,
                           std::set<UplinkKey>& routed) const {
    std::string names;
    std::optional<UplinkKey> chosen;
    for (const lbshow::Member& member : rule.members) {
        const UplinkKey key = key_of(rule, member);
        const auto found = uplinks_.find(key);
        if (found == uplinks_.end() || found->second.nexthop.empty() || member.weight == 0) {
            continue;
        }
        const bool is_active = found->second.state == UplinkState::active;
        if (rule.is_failover) {
            if (found->second.nexthop == chosen_nexthop && (!chosen || is_active)) {
                chosen = key;
            }
        } else if (is_active) {
            names += (names.empty() ? "" : ", ") + member.interface;
            routed.insert(key);
        }
    }
    if (chosen) {
        routed.insert(*chosen);
        return chosen->name;
    }
    if (rule.is_failover) {
        return chosen_nexthop.empty() ? "none" : chosen_nexthop;
    }
    return names.empty() ? "none" : names;
}

bool World::is_settled(const lbshow::Rule& rule, const Moment& now) const {
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
std::vector<Event> World::tell_routes(const lbshow::Rule& rule, RuleRoutes& entry,
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

std::vector<Event> World::read(const std::vector<lbshow::Rule>& rules,
                               const std::vector<lbshow::Route>& routes, const Moment& now) {
    // A rule's name is unique in the daemon's configuration, whatever the namespace.
    std::map<std::string, std::vector<const lbshow::Route*>> routes_of;
    for (const lbshow::Route& route : routes) {
        routes_of[route.rule_name()].push_back(&route);
    }
    std::vector<Event> events;
    std::set<UplinkKey> routed;
    Rules known;
    for (const lbshow::Rule& rule : rules) {
        const RuleKey key{.namespace_name = rule.namespace_name, .name = rule.name()};
        RuleRoutes& entry = known[key] = std::move(rules_[key]);
        entry.members.clear();
        for (const lbshow::Member& member : rule.members) {
            entry.members.push_back(key_of(rule, member));
        }
        std::map<std::string, std::string> used;
        std::map<std::string, std::string> used_through;  // by chosen next hop
        for (const lbshow::Route* route : routes_of[rule.name()]) {
            const auto [asked, is_new] = used_through.try_emplace(route->nexthop);
            if (is_new) {
                asked->second = used_by(rule, route->nexthop, routed);
            }
            used[route->prefix] = asked->second;
        }
        if (is_settled(rule, now)) {
            for (Event& event : tell_routes(rule, entry, std::move(used), now)) {
                events.push_back(std::move(event));
            }
        }
    }
    rules_ = std::move(known);
    for (auto& [key, uplink] : uplinks_) {
        uplink.is_routed = routed.contains(key);
    }
    return events;
}

}  // namespace lbwatch

#include "decision/lb_decision.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <limits>

#include "config/live_state.h"
#include "config/own_records.h"
#include "decision/route_text.h"
#include "host/files.h"
#include "host/log.h"

namespace {

/// The next hop of a member in a route; null where it cannot be routed.
const std::string* usable_nexthop(const LBHealth& health, const LBDecision::Weights& weights,
                                  const context& ctx) {
    // The namespace first: only the worker's own interfaces may be read without a lock.
    if (health.namespace_name != *ctx.ns_name || !health.active) {
        return nullptr;
    }
    // B107: a member whose weight is 0, which is what a missing line leaves, is never routed.
    const auto weight = weights.find(health.name);
    const bool is_weighted = weight != weights.end() && weight->second != 0;
    const bool is_learning = health.nexthop == "dhcp" || health.nexthop == "tunnel";
    if (!is_weighted || (is_learning && health.nexthop_addr.empty())) {
        return nullptr;
    }
    return &health.effective_nexthop();
}

/// Leaves the heaviest interface only, among equals the first by name (B108).
void keep_best(LBDecision::Weights& weights, int heaviest) {
    std::erase_if(weights, [heaviest](const auto& entry) { return entry.second != heaviest; });
    if (!weights.empty()) {
        weights.erase(std::next(weights.begin()), weights.end());
    }
}

/// Records the next hop that a failover rule chose for a destination, or with an empty one that it
/// chose none. A choice is replaced at once, so that no reader sees a gap; what the sibling
/// family chose stays as it is.
void publish_choice(LBDecision::RuleEntry rule, const std::string& prefix,
                    const std::string& nexthop, bool ipv6) {
    if (!chooses_for(rule->first, rule->second, ipv6)) {
        return;
    }
    auto& chosen = rule->second.chosen_nexthops;
    const auto before = chosen.find(prefix);
    const bool is_unchanged = before == chosen.end() ? nexthop.empty() : before->second == nexthop;
    if (is_unchanged) {
        return;
    }
    const LiveStateWriter hold;
    if (nexthop.empty()) {
        chosen.erase(before);
    } else {
        chosen[prefix] = nexthop;
    }
}

/// Remembers the routes of the worker's namespace and family, before they are written (B102); false
/// when they are those of its last run, or none in the first one (B101). Workers of all namespaces
/// add their entries to one map, so even finding an entry takes the lock: shared where an interface
/// has changed, but no route.
bool remember(LBData& data, const context& ctx, const std::string& routes) {
    auto& last_routes = ctx.ipv6 ? data.last_routes6 : data.last_routes4;
    {
        const LiveStateReader hold;
        const auto last = last_routes.find(*ctx.ns_name);
        const bool is_unchanged =
            last == last_routes.end() ? routes.empty() : last->second == routes;
        if (is_unchanged) {
            return false;
        }
    }
    const LiveStateWriter hold;
    last_routes[*ctx.ns_name] = routes;
    return true;
}

void write_fragment(const std::string& path, const std::string& text) {
    // B103, B104: rewritten in place, and dropped silently where it cannot be opened; the routes
    // before it stay in force.
    const host::File file = host::open_file(path, "w");
    if (file != nullptr) {
        fputs(text.c_str(), file.get());
    }
}

/// Asks the routing daemon to reload, or whoever else has that number (B105). A text that starts
/// with no number of a single process is not signalled: 0 and negative numbers would reach whole
/// groups.
void signal_reload(const std::string& pid_text) {
    // A long of 32 bits would end at a number that passes for a process's.
    const std::int64_t number = strtoll(pid_text.c_str(), nullptr, 10);
    if (number > 0 && number <= std::numeric_limits<int>::max()) {
        host::signal_reload(static_cast<int>(number));
    }
}

}  // namespace

LBDecision::Weights LBDecision::get_new_weights(LBData& data, LBRule& rule, context* ctx) {
    Weights weights;
    int heaviest = -1;
    const auto& interfaces = data.family(ctx->ipv6);
    for (const auto& [member, weight] : rule.interfaces) {
        const auto& [name, is_ipv6] = member;
        if (is_ipv6 != ctx->ipv6) {
            continue;
        }
        const auto found = interfaces.find(name);
        // The namespace first: only the worker's own interfaces may be read without a lock.
        if (found != interfaces.end() && found->second.namespace_name == *ctx->ns_name &&
            found->second.active) {
            heaviest = std::max(heaviest, weight);
            weights.emplace_hint(weights.end(), name, weight);  // members are in this order
        }
    }
    if (rule.failover != 0) {
        keep_best(weights, heaviest);
    }
    return weights;
}

void LBDecision::generate_route(HealthEntry health, std::string* line, bool* is_added,
                                RuleEntry rule, const Weights& weights, TargetEntry target,
                                context* ctx) {
    if (line == nullptr || is_added == nullptr) {
        return;
    }
    const LBHealth& interface = health->second;
    const auto member = rule->second.interfaces.find({interface.name, interface.ipv6});
    if (member == rule->second.interfaces.end()) {
        return;
    }
    const std::string* nexthop = usable_nexthop(interface, weights, *ctx);
    if (nexthop == nullptr) {
        return;
    }
    *line += via_clause(*nexthop, member->second);
    *is_added = true;
    if (rule->second.failover != 0 && weights.size() == 1) {
        publish_choice(rule, target->first, *nexthop, ctx->ipv6);
    }
}

std::string LBDecision::routes_of(LBData& data, RuleEntry rule, context* ctx) {
    const Weights weights = get_new_weights(data, rule->second, ctx);
    auto& interfaces = data.family(ctx->ipv6);
    auto& targets = rule->second.targets;
    std::string routes;
    std::string line;
    bool is_added = false;
    for (auto target = targets.begin(); target != targets.end(); ++target) {
        // All destinations have the same members; what a failover rule chose is told for each.
        if (target == targets.begin() || rule->second.failover != 0) {
            line.clear();
            is_added = false;
            for (const auto& [name, weight] : weights) {
                generate_route(interfaces.find(name), &line, &is_added, rule, weights, target, ctx);
            }
        }
        if (is_added) {
            routes += route_line(target->first, line, target->second);
        } else {
            publish_choice(rule, target->first, "", ctx->ipv6);
        }
    }
    return routes;
}

namespace {

/// Writes the fragment, has the routing daemon reload it and flushes the kernel's route cache.
void hand_over(LBDecision& decision, const std::string& routes, context* ctx) {
    write_fragment(fragment_path(*ctx->ns_name, ctx->ipv6), fragment_text(routes, ctx->ipv6));
    const std::string ask_pid = pid_command(*ctx->ns_name, ctx->ipv6);
    std::string output;
    decision.execute(ask_pid, output, ctx, true);
    if (output.empty()) {
        plain_syslog(7, "LBDecision::run() can't execute '%s'", ask_pid.c_str());
        return;
    }
    signal_reload(output);  // B106: whatever the text, the cache is flushed
    decision.execute(ctx->ipv6 ? "ip -6 route flush cache" : "ip route flush cache", output, ctx,
                     false);
}

}  // namespace

void LBDecision::run(LBData& data, context* ctx) {
    if (!ctx->own->is_routed_anew(data, *ctx)) {
        return;
    }
    std::string routes;
    for (const RuleEntry rule : ctx->own->rules(data, *ctx)) {
        routes += routes_of(data, rule, ctx);
    }
    if (remember(data, *ctx, routes)) {
        hand_over(*this, routes, ctx);
    }
}

int LBDecision::execute(std::string command, std::string& output, context* /*ctx*/, bool read) {
    FILE* stream = host::open_command(command + " 2>/dev/null", read ? "r" : "w");
    if (stream == nullptr) {
        return -1;
    }
    if (read) {
        fflush(stream);
        char* line = nullptr;
        std::size_t capacity = 0;
        while (getline(&line, &capacity, stream) > 0) {
            output += line;
            output += ' ';
        }
        free(line);
    }
    return host::close_command(stream);
}

// The configuration as understood.
#include <algorithm>
#include <map>

#include "decision/lb_decision.h"
#include "decision/route_text.h"
#include "lbcheck/findings.h"
#include "lbcheck/judge.h"
#include "probe/lb_test.h"
#include "probe/lb_test6.h"
#include "probe/lb_test_ping.h"

namespace lbcheck {

namespace {

std::string shown_namespace(const std::string& name) {
    return name.empty() ? "the default namespace" : "namespace " + name;
}

std::string explain_run(const LBTestPING& ping) {
    return ", " + std::to_string(ping.count) + " echoes of " +
           std::to_string(ts2msecs(&ping.ping_timeout)) + " ms, period " +
           std::to_string(ping.period) + " s, limits loss " + std::to_string(ping.loss) +
           "%, rtt " + std::to_string(ping.rtt) + " ms, jitter " + std::to_string(ping.jitter) +
           " ms";
}

template <class Probes>
std::string explain_probes(const Probes& probes) {
    std::string text;
    for (const auto& [number, probe] : probes) {
        text += "    probe " + std::to_string(number) + ": " + probe->name() + ", target " +
                (probe->target.empty() ? "the next hop" : probe->target);
        const auto* ping = dynamic_cast<const LBTestPING*>(probe);
        text += ping != nullptr ? explain_run(*ping)
                                : ", answer within " + std::to_string(probe->timeout) + " ms";
        text += "\n";
    }
    return text;
}

std::string explain_workers(const LBData& data) {
    std::map<std::pair<std::string, bool>, std::pair<int, int>> needs;
    for (const bool is_ipv6 : {false, true}) {
        for (const auto& [name, health] : data.family(is_ipv6)) {
            ++needs[{health.namespace_name, is_ipv6}].first;
        }
    }
    for (const auto& [name, rule] : data.rules) {
        ++needs[{rule.namespace_name, !is_ipv4_rule(name)}].second;
    }
    std::string text = "Workers:\n";
    for (const auto& [key, counts] : needs) {
        text += "  " + shown_namespace(key.first) + ", " + (key.second ? "IPv6" : "IPv4") + ": " +
                std::to_string(counts.first) + " interfaces, " + std::to_string(counts.second) +
                " rules" +
                (counts.first != 0 && counts.second != 0 ? "" : " (no worker is started)") + "\n";
    }
    return text;
}

/// The route lines of a rule when all uplinks work; a next hop that is learnt stands as a word.
std::string explain_routes(LBData& data, std::map<std::string, LBRule>::iterator rule) {
    std::string text;
    for (const bool is_ipv6 : {false, true}) {
        std::string ns_name = rule->second.namespace_name;
        if (!has_worker(data, ns_name, is_ipv6)) {
            continue;
        }
        context ctx{.ipv6 = is_ipv6, .ns_name = &ns_name};
        LBDecision decision;
        const auto weights = decision.get_new_weights(data, rule->second, &ctx);
        for (auto target = rule->second.targets.begin(); target != rule->second.targets.end();
             ++target) {
            std::string line;
            bool is_added = false;
            for (const auto& [name, weight] : weights) {
                decision.generate_route(data.family(is_ipv6).find(name), &line, &is_added, rule,
                                        weights, target, &ctx);
            }
            if (is_added) {
                text += "    " + route_line(target->first, line, target->second);
            }
        }
    }
    return text.empty() ? "    no route\n" : text;
}

}  // namespace

std::string explain(const LBData& understood) {
    LBData data(understood);
    std::string text = explain_workers(data) + "Interfaces:\n";
    for (const bool is_ipv6 : {false, true}) {
        for (auto& [name, health] : data.family(is_ipv6)) {
            health.active = true;
            health.nexthop_addr = "<" + health.nexthop + ">";
            text += "  " + name + (is_ipv6 ? " (IPv6), " : " (IPv4), ") +
                    shown_namespace(health.namespace_name) + ", next hop " +
                    (health.nexthop.empty() ? "none" : health.nexthop) + ", up after " +
                    std::to_string(std::max(health.success_ct, 1)) + ", down after " +
                    std::to_string(std::max(health.failure_ct, 1)) +
                    (health.check_all ? ", all targets must answer" : "") + "\n" +
                    explain_probes(health.tests) + explain_probes(health.tests6);
        }
    }
    text += "Rules:\n";
    for (auto rule = data.rules.begin(); rule != data.rules.end(); ++rule) {
        text += "  " + rule->first + ", " + shown_namespace(rule->second.namespace_name) +
                (rule->second.failover != 0 ? ", failover" : ", shared by weight") + "\n" +
                explain_routes(data, rule);
    }
    return text;
}

}  // namespace lbcheck

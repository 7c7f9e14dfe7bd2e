// The configuration as understood.
#include <map>

#include "decision/lb_decision.h"
#include "lbcheck/findings.h"
#include "probe/lb_test.h"
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

std::string explain_probes(const LBHealth& health) {
    std::string text;
    for_each_probe(health, [&text](int number, Probe& probe) {
        text += "    probe " + std::to_string(number) + ": " + probe.name() + ", target " +
                (probe.target.empty() ? "the next hop" : probe.target);
        const auto* ping = dynamic_cast<const LBTestPING*>(&probe);
        text += ping != nullptr ? explain_run(*ping)
                                : ", answer within " + std::to_string(probe.timeout) + " ms";
        text += "\n";
    });
    return text;
}

/// B39: of two counts, one alone is as good as neither.
int outcomes_needed(const LBHealth& health, int count) {
    return health.success_ct == 0 || health.failure_ct == 0 ? 1 : count;
}

std::string explain_workers(const LBData& data) {
    std::string text = "Workers:\n";
    for (const auto& [place, work] : work_by_namespace(data)) {
        text += "  " + shown_namespace(place.first) + ", " + (place.second ? "IPv6" : "IPv4") +
                ": " + std::to_string(work.interfaces) + " interfaces, " +
                std::to_string(work.rules) + " rules" +
                (work.needs_worker() ? "" : " (no worker is started)") + "\n";
    }
    return text;
}

/// The route lines of a rule when all uplinks work; a next hop that is learnt stands as a word.
std::string explain_routes(LBData& data, std::map<std::string, LBRule>::iterator rule) {
    std::string ns_name = rule->second.namespace_name;
    WorkByNamespace work = work_by_namespace(data);
    std::string lines;
    for (const bool is_ipv6 : {false, true}) {
        if (work[{ns_name, is_ipv6}].needs_worker()) {
            context ctx{.ipv6 = is_ipv6, .ns_name = &ns_name};
            lines += LBDecision().routes_of(data, rule, &ctx);
        }
    }
    std::string text;
    for (std::size_t begin = 0; begin < lines.size();) {
        const std::size_t end = lines.find('\n', begin) + 1;
        text += "    " + lines.substr(begin, end - begin);
        begin = end;
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
                    std::to_string(outcomes_needed(health, health.success_ct)) + ", down after " +
                    std::to_string(outcomes_needed(health, health.failure_ct)) +
                    (health.check_all ? ", all targets must answer" : "") + "\n" +
                    explain_probes(health);
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

// The configuration as understood.
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "decision/lb_decision.h"
#include "lbcheck/findings.h"
#include "lbcheck/timing.h"
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

/// The route lines of a rule in the state that the data are in; a next hop that is learnt stands as
/// a word.
std::string routes_of(LBData& data, const WorkByNamespace& work,
                      std::map<std::string, LBRule>::iterator rule) {
    std::string ns_name = rule->second.namespace_name;
    std::string lines;
    for (const bool is_ipv6 : {false, true}) {
        const auto found = work.find({ns_name, is_ipv6});
        if (found != work.end() && found->second.needs_worker()) {
            context ctx{.ipv6 = is_ipv6, .ns_name = &ns_name};
            lines += LBDecision().routes_of(data, rule, &ctx);
        }
    }
    return lines;
}

std::string indented(const std::string& lines, const std::string& indentation) {
    std::string text;
    for (std::size_t begin = 0; begin < lines.size();) {
        const std::size_t end = lines.find('\n', begin) + 1;
        text += indentation + lines.substr(begin, end - begin);
        begin = end;
    }
    return text.empty() ? indentation + "no route\n" : text;
}

std::string explain_interface(const std::string& name, const LBHealth& health) {
    const ExpectedChange change = expected_change(health);
    return "  " + name + (health.ipv6 ? " (IPv6), " : " (IPv4), ") +
           shown_namespace(health.namespace_name) + ", next hop " +
           (health.nexthop.empty() ? "none" : health.nexthop) +
           (health.check_all ? ", all targets must answer" : "") + "\n    down after about " +
           std::to_string(change.down_s) + " s without answers (" +
           std::to_string(change.failures) + " in a row), up after about " +
           std::to_string(change.up_s) + " s of answers (" + std::to_string(change.successes) +
           " in a row)\n" + explain_probes(health);
}

/// What becomes of the routes when one uplink alone fails: those that change.
class Failures {
  public:
    Failures(LBData& data, const WorkByNamespace& work) : data_(data), work_(work) {
        for (auto rule = data_.rules.begin(); rule != data_.rules.end(); ++rule) {
            const std::string routes = routes_of(data_, work_, rule);
            for (const auto& [member, weight] : rule->second.interfaces) {
                rules_of_[member].push_back({rule, routes});
            }
        }
    }

    std::string explain_all() {
        std::string text = "When one uplink fails:\n";
        for (const bool is_ipv6 : {false, true}) {
            for (auto& [name, health] : data_.family(is_ipv6)) {
                health.active = false;
                text += explain(name, is_ipv6);
                health.active = true;
            }
        }
        return text;
    }

  private:
    struct AffectedRule {
        std::map<std::string, LBRule>::iterator rule;
        std::string routes;  ///< when all uplinks work
    };

    std::string explain(const std::string& name, bool is_ipv6) {
        std::string text;
        for (const AffectedRule& affected : rules_of_[{name, is_ipv6}]) {
            const std::string routes = routes_of(data_, work_, affected.rule);
            if (routes != affected.routes) {
                text += "    " + affected.rule->first + "\n" + indented(routes, "      ");
            }
        }
        return "  " + name + (is_ipv6 ? " (IPv6)\n" : " (IPv4)\n") +
               (text.empty() ? "    no route changes\n" : text);
    }

    LBData& data_;
    const WorkByNamespace& work_;
    std::map<std::pair<std::string, bool>, std::vector<AffectedRule>> rules_of_;
};

/// Each failure is decided anew: beyond this many nobody reads them.
constexpr std::size_t most_failures = 100;

}  // namespace

std::string explain(const LBData& understood) {
    LBData data(understood);
    const WorkByNamespace work = work_by_namespace(data);
    std::string text = explain_workers(data) + "Interfaces:\n";
    for (const bool is_ipv6 : {false, true}) {
        for (auto& [name, health] : data.family(is_ipv6)) {
            health.active = true;
            health.nexthop_addr = "<" + health.nexthop + ">";
            text += explain_interface(name, health);
        }
    }
    text += "Rules:\n";
    for (auto rule = data.rules.begin(); rule != data.rules.end(); ++rule) {
        text += "  " + rule->first + ", " + shown_namespace(rule->second.namespace_name) +
                (rule->second.failover != 0 ? ", failover" : ", shared by weight") + "\n" +
                indented(routes_of(data, work, rule), "    ");
    }
    const std::size_t uplinks = data.health.size() + data.health6.size();
    return text + (uplinks > most_failures ? "Single failures are left out: there are more than " +
                                                 std::to_string(most_failures) + " uplinks.\n"
                                           : Failures(data, work).explain_all());
}

}  // namespace lbcheck

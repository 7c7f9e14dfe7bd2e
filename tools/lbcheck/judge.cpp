#include "lbcheck/judge.h"

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include "dumps/freshness.h"
#include "lbcheck/timing.h"
#include "lbcheck/values.h"
#include "output/records.h"
#include "probe/lb_test.h"

namespace lbcheck {

namespace {

/// Name and family of every interface that a rule names.
std::set<std::pair<std::string, bool>> members_of_rules(const LBData& data) {
    std::set<std::pair<std::string, bool>> members;
    for (const auto& [name, rule] : data.rules) {
        for (const auto& [member, weight] : rule.interfaces) {
            members.insert(member);
        }
    }
    return members;
}

std::string interface_text(const std::string& ifname, bool is_ipv6) {
    return (is_ipv6 ? "interface6 " : "interface ") + ifname;
}

class Judge {
  public:
    Judge(const LBData& data, const Watcher& watcher, std::vector<Finding>& findings)
        : data_(data),
          watcher_(watcher),
          findings_(findings),
          work_(work_by_namespace(data)),
          members_(members_of_rules(data)) {}

    void judge_all() {
        bool has_any_worker = false;
        for (const bool is_ipv6 : {false, true}) {
            for (const auto& [name, health] : data_.family(is_ipv6)) {
                judge_interface(name, health, is_ipv6);
                has_any_worker =
                    has_any_worker || work_in(health.namespace_name, is_ipv6).needs_worker();
            }
        }
        for (const auto& [name, rule] : data_.rules) {
            judge_rule(name, rule);
        }
        judge_cycles();
        if (!has_any_worker) {
            findings_.push_back({.line = 0,
                                 .severity = Severity::error,
                                 .text = "",
                                 .message = "nothing to do: no namespace has both an interface and "
                                            "a rule of one family"});
        }
    }

  private:
    void add(const std::string& place, Severity severity, const std::string& text,
             const std::string& message) {
        findings_.push_back({.line = watcher_.line_of(place),
                             .severity = severity,
                             .text = text,
                             .message = message});
    }

    void warn(const std::string& place, const std::string& message) {
        add(place, Severity::warning, place, message);
    }

    NamespaceWork work_in(const std::string& ns_name, bool is_ipv6) const {
        const auto found = work_.find({ns_name, is_ipv6});
        return found == work_.end() ? NamespaceWork() : found->second;
    }

    void judge_interface(const std::string& name, const LBHealth& health, bool is_ipv6) {
        const std::string place = interface_text(name, is_ipv6);
        if (health.success_ct == 0) {
            warn(place,
                 "without success-ct every single outcome counts at once, also with failure-ct");
        }
        if (health.failure_ct == 0) {
            warn(place,
                 "without failure-ct every single outcome counts at once, also with success-ct");
        }
        if (health.nexthop.empty()) {
            add(place, Severity::error, place, "has no nexthop to send frames and routes to");
        }
        if (work_in(health.namespace_name, is_ipv6).rules == 0) {
            warn(place, "no rule of its family lies in its namespace: no worker probes it");
        } else if (!members_.contains({name, is_ipv6})) {
            warn(place, "is a member of no rule: probed, never routed");
        }
        judge_targets(place, health);
        judge_source(place, health);
        judge_reach(place, health);
        judge_time(place, health);
        judge_shared_next_hop(place, health, is_ipv6);
    }

    /// An outage behind the provider's gateway is seen by what lies behind it only.
    void judge_reach(const std::string& place, const LBHealth& health) {
        bool has_target = false;
        bool goes_behind = false;
        for_each_probe(health, [&](int, const Probe& probe) {
            has_target = has_target || !probe.target.empty();
            goes_behind = goes_behind || (!probe.target.empty() && probe.target != health.nexthop);
        });
        if (!has_target) {
            warn(place,
                 "has no target: its next hop is asked, and an outage behind that goes unnoticed");
        } else if (!goes_behind) {
            warn(place, "its only target is its next hop: an outage behind that goes unnoticed");
        }
    }

    void judge_time(const std::string& place, const LBHealth& health) {
        constexpr int long_s = 30;
        constexpr int longest_wait_s = 300;  // five minutes may be meant, for a line that flaps
        const ExpectedChange expected = expected_change(health);
        if (expected.down_s > long_s) {
            warn(place, "an outage is noticed after about " + std::to_string(expected.down_s) +
                            " s only: lower resp-time or failure-ct");
        }
        if (expected.up_s > longest_wait_s) {
            warn(place, "answers bring it up after about " + std::to_string(expected.up_s) +
                            " s only: lower success-ct");
        }
    }

    void judge_shared_next_hop(const std::string& place, const LBHealth& health, bool is_ipv6) {
        const bool is_learnt = health.nexthop == "dhcp" || health.nexthop == "tunnel";
        if (is_learnt || health.nexthop.empty()) {
            return;
        }
        const auto [first, is_new] = uplink_by_next_hop_.try_emplace(
            {health.namespace_name, is_ipv6, health.nexthop}, place);
        if (is_new) {
            return;
        }
        const std::string shared = "has the next hop of " + first->second;
        if (is_link_local(health.nexthop)) {  // B141
            add(place, Severity::error, place,
                shared +
                    ": the daemon finds one hardware address for both, so probes reach one gateway "
                    "only unless both have that; give one of them a global next hop");
        } else {
            warn(place, shared + ": a route through it does not tell which of them is meant");
        }
    }

    /// lbshow takes dumps for old that a worker at its echoes could not write.
    void judge_cycles() {
        for (const auto& [place, longest_s] : longest_cycles_s(data_)) {
            if (work_in(place.first, place.second).needs_worker() &&
                longest_s > dumps::limit_with_extended_pings_s) {
                findings_.push_back(
                    {.line = 0,
                     .severity = Severity::warning,
                     .text = "",
                     .message = "the extended pings of " +
                                (place.first.empty() ? "the default namespace"
                                                     : "namespace " + place.first) +
                                " may hold a cycle for " + std::to_string(longest_s) +
                                " s (count x timeout of all of them): lbshow calls dumps stale "
                                "after " +
                                std::to_string(dumps::limit_with_extended_pings_s) +
                                " s, and other uplinks are judged as late"});
            }
        }
    }

    void judge_source(const std::string& place, const LBHealth& health) {
        if (!health.source_address.empty() && health.source_address == health.nexthop) {
            warn(place, "its source_address is its next hop: the answers go there");
        }
        const bool asks_beyond_link =
            std::any_of(health.tests6.begin(), health.tests6.end(), [&health](const auto& entry) {
                const std::string& target = entry.second->target;
                return !target.empty() && target != health.nexthop;
            });
        if (health.source_address.empty() && asks_beyond_link) {
            warn(place,
                 "without source_address its probes leave from the link-local address, which "
                 "a target behind the next hop cannot answer");
        }
    }

    /// One probe to a target is in flight at a time: a second one for the same target waits for it.
    void judge_targets(const std::string& place, const LBHealth& health) {
        std::set<std::string> targets;
        for_each_probe(health, [&](int number, const Probe& probe) {
            if (!targets.insert(probe.target).second) {
                add(place, Severity::warning, place,
                    "probe " + std::to_string(number) +
                        " has the target of another one: both count in one run of results, and "
                        "where one succeeds and the other fails, the uplink may reach neither "
                        "count and stay as it is");
            }
        });
        judge_replaced_targets(place, health, targets);
    }

    /// B37: the loader remembers a target whose probe has got another one, and it stays down.
    void judge_replaced_targets(const std::string& place, const LBHealth& health,
                                const std::set<std::string>& probed) {
        for (const auto& [target, verdict] : health.history.last_resp) {
            if (probed.contains(target)) {
                continue;
            }
            const std::string text = "target " + target;
            const std::string never = "never asked, as a later target of its probe replaces it";
            const std::string mend = ": give it a rule with a number of its own";
            add(place + " " + text, health.check_all ? Severity::error : Severity::warning, text,
                never + (health.check_all ? ", and with check_all the uplink stays down" : "") +
                    mend);
        }
    }

    void judge_rule(const std::string& name, const LBRule& rule) {
        const std::string place = "rule " + name;
        const bool is_ipv6 = !is_ipv4_rule(name);
        if (rule.targets.empty()) {
            warn(place, "has no target: it routes nothing");
        }
        if (rule.interfaces.empty()) {
            warn(place, "has no interface: it routes nothing");
        }
        if (work_in(rule.namespace_name, is_ipv6).interfaces == 0) {
            warn(place, "no interface of its family lies in its namespace: no worker serves it");
        }
        judge_number(place, name);
        for (const auto& [prefix, metric] : rule.targets) {
            judge_prefix(place, rule, prefix, is_ipv6);
        }
        for (const auto& [member, weight] : rule.interfaces) {
            judge_member(place, rule, member, weight, is_ipv6);
        }
    }

    /// The dumps have a rule's number and family, not its name.
    void judge_number(const std::string& place, const std::string& name) {
        const auto key = read_rule_key(name);
        if (!key) {
            warn(place,
                 "is not called NUMBER_ipv4 or NUMBER_ipv6: the dump of the rules ends here");
            return;
        }
        if (!problem_of_number(name.substr(0, name.find('_'))).empty()) {
            warn(place,
                 "its number has more than 32 bits: the dumps, lbshow and lbwatch show "
                 "another one");
        }
        const auto [first, is_new] =
            rule_by_number_.try_emplace({key->number, key->is_ipv6}, place);
        if (!is_new) {
            warn(place, "has the number of " + first->second +
                            ": the dumps, lbshow and lbwatch cannot tell them apart; give it "
                            "another number");
        }
    }

    void judge_prefix(const std::string& place, const LBRule& rule, const std::string& prefix,
                      bool is_ipv6) {
        const auto [first, is_new] = routed_by_.try_emplace(
            {rule.namespace_name, is_ipv6, canonical_prefix(family_of(is_ipv6), prefix)},
            std::pair{place, prefix});
        if (is_new) {
            return;
        }
        const auto& [other, spelling] = first->second;
        const std::string both = ": the routing daemon is given both";
        if (other == place) {
            warn(place, "routes " + spelling + " also as " + prefix + both);
        } else {
            warn(place, "routes " + prefix + " as " + other + " does" +
                            (spelling == prefix ? "" : ", written " + spelling) + both);
        }
    }

    void judge_member(const std::string& rule_place, const LBRule& rule,
                      const std::pair<std::string, bool>& member, int weight, bool is_ipv6_rule) {
        const auto& [name, is_ipv6] = member;
        const std::string text = interface_text(name, is_ipv6);
        const std::string place = rule_place + " " + text;
        const auto& interfaces = data_.family(is_ipv6);
        const auto found = interfaces.find(name);
        if (found == interfaces.end()) {
            add(place, Severity::warning, text, "is not under health: never active");
        } else if (found->second.namespace_name != rule.namespace_name) {
            add(place, Severity::warning, text, "lies in another namespace than the rule");
        }
        if (is_ipv6 != is_ipv6_rule) {
            add(place, Severity::warning, text,
                std::string("the rule's name makes it an ") + (is_ipv6_rule ? "IPv6" : "IPv4") +
                    " rule: its prefixes would get next hops of the other family");
        }
        if (weight == 0) {
            add(place, Severity::warning, text, "has no weight: never routed");
        }
    }

    const LBData& data_;
    const Watcher& watcher_;
    std::vector<Finding>& findings_;
    const WorkByNamespace work_;
    const std::set<std::pair<std::string, bool>> members_;
    /// Namespace, family and prefix of each destination so far, with the first rule that has it and
    /// how it is written there.
    std::map<std::tuple<std::string, bool, std::string>, std::pair<std::string, std::string>>
        routed_by_;
    /// Number and family of each rule so far, with the first that has them.
    std::map<std::pair<int, bool>, std::string> rule_by_number_;
    /// Namespace, family and next hop of each uplink so far, with the first that has it.
    std::map<std::tuple<std::string, bool, std::string>, std::string> uplink_by_next_hop_;
};

}  // namespace

void judge(const LBData& data, const Watcher& watcher, std::vector<Finding>& findings) {
    Judge(data, watcher, findings).judge_all();
}

}  // namespace lbcheck

#include "lbcheck/judge.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

#include "output/records.h"
#include "probe/lb_test.h"

namespace lbcheck {

namespace {

bool is_member(const LBData& data, const std::string& ifname, bool is_ipv6) {
    return std::any_of(data.rules.begin(), data.rules.end(), [&](const auto& entry) {
        return entry.second.interfaces.contains({ifname, is_ipv6});
    });
}

std::string interface_text(const std::string& ifname, bool is_ipv6) {
    return (is_ipv6 ? "interface6 " : "interface ") + ifname;
}

class Judge {
  public:
    Judge(const LBData& data, const Watcher& watcher, std::vector<Finding>& findings)
        : data_(data), watcher_(watcher), findings_(findings), work_(work_by_namespace(data)) {}

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
        } else if (!is_member(data_, name, is_ipv6)) {
            warn(place, "is a member of no rule: probed, never routed");
        }
        judge_targets(place, health);
        judge_source(place, health);
    }

    void judge_source(const std::string& place, const LBHealth& health) {
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
                    "probe " + std::to_string(number) + " has the target of another one");
            }
        });
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
        if (!read_rule_key(name)) {
            warn(place,
                 "is not called NUMBER_ipv4 or NUMBER_ipv6: the dump of the rules ends here");
        }
        for (const auto& [prefix, metric] : rule.targets) {
            judge_prefix(place, rule, prefix, is_ipv6);
        }
        for (const auto& [member, weight] : rule.interfaces) {
            judge_member(place, rule, member, weight, is_ipv6);
        }
    }

    void judge_prefix(const std::string& place, const LBRule& rule, const std::string& prefix,
                      bool is_ipv6) {
        const auto [first, is_new] =
            routed_by_.try_emplace({rule.namespace_name, is_ipv6, prefix}, place);
        if (!is_new) {
            warn(place, "routes " + prefix + " as " + first->second +
                            " does: the routing daemon is given both");
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
    /// Namespace, family and prefix of each destination so far, with the first rule that has it.
    std::map<std::tuple<std::string, bool, std::string>, std::string> routed_by_;
};

}  // namespace

void judge(const LBData& data, const Watcher& watcher, std::vector<Finding>& findings) {
    Judge(data, watcher, findings).judge_all();
}

}  // namespace lbcheck

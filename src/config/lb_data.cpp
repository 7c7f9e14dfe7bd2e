#include "config/lb_data.h"

#include <algorithm>

bool LBRule::has_member(bool of_ipv6) const {
    return std::any_of(interfaces.begin(), interfaces.end(),
                       [of_ipv6](const auto& member) { return member.first.second == of_ipv6; });
}

bool is_ipv4_rule(const std::string& rule_name) {
    return rule_name.find("ipv4") != std::string::npos;
}

bool chooses_for(const std::string& rule_name, const LBRule& rule, bool ipv6) {
    const bool own_family_is_ipv6 = !is_ipv4_rule(rule_name);
    const bool chooser_is_ipv6 =
        rule.has_member(own_family_is_ipv6) ? own_family_is_ipv6 : !own_family_is_ipv6;
    return chooser_is_ipv6 == ipv6;
}

WorkByNamespace work_by_namespace(const LBData& data) {
    WorkByNamespace work;
    for (const bool is_ipv6 : {false, true}) {
        for (const auto& [name, health] : data.family(is_ipv6)) {
            ++work[{health.namespace_name, is_ipv6}].interfaces;
        }
    }
    for (const auto& [name, rule] : data.rules) {
        ++work[{rule.namespace_name, !is_ipv4_rule(name)}].rules;
    }
    return work;
}

// What each keyword of the configuration file does. A handler is named after the keyword's place in
// the block tree.

#include <array>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "config/keywords.h"
#include "config/lb_data_factory.h"
#include "config/namespaces.h"
#include "config/probe_maker.h"
#include "host/log.h"

namespace {

using Place = KeywordPlace;
using Value = KeywordValue;

constexpr std::array keyword_table{
    Keyword{"health", Place::top, Value::none},
    Keyword{"interface", Place::health, Value::word},
    Keyword{"interface6", Place::health, Value::word},
    Keyword{"success-ct", Place::health_interface, Value::number},
    Keyword{"failure-ct", Place::health_interface, Value::number},
    Keyword{"nexthop", Place::health_interface, Value::word},
    Keyword{"source_address", Place::health_interface, Value::word},
    Keyword{"check_all", Place::health_interface, Value::none},
    Keyword{"namespace", Place::health_interface, Value::word},
    Keyword{"rule", Place::health_interface, Value::number},
    Keyword{"type", Place::health_probe, Value::word},
    Keyword{"target", Place::health_probe, Value::word},
    Keyword{"resp-time", Place::health_probe, Value::number},
    Keyword{"period", Place::health_probe, Value::number, true},
    Keyword{"timeout", Place::health_probe, Value::number, true},
    Keyword{"count", Place::health_probe, Value::number, true},
    Keyword{"loss", Place::health_probe, Value::number, true},
    Keyword{"rtt", Place::health_probe, Value::number, true},
    Keyword{"jitter", Place::health_probe, Value::number, true},
    Keyword{"rule", Place::top, Value::word},
    Keyword{"namespace", Place::rule, Value::word},
    Keyword{"failover", Place::rule, Value::none},
    Keyword{"interface", Place::rule, Value::word},
    Keyword{"interface6", Place::rule, Value::word},
    Keyword{"target", Place::rule, Value::none},
    Keyword{"weight", Place::rule_interface, Value::number},
    Keyword{"address", Place::rule_target, Value::word},
    Keyword{"metric", Place::rule_target, Value::number},
};

}  // namespace

std::span<const Keyword> all_keywords() {
    return keyword_table;
}

bool is_interface_keyword(std::string_view key) {
    return key == "interface" || key == "interface6";
}

// B31: read by 64 bits, so that it is cut the same where a long has 32.
int configured_number(const std::string& value) {
    return static_cast<int>(static_cast<std::uint32_t>(strtoull(value.c_str(), nullptr, 10)));
}

Handled LBDataFactory::process(const std::vector<std::string>& stack, int depth,
                               const std::string& key, const std::string& value) {
    if (stack[0] == "health") {
        return process_health_line(depth, key, value);
    }
    if (stack[0] == "rule") {
        return process_rule_line(stack, depth, key, value);
    }
    return Handled::ignored;
}

Handled LBDataFactory::process_health_line(int depth, const std::string& key,
                                           const std::string& value) {
    if (depth == 2 && is_interface_keyword(key)) {
        return process_health(key, value, key == "interface6");
    }
    if (depth == 2) {
        return process_health_interface(key, value);
    }
    if (depth == 3) {
        return process_health_interface_rule(key, value);
    }
    return depth == 4 ? process_health_probe(key, value) : Handled::ignored;
}

Handled LBDataFactory::process_health(const std::string& /*key*/, const std::string& value,
                                      bool ipv6) {
    if (value.empty()) {
        return Handled::ignored;
    }
    // B32, B33: a name that stands twice is one interface, whatever the namespaces.
    const auto [entry, is_new] = data.family(ipv6).try_emplace(value, value, ipv6);
    cur_health = entry;
    cur_test.reset();
    cur_test6.reset();
    return is_new ? Handled::acted : Handled::kept;
}

Handled LBDataFactory::process_health_interface(const std::string& key, const std::string& value) {
    if (!cur_health) {
        return Handled::ignored;
    }
    LBHealth& health = (*cur_health)->second;
    if (key == "success-ct") {
        if (configured_number(value) <= 0) {
            LOG_ERROR("wan_lb: illegal success-ct specified in configuration file: %s",
                      value.c_str());
            return Handled::refused;
        }
        health.success_ct = configured_number(value);
    } else if (key == "failure-ct") {
        if (configured_number(value) <= 0) {
            LOG_ERROR("wan_lb: illegal failure-ct specified in configuration file: %s",
                      value.c_str());
            return Handled::refused;
        }
        health.failure_ct = configured_number(value);
    } else if (key == "nexthop") {
        health.nexthop = value;
    } else if (key == "source_address") {
        health.source_address = value;
    } else if (key == "check_all") {
        health.check_all = true;  // B38: whatever the value
    } else if (key == "namespace") {
        health.namespace_name = value;
        namespaces.insert(value);
    } else {
        return Handled::ignored;
    }
    return Handled::acted;
}

// B34: every line at this depth sets the number. The closing bracket of a type block sets it to 0,
// so a second type block in one rule gets a number of its own.
Handled LBDataFactory::process_health_interface_rule(const std::string& key,
                                                     const std::string& value) {
    cur_test_no = configured_number(value);
    return key == "rule" || key.empty() ? Handled::acted : Handled::ignored;
}

Handled LBDataFactory::process_health_probe(const std::string& key, const std::string& value) {
    using Handler = Handled (LBDataFactory::*)(const std::string&, const std::string&);
    static const std::map<std::string, Handler> handlers{
        {"type", &LBDataFactory::process_health_interface_rule_type},
        {"target", &LBDataFactory::process_health_interface_rule_type_target},
        {"resp-time", &LBDataFactory::process_health_interface_rule_type_resptime},
        {"period", &LBDataFactory::process_health_interface_rule_type_period},
        {"timeout", &LBDataFactory::process_health_interface_rule_type_timeout},
        {"count", &LBDataFactory::process_health_interface_rule_type_count},
        {"loss", &LBDataFactory::process_health_interface_rule_type_loss},
        {"rtt", &LBDataFactory::process_health_interface_rule_type_rtt},
        {"jitter", &LBDataFactory::process_health_interface_rule_type_jitter},
    };
    const auto handler = handlers.find(key);
    const bool acts = handler != handlers.end() && cur_health.has_value();
    return acts ? (this->*handler->second)(key, value) : Handled::ignored;
}

namespace {

/// Makes the probe that has the number the current one, if any. A new probe is stored unless the
/// number is taken (B32), and a word that makes none leaves the number's probe current (B35).
template <class Probe>
Handled keep_first(std::map<int, Probe*>& probes, int test_no, Probe* probe,
                   std::optional<typename std::map<int, Probe*>::iterator>& current) {
    Handled handled = probe == nullptr ? Handled::ignored : Handled::acted;
    if (probe != nullptr && !probes.try_emplace(test_no, probe).second) {
        discard_probe(probe);
        handled = Handled::dropped;
    }
    const auto found = probes.find(test_no);
    current = found == probes.end() ? std::nullopt : std::make_optional(found);
    return handled;
}

}  // namespace

Handled LBDataFactory::process_health_interface_rule_type(const std::string& /*key*/,
                                                          const std::string& value) {
    LBHealth& health = (*cur_health)->second;
    if (!health.ipv6) {
        return keep_first(health.tests, cur_test_no, make_probe(value), cur_test);
    }
    // B36: a word that makes no IPv6 probe leaves the current one as it is.
    LBTest6* const probe = make_probe6(value);
    return probe == nullptr ? Handled::ignored
                            : keep_first(health.tests6, cur_test_no, probe, cur_test6);
}

Handled LBDataFactory::process_health_interface_rule_type_target(const std::string& /*key*/,
                                                                 const std::string& value) {
    LBHealth& health = (*cur_health)->second;
    const bool has_probe = health.ipv6 ? cur_test6.has_value() : cur_test.has_value();
    if (!has_probe || value.empty()) {
        return Handled::ignored;
    }
    if (health.ipv6) {
        set_probe_target(*(*cur_test6)->second, value);
    } else {
        set_probe_target(*(*cur_test)->second, value);
    }
    health.history.last_resp[value] = -1;  // B37: also beside an earlier target of the probe
    return Handled::acted;
}

Handled LBDataFactory::process_health_interface_rule_type_resptime(const std::string& /*key*/,
                                                                   const std::string& value) {
    const bool is_ipv6 = (*cur_health)->second.ipv6;
    if (is_ipv6 && cur_test6) {
        set_probe_timeout(*(*cur_test6)->second, configured_number(value));
    } else if (!is_ipv6 && cur_test) {
        set_probe_timeout(*(*cur_test)->second, configured_number(value));
    } else {
        return Handled::ignored;
    }
    return Handled::acted;
}

Handled LBDataFactory::set_ping_setting(PingSetting setting, const std::string& value) {
    const bool is_set =
        cur_test && set_ping(*(*cur_test)->second, setting, configured_number(value));
    return is_set ? Handled::acted : Handled::ignored;
}

Handled LBDataFactory::process_health_interface_rule_type_period(const std::string& /*key*/,
                                                                 const std::string& value) {
    return set_ping_setting(PingSetting::period_s, value);
}

Handled LBDataFactory::process_health_interface_rule_type_timeout(const std::string& /*key*/,
                                                                  const std::string& value) {
    return set_ping_setting(PingSetting::wait_ms, value);
}

Handled LBDataFactory::process_health_interface_rule_type_count(const std::string& /*key*/,
                                                                const std::string& value) {
    return set_ping_setting(PingSetting::count, value);
}

Handled LBDataFactory::process_health_interface_rule_type_loss(const std::string& /*key*/,
                                                               const std::string& value) {
    return set_ping_setting(PingSetting::loss_percent, value);
}

Handled LBDataFactory::process_health_interface_rule_type_rtt(const std::string& /*key*/,
                                                              const std::string& value) {
    return set_ping_setting(PingSetting::rtt_ms, value);
}

Handled LBDataFactory::process_health_interface_rule_type_jitter(const std::string& /*key*/,
                                                                 const std::string& value) {
    return set_ping_setting(PingSetting::jitter_ms, value);
}

Handled LBDataFactory::process_rule_line(const std::vector<std::string>& stack, int depth,
                                         const std::string& key, const std::string& value) {
    const std::string& block = stack[1];
    if (depth > 1 && is_interface_keyword(block)) {
        return process_rule_interface(key, value);
    }
    if (depth >= 1 && block == "failover") {
        return process_rule_failover(key, value);
    }
    if (depth >= 1 && block == "namespace") {
        return process_rule_namespace(key, value);
    }
    if (depth > 1 && block == "target") {
        return process_rule_target(key, value);
    }
    return process_rule(key, value);
}

// B42: any key acts here as "rule" does, so a line that lacks its block makes a rule of its own.
Handled LBDataFactory::process_rule(const std::string& key, const std::string& value) {
    if (key.empty()) {
        return Handled::ignored;
    }
    if (configured_number(value) < 1) {
        LOG_WARNING("Illegal rule number: %s", value.c_str());
        return Handled::refused;  // B43: the rule before stays the current one
    }
    const auto [entry, is_new] = data.rules.try_emplace(value);
    cur_rule = entry;
    cur_rule_if.reset();
    cur_target.reset();
    if (key != "rule") {
        return Handled::strayed;
    }
    return is_new ? Handled::acted : Handled::kept;
}

Handled LBDataFactory::process_rule_interface(const std::string& key, const std::string& value) {
    if (!cur_rule) {
        return Handled::ignored;
    }
    if (is_interface_keyword(key)) {
        auto& members = (*cur_rule)->second.interfaces;
        const auto [member, is_new] = members.try_emplace({value, key == "interface6"}, 0);
        cur_rule_if = member;
        return is_new ? Handled::acted : Handled::kept;
    }
    if (key != "weight" || !cur_rule_if) {
        return Handled::ignored;
    }
    if (configured_number(value) < 1) {
        LOG_ERROR("wan_lb: illegal interface weight specified in configuration file: %s",
                  value.c_str());
        return Handled::refused;
    }
    (*cur_rule_if)->second = configured_number(value);
    return Handled::acted;
}

Handled LBDataFactory::process_rule_target(const std::string& key, const std::string& value) {
    if (!cur_rule) {
        return Handled::ignored;
    }
    if (key == "address") {
        const auto [target, is_new] = (*cur_rule)->second.targets.try_emplace(value, -1);
        cur_target = target;
        return is_new ? Handled::acted : Handled::kept;
    }
    if (key == "metric" && cur_target) {
        (*cur_target)->second = configured_number(value);
        return Handled::acted;
    }
    return Handled::ignored;
}

// The closing bracket of a block under "namespace" or of the rule itself comes here with an empty
// key and must not rename the rule's namespace.
Handled LBDataFactory::process_rule_namespace(const std::string& key, const std::string& value) {
    if (key != "namespace" || !cur_rule) {
        return Handled::ignored;
    }
    (*cur_rule)->second.namespace_name = value;
    namespaces.insert(value);
    return Handled::acted;
}

Handled LBDataFactory::process_rule_failover(const std::string& /*key*/,
                                             const std::string& /*value*/) {
    if (!cur_rule) {
        return Handled::ignored;
    }
    (*cur_rule)->second.failover = 1;  // B38: whatever the value
    return Handled::acted;
}

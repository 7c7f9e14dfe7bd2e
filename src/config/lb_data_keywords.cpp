// What each keyword of the configuration file does. A handler is named after the keyword's place in
// the block tree.

#include <cstdint>
#include <cstdlib>

#include "config/lb_data_factory.h"
#include "config/namespaces.h"
#include "config/probe_maker.h"
#include "platform/log.h"

namespace {

/// Decimal digits up to the first other character, taken as a signed 32-bit number; "12x" reads 12
/// and letters alone read 0.
int number(const std::string& value) {
    return static_cast<int>(static_cast<std::uint32_t>(strtoul(value.c_str(), nullptr, 10)));
}

bool is_interface_keyword(const std::string& key) {
    return key == "interface" || key == "interface6";
}

}  // namespace

void LBDataFactory::process(const std::vector<std::string>& stack, int depth,
                            const std::string& key, const std::string& value) {
    handled_ = Handled::ignored;
    if (stack[0] == "health") {
        process_health_line(depth, key, value);
    } else if (stack[0] == "rule") {
        process_rule_line(stack, depth, key, value);
    }
}

void LBDataFactory::process_health_line(int depth, const std::string& key,
                                        const std::string& value) {
    if (depth == 2 && is_interface_keyword(key)) {
        process_health(key, value, key == "interface6");
    } else if (depth == 2) {
        process_health_interface(key, value);
    } else if (depth == 3) {
        process_health_interface_rule(key, value);
    } else if (depth == 4) {
        process_health_probe(key, value);
    }
}

void LBDataFactory::process_health(const std::string& /*key*/, const std::string& value,
                                   bool ipv6) {
    if (value.empty()) {
        return;
    }
    const auto [entry, is_new] = data.family(ipv6).try_emplace(value, value, ipv6);
    handled_ = is_new ? Handled::acted : Handled::kept;
    cur_health = entry;
    cur_test.reset();
    cur_test6.reset();
}

void LBDataFactory::process_health_interface(const std::string& key, const std::string& value) {
    if (!cur_health) {
        return;
    }
    LBHealth& health = (*cur_health)->second;
    handled_ = Handled::acted;
    if (key == "success-ct") {
        if (number(value) <= 0) {
            handled_ = Handled::refused;
            LOG_ERROR("wan_lb: illegal success-ct specified in configuration file: %s",
                      value.c_str());
            return;
        }
        health.success_ct = number(value);
    } else if (key == "failure-ct") {
        if (number(value) <= 0) {
            handled_ = Handled::refused;
            LOG_ERROR("wan_lb: illegal failure-ct specified in configuration file: %s",
                      value.c_str());
            return;
        }
        health.failure_ct = number(value);
    } else if (key == "nexthop") {
        health.nexthop = value;
    } else if (key == "source_address") {
        health.source_address = value;
    } else if (key == "check_all") {
        health.check_all = true;
    } else if (key == "namespace") {
        health.namespace_name = value;
        namespaces.insert(value);
    } else {
        handled_ = Handled::ignored;
    }
}

// Every line at this depth sets the number: the closing bracket of a type block sets it to 0, so a
// second type block in one rule gets a number of its own.
void LBDataFactory::process_health_interface_rule(const std::string& key,
                                                  const std::string& value) {
    cur_test_no = number(value);
    handled_ = key == "rule" || key.empty() ? Handled::acted : Handled::ignored;
}

void LBDataFactory::process_health_probe(const std::string& key, const std::string& value) {
    using Handler = void (LBDataFactory::*)(const std::string&, const std::string&);
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
    if (handler != handlers.end() && cur_health) {
        handled_ = Handled::acted;
        (this->*handler->second)(key, value);
    }
}

namespace {

/// Stores the probe under the number unless that is taken; gives the probe that has it, if any.
template <class Probe>
auto keep_first(std::map<int, Probe*>& probes, int test_no, Probe* probe, Handled& handled) {
    handled = probe == nullptr ? Handled::ignored : Handled::acted;
    if (probe != nullptr && !probes.try_emplace(test_no, probe).second) {
        discard_probe(probe);
        handled = Handled::dropped;
    }
    const auto found = probes.find(test_no);
    return found == probes.end() ? std::nullopt : std::make_optional(found);
}

}  // namespace

void LBDataFactory::process_health_interface_rule_type(const std::string& /*key*/,
                                                       const std::string& value) {
    LBHealth& health = (*cur_health)->second;
    if (!health.ipv6) {
        cur_test = keep_first(health.tests, cur_test_no, make_probe(value), handled_);
        return;
    }
    handled_ = Handled::ignored;
    if (LBTest6* probe = make_probe6(value); probe != nullptr) {
        cur_test6 = keep_first(health.tests6, cur_test_no, probe, handled_);
    }
}

void LBDataFactory::process_health_interface_rule_type_target(const std::string& /*key*/,
                                                              const std::string& value) {
    LBHealth& health = (*cur_health)->second;
    const bool has_probe = health.ipv6 ? cur_test6.has_value() : cur_test.has_value();
    if (!has_probe || value.empty()) {
        handled_ = Handled::ignored;
        return;
    }
    if (health.ipv6) {
        set_probe_target(*(*cur_test6)->second, value);
    } else {
        set_probe_target(*(*cur_test)->second, value);
    }
    health.history.last_resp[value] = -1;
}

void LBDataFactory::process_health_interface_rule_type_resptime(const std::string& /*key*/,
                                                                const std::string& value) {
    const bool is_ipv6 = (*cur_health)->second.ipv6;
    if (is_ipv6 && cur_test6) {
        set_probe_timeout(*(*cur_test6)->second, number(value));
    } else if (!is_ipv6 && cur_test) {
        set_probe_timeout(*(*cur_test)->second, number(value));
    } else {
        handled_ = Handled::ignored;
    }
}

namespace {

Handled set_current(const std::optional<std::map<int, LBTest*>::iterator>& cur_test,
                    PingSetting setting, const std::string& value) {
    const bool is_set = cur_test && set_ping(*(*cur_test)->second, setting, number(value));
    return is_set ? Handled::acted : Handled::ignored;
}

}  // namespace

void LBDataFactory::process_health_interface_rule_type_period(const std::string& /*key*/,
                                                              const std::string& value) {
    handled_ = set_current(cur_test, PingSetting::period_s, value);
}

void LBDataFactory::process_health_interface_rule_type_timeout(const std::string& /*key*/,
                                                               const std::string& value) {
    handled_ = set_current(cur_test, PingSetting::wait_ms, value);
}

void LBDataFactory::process_health_interface_rule_type_count(const std::string& /*key*/,
                                                             const std::string& value) {
    handled_ = set_current(cur_test, PingSetting::count, value);
}

void LBDataFactory::process_health_interface_rule_type_loss(const std::string& /*key*/,
                                                            const std::string& value) {
    handled_ = set_current(cur_test, PingSetting::loss_percent, value);
}

void LBDataFactory::process_health_interface_rule_type_rtt(const std::string& /*key*/,
                                                           const std::string& value) {
    handled_ = set_current(cur_test, PingSetting::rtt_ms, value);
}

void LBDataFactory::process_health_interface_rule_type_jitter(const std::string& /*key*/,
                                                              const std::string& value) {
    handled_ = set_current(cur_test, PingSetting::jitter_ms, value);
}

void LBDataFactory::process_rule_line(const std::vector<std::string>& stack, int depth,
                                      const std::string& key, const std::string& value) {
    const std::string& block = stack[1];
    if (depth > 1 && is_interface_keyword(block)) {
        process_rule_interface(key, value);
    } else if (depth >= 1 && block == "failover") {
        process_rule_failover(key, value);
    } else if (depth >= 1 && block == "namespace") {
        process_rule_namespace(key, value);
    } else if (depth > 1 && block == "target") {
        process_rule_target(key, value);
    } else {
        process_rule(key, value);
    }
}

// Any key acts here as "rule" does: a line that lacks its block makes a rule of its own.
void LBDataFactory::process_rule(const std::string& key, const std::string& value) {
    if (key.empty()) {
        return;
    }
    if (number(value) < 1) {
        handled_ = Handled::refused;
        LOG_WARNING("Illegal rule number: %s", value.c_str());
        return;
    }
    const auto [entry, is_new] = data.rules.try_emplace(value);
    handled_ = is_new ? Handled::acted : Handled::kept;
    if (key != "rule") {
        handled_ = Handled::strayed;
    }
    cur_rule = entry;
    cur_rule_if.reset();
    cur_target.reset();
}

void LBDataFactory::process_rule_interface(const std::string& key, const std::string& value) {
    if (!cur_rule) {
        return;
    }
    if (is_interface_keyword(key)) {
        auto& members = (*cur_rule)->second.interfaces;
        const auto [member, is_new] = members.try_emplace({value, key == "interface6"}, 0);
        handled_ = is_new ? Handled::acted : Handled::kept;
        cur_rule_if = member;
        return;
    }
    if (key != "weight" || !cur_rule_if) {
        return;
    }
    if (number(value) < 1) {
        handled_ = Handled::refused;
        LOG_ERROR("wan_lb: illegal interface weight specified in configuration file: %s",
                  value.c_str());
        return;
    }
    (*cur_rule_if)->second = number(value);
    handled_ = Handled::acted;
}

void LBDataFactory::process_rule_target(const std::string& key, const std::string& value) {
    if (!cur_rule) {
        return;
    }
    if (key == "address") {
        const auto [target, is_new] = (*cur_rule)->second.targets.try_emplace(value, -1);
        handled_ = is_new ? Handled::acted : Handled::kept;
        cur_target = target;
    } else if (key == "metric" && cur_target) {
        (*cur_target)->second = number(value);
        handled_ = Handled::acted;
    }
}

// The closing bracket of a block under "namespace" or of the rule itself comes here with an empty
// key and must not rename the rule's namespace.
void LBDataFactory::process_rule_namespace(const std::string& key, const std::string& value) {
    if (key != "namespace" || !cur_rule) {
        return;
    }
    (*cur_rule)->second.namespace_name = value;
    namespaces.insert(value);
    handled_ = Handled::acted;
}

void LBDataFactory::process_rule_failover(const std::string& /*key*/,
                                          const std::string& /*value*/) {
    if (cur_rule) {
        (*cur_rule)->second.failover = 1;
        handled_ = Handled::acted;
    }
}

#pragma once

#include <optional>
#include <string>

#include "config/lb_data.h"
#include "output/record_layout.h"

/// The dump records of interfaces and rules, without a system call. The caller holds a
/// `LiveStateReader` for those of interfaces and routes; rules never change. Nothing comes where a
/// text cannot be formatted.

std::optional<record::Outbound> outbound_record(const LBHealth& health, int now_s);

/// A rule's key, for example 1_ipv4.
struct RuleKey {
    int number = 0;
    bool is_ipv6 = false;
};
/// Nothing where the key has another form.
std::optional<RuleKey> read_rule_key(const std::string& key);

std::optional<record::Rule> rule_record(const RuleKey& key, const LBRule& rule);
/// `position` counts from 1.
std::optional<record::Route> route_record(const RuleKey& key, const LBRule& rule,
                                          const std::string& prefix, int metric, int position);

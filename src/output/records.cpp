#include "output/records.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string_view>

#include "probe/lb_test.h"
#include "probe/lb_test_ping.h"

namespace {

constexpr std::size_t ipv4_text = 16;
constexpr std::size_t ipv6_text = 46;
constexpr std::size_t ipv4_prefix = 19;
constexpr std::size_t ipv6_prefix = 50;

/// Writes a text into the first `limit` bytes of an empty field, at least one of which stays NUL.
/// False for a text longer than an int can tell.
template <std::size_t size>
bool put_text(record::Text<size>& field, std::size_t limit, const std::string& text) {
    const std::string_view shown = text.c_str();
    shown.copy(field.data(), std::min(limit, size) - 1);
    return shown.size() <= std::size_t{std::numeric_limits<int>::max()};
}

template <std::size_t size>
void put_first_bytes(record::Text<size>& field, const std::string& text) {
    text.copy(field.data(), size);
}

/// B121: a record has one byte for it.
std::uint8_t low_byte(int value) {
    return static_cast<std::uint8_t>(static_cast<unsigned>(value) & 0xffU);
}

int seconds_since(int stamp_s, int now_s) {
    // Subtracted without a sign, so that no clock can make it overflow.
    return stamp_s == 0
               ? 0
               : static_cast<int>(static_cast<unsigned>(now_s) - static_cast<unsigned>(stamp_s));
}

void put_measurements(record::Probe& entry, const Probe& probe) {
    const auto* ipv4 = dynamic_cast<const LBTest*>(&probe);
    entry.is_extended = ipv4 != nullptr && ipv4->spare_flag ? 1 : 0;
    const auto* ping = dynamic_cast<const LBTestPING*>(&probe);
    if (ping == nullptr) {
        return;
    }
    entry.loss_percent = ping->last_loss;
    entry.rtt_ms = ping->last_rtt;
    entry.jitter_ms = ping->last_jitter;
    entry.loss_limit = ping->loss;
    entry.rtt_limit = ping->rtt;
    entry.jitter_limit = ping->jitter;
}

bool put_probe(record::Probe& entry, const Probe& probe, const LBHealth& health,
               const record::Outbound& outbound) {
    const std::size_t limit = health.ipv6 ? ipv6_text : ipv4_text;
    const std::string target =
        probe.target.empty() ? std::string(outbound.nexthop.data()) : probe.target;
    if (!put_text(entry.target, limit, target)) {
        return false;
    }
    entry.success_run = health.get_success_ct_by_str(entry.target.data());
    entry.failure_run = health.get_failure_ct_by_str(entry.target.data());
    entry.last_result = low_byte(probe.last_result);
    entry.timeout_low = low_byte(probe.timeout);
    put_measurements(entry, probe);
    return true;
}

bool put_probes(record::Outbound& outbound, const LBHealth& health) {
    bool is_written = true;
    for_each_probe(health, [&](int, const Probe& probe) {
        if (is_written && outbound.probe_count < record::most_entries) {
            is_written = put_probe(outbound.probes[outbound.probe_count], probe, health, outbound);
            ++outbound.probe_count;
        }
    });
    return is_written;
}

}  // namespace

std::optional<record::Outbound> outbound_record(const LBHealth& health, int now_s) {
    // Filled where it is handed out: most of its 4 kB are copied in vain.
    std::optional<record::Outbound> written(std::in_place);
    record::Outbound& outbound = *written;
    const std::size_t limit = health.ipv6 ? ipv6_text : ipv4_text;
    const bool has_source = !(health.ipv6 && health.source_address == "::");
    const bool is_written =
        put_text(outbound.name, outbound.name.size(), health.name) &&
        put_text(outbound.nexthop, limit, health.effective_nexthop()) &&
        put_text(outbound.source_address, limit, has_source ? health.source_address : "") &&
        put_probes(outbound, health);
    if (!is_written) {
        written.reset();
        return written;
    }
    put_first_bytes(outbound.namespace_name, health.namespace_name);
    outbound.since_success_s = seconds_since(health.history.last_success, now_s);
    outbound.since_failure_s = seconds_since(health.history.last_failure, now_s);
    outbound.last_change_s = health.last_change;
    outbound.success_ct = health.success_ct;
    outbound.failure_ct = health.failure_ct;
    outbound.is_dhcp = health.nexthop == "dhcp" ? 1 : 0;
    outbound.is_tunnel = health.nexthop == "tunnel" ? 1 : 0;
    outbound.is_active = health.active ? 1 : 0;
    return written;
}

// B123: a rule of another name works, but ends the dump.
std::optional<RuleKey> read_rule_key(const std::string& key) {
    int number = 0;
    int version = 0;
    if (sscanf(key.c_str(), "%d_ipv%d", &number, &version) != 2) {
        return std::nullopt;
    }
    return RuleKey{.number = number, .is_ipv6 = version == 6};
}

std::optional<record::Rule> rule_record(const RuleKey& key, const LBRule& rule) {
    record::Rule written;
    for (const auto& [member, weight] : rule.interfaces) {
        if (written.member_count == record::most_entries) {
            break;
        }
        record::Member& entry = written.members[written.member_count];
        if (!put_text(entry.name, entry.name.size(), member.first)) {
            return std::nullopt;
        }
        entry.weight_low = low_byte(weight);
        entry.is_ipv6 = member.second ? 1 : 0;
        ++written.member_count;
    }
    put_first_bytes(written.namespace_name, rule.namespace_name);
    written.number = key.number;
    written.failover_low = low_byte(rule.failover);
    written.is_ipv6 = key.is_ipv6 ? 1 : 0;
    return written;
}

std::optional<record::Route> route_record(const RuleKey& key, const LBRule& rule,
                                          const std::string& prefix, int metric, int position) {
    record::Route route;
    const auto chosen = rule.chosen_nexthops.find(prefix);
    const std::string nexthop =
        chosen == rule.chosen_nexthops.end() ? std::string() : chosen->second;
    if (!put_text(route.prefix, key.is_ipv6 ? ipv6_prefix : ipv4_prefix, prefix) ||
        !put_text(route.nexthop, key.is_ipv6 ? ipv6_text : ipv4_text, nexthop)) {
        return std::nullopt;
    }
    route.metric = metric;
    route.position = position;
    route.rule_number = key.number;
    route.is_ipv6 = key.is_ipv6 ? 1 : 0;
    return route;
}

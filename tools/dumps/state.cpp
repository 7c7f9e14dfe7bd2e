#include "dumps/state.h"

#include <algorithm>
#include <cstring>

#include "output/record_layout.h"
#include "shared/dump_file.h"

namespace dumps {

namespace {

constexpr const char* foreign = "is no dump of the daemon, or one of the other byte order";

template <std::size_t size>
std::string text_of(const record::Text<size>& field) {
    return {field.data(), strnlen(field.data(), size)};
}

/// A text is its characters and then nothing but zeros.
template <std::size_t size>
bool is_text(const record::Text<size>& field) {
    const auto end = std::find(field.begin(), field.end(), '\0');
    return std::all_of(end, field.end(), [](char byte) { return byte == '\0'; });
}

bool is_flag(std::uint8_t byte) {
    return byte <= 1;
}

int family_of(std::uint8_t is_ipv6) {
    return is_ipv6 == 1 ? 6 : 4;
}

/// An age of 0 stands for "just now" as well as for "never"; the caller knows whether there was
/// one.
std::optional<int> age_of(const record::Number& seconds, bool is_swapped, bool there_was_one) {
    const int age = seconds.read(is_swapped);
    return age == 0 && !there_was_one ? std::nullopt : std::make_optional(age);
}

bool is_sound(const record::Outbound& entry) {
    const auto is_sound_probe = [](const record::Probe& probe) {
        return is_text(probe.target) && probe.last_result <= 2 && is_flag(probe.is_extended) &&
               probe.zero == 0;
    };
    return entry.name[0] != '\0' && is_text(entry.name) && is_text(entry.nexthop) &&
           is_text(entry.source_address) && entry.probe_count <= record::most_entries &&
           is_flag(entry.is_dhcp) && is_flag(entry.is_tunnel) && is_flag(entry.is_active) &&
           std::all_of(entry.probes.begin(), entry.probes.end(), is_sound_probe);
}

bool is_sound(const record::Rule& entry) {
    return entry.member_count <= record::most_entries && is_flag(entry.is_ipv6) &&
           entry.zero.read() == 0 &&
           std::all_of(entry.members.begin(), entry.members.end(),
                       [](const record::Member& member) {
                           return is_text(member.name) && is_flag(member.is_ipv6);
                       });
}

bool is_sound(const record::Route& entry) {
    return entry.prefix[0] != '\0' && is_text(entry.prefix) && is_text(entry.nexthop) &&
           is_flag(entry.is_ipv6);
}

Quality quality_of(const record::Probe& entry, bool is_swapped) {
    return {.loss_percent = entry.loss_percent.read(is_swapped),
            .rtt_ms = entry.rtt_ms.read(is_swapped),
            .jitter_ms = entry.jitter_ms.read(is_swapped),
            .loss_limit = entry.loss_limit.read(is_swapped),
            .rtt_limit = entry.rtt_limit.read(is_swapped),
            .jitter_limit = entry.jitter_limit.read(is_swapped)};
}

Probe probe_of(const record::Probe& entry, int position, bool is_swapped) {
    Probe probe{.position = position,
                .target = text_of(entry.target),
                .last_result = static_cast<Result>(entry.last_result),
                .success_run = entry.success_run.read(is_swapped),
                .failure_run = entry.failure_run.read(is_swapped),
                .quality = std::nullopt};
    if (entry.is_extended == 1) {
        probe.quality = quality_of(entry, is_swapped);
    }
    return probe;
}

Interface interface_of(const record::Outbound& entry, int family, bool is_swapped) {
    Interface made;
    made.name = text_of(entry.name);
    made.family = family;
    made.namespace_name = text_of(entry.namespace_name);
    made.is_active = entry.is_active == 1;
    made.nexthop = text_of(entry.nexthop);
    made.nexthop_from = entry.is_dhcp == 1     ? "dhcp"
                        : entry.is_tunnel == 1 ? "tunnel"
                                               : "configured";
    made.source_address = text_of(entry.source_address);
    made.success_ct = entry.success_ct.read(is_swapped);
    made.failure_ct = entry.failure_ct.read(is_swapped);
    for (std::size_t i = 0; i < entry.probe_count; ++i) {
        made.probes.push_back(probe_of(entry.probes[i], static_cast<int>(i) + 1, is_swapped));
    }
    const bool is_judged =
        std::any_of(made.probes.begin(), made.probes.end(),
                    [](const Probe& probe) { return probe.last_result != Result::none; });
    made.since_success_s = age_of(entry.since_success_s, is_swapped, made.is_active);
    made.since_failure_s = age_of(entry.since_failure_s, is_swapped, !made.is_active && is_judged);
    return made;
}

Rule rule_of(const record::Rule& entry, bool is_swapped) {
    Rule rule{.number = entry.number.read(is_swapped),
              .family = family_of(entry.is_ipv6),
              .namespace_name = text_of(entry.namespace_name),
              .is_failover = entry.failover_low != 0};
    for (std::size_t i = 0; i < entry.member_count; ++i) {
        const record::Member& member = entry.members[i];
        rule.members.push_back({.interface = text_of(member.name),
                                .family = family_of(member.is_ipv6),
                                .weight = member.weight_low});
    }
    return rule;
}

Route route_of(const record::Route& entry, bool is_swapped) {
    const int metric = entry.metric.read(is_swapped);
    return {.rule_number = entry.rule_number.read(is_swapped),
            .family = family_of(entry.is_ipv6),
            .position = entry.position.read(is_swapped),
            .prefix = text_of(entry.prefix),
            .metric = metric == -1 ? std::nullopt : std::make_optional(metric),
            .nexthop = text_of(entry.nexthop)};
}

/// Numbers that no dump of the right byte order holds.
bool is_plausible(const Interface& item) {
    // A small number of the other byte order is a large one that ends in zeros, or a negative one.
    const auto is_count = [](int number) {
        return number >= 0 && (number < 0x10000 || (number & 0xffff) != 0);
    };
    return is_count(item.success_ct) && is_count(item.failure_ct);
}
bool is_plausible(const Rule& /*item*/) {
    return true;
}
bool is_plausible(const Route& item) {
    return item.position >= 1 && item.position <= static_cast<int>(record::most_entries);
}

template <class Record, class Item, class Make>
Read<Item> read_records(std::span<const std::uint8_t> dump, Make make) {
    Read<Item> read;
    for (std::size_t at = 0; at + sizeof(Record) <= dump.size(); at += sizeof(Record)) {
        Record entry;
        std::memcpy(&entry, dump.data() + at, sizeof entry);
        // The counts of an unsound record lead beyond it, so it is judged before it is read.
        if (!is_sound(entry) || !is_plausible(read.items.emplace_back(make(entry)))) {
            read.items.clear();
            read.problem = foreign;
            return read;
        }
    }
    if (dump.size() % sizeof(Record) != 0) {
        read.problem = "ends within a record";
        read.is_truncated = true;
    }
    return read;
}

std::string name_of(int number, int family) {
    return std::to_string(number) + "_ipv" + std::to_string(family);
}

}  // namespace

const char* Probe::type() const {
    return quality ? "ping_ext" : "ping";
}

bool Interface::has_extended_ping() const {
    return std::any_of(probes.begin(), probes.end(),
                       [](const Probe& probe) { return probe.quality.has_value(); });
}

const char* family_name(int family) {
    return family == 6 ? "ipv6" : "ipv4";
}

std::string outbounds_name(int family) {
    return shared::name_of(shared::outbounds_of(family));
}

std::string Rule::name() const {
    return name_of(number, family);
}
std::string Route::rule_name() const {
    return name_of(rule_number, family);
}

Read<Interface> read_interfaces(std::span<const std::uint8_t> dump, int family, bool is_swapped) {
    return read_records<record::Outbound, Interface>(dump, [=](const record::Outbound& entry) {
        return interface_of(entry, family, is_swapped);
    });
}

Read<Rule> read_rules(std::span<const std::uint8_t> dump, bool is_swapped) {
    return read_records<record::Rule, Rule>(
        dump, [=](const record::Rule& entry) { return rule_of(entry, is_swapped); });
}

Read<Route> read_routes(std::span<const std::uint8_t> dump, bool is_swapped) {
    return read_records<record::Route, Route>(
        dump, [=](const record::Route& entry) { return route_of(entry, is_swapped); });
}

}  // namespace dumps

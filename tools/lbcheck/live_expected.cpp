#include "lbcheck/live_expected.h"

#include <cstdint>
#include <span>
#include <utility>

#include "output/records.h"

namespace lbcheck {

namespace {

template <class Record>
std::span<const std::uint8_t> bytes_of(const std::optional<Record>& record) {
    if (!record) {
        return {};
    }
    return {reinterpret_cast<const std::uint8_t*>(&*record), sizeof(Record)};
}

}  // namespace

std::optional<dumps::Interface> expected_of(const LBHealth& health) {
    const auto read =
        dumps::read_interfaces(bytes_of(outbound_record(health, 0)), health.ipv6 ? 6 : 4, false);
    return read.items.empty() ? std::nullopt : std::make_optional(read.items.front());
}

void expect_rules(const LBData& data, LiveFacts& facts) {
    for (const auto& [name, rule] : data.rules) {
        const auto key = read_rule_key(name);
        if (!key) {
            return;  // B123
        }
        for (dumps::Rule& one : dumps::read_rules(bytes_of(rule_record(*key, rule)), false).items) {
            facts.expected_rules.push_back(std::move(one));
        }
        int position = 0;
        for (const auto& [prefix, metric] : rule.targets) {
            if (++position > static_cast<int>(record::most_entries)) {
                break;
            }
            const auto written = route_record(*key, rule, prefix, metric, position);
            for (dumps::Route& one : dumps::read_routes(bytes_of(written), false).items) {
                facts.expected_routes.push_back(std::move(one));
            }
        }
    }
}

}  // namespace lbcheck

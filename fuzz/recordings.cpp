// The recorded nights that lbsim replays, as comma-separated values and as if lbwatch had recorded
// them with verdicts and watches, and the times that are typed.
#include <string>
#include <vector>

#include "fuzz/input.h"
#include "lbsim/history.h"
#include "lbsim/replay.h"
#include "shared/time_text.h"

namespace {

std::vector<lbsim::Uplink> two_uplinks() {
    return {{.name = "gi1_1", .nexthop = "192.0.2.1", .targets = {"198.51.100.1"}},
            {.name = "gi1_1",
             .is_ipv6 = true,
             .nexthop = "2001:db8::1",
             .targets = {"2001:db8:1::53"},
             .failure_us = 6'000'000,
             .answer_us = 2'000'000}};
}

/// The simulation's clock never goes back, nor beyond the end.
void check(const lbsim::Replayed& replayed) {
    std::int64_t last_us = 0;
    for (const lbsim::Event& event : replayed.scenario) {
        if (event.at_us < last_us || event.at_us > replayed.duration_us) {
            __builtin_trap();
        }
        last_us = event.at_us;
    }
}

/// Each line is a verdict that turned, and the begin of a watch.
lbsim::History as_recorded(const std::vector<lbsim::Observation>& observations) {
    lbsim::History history{.observations = observations};
    for (const lbsim::Observation& one : observations) {
        history.turns.push_back({.at_ms = one.at_ms,
                                 .uplink = one.uplink,
                                 .is_ipv6 = one.is_ipv6,
                                 .target = one.target,
                                 .is_success = one.missed == 0,
                                 .in_a_row = static_cast<int>(one.at_ms % 10) + 1});
        history.watches.push_back({.uplink = one.uplink,
                                   .is_ipv6 = one.is_ipv6,
                                   .begin_ms = one.at_ms,
                                   .end_ms = one.at_ms + one.at_ms % 100'000});
    }
    return history;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::vector<lbsim::Uplink> uplinks = two_uplinks();
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const lbsim::ParsedHistory parsed = lbsim::parse_csv(text);
    check(lbsim::replay_of({.observations = parsed.observations}, {}, uplinks));
    check(lbsim::replay_of(as_recorded(parsed.observations), {}, uplinks));
    for (const lbsim::Observation& one : parsed.observations) {
        lbsim::shown_time(one.at_ms);
    }
    shared::read_time(std::string(text), 1'795'262'400'000);
    return 0;
}

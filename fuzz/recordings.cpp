// The recorded nights that lbsim replays (comma-separated values), and the times that are typed.
#include <string>
#include <vector>

#include "fuzz/input.h"
#include "lbsim/history.h"

namespace {

std::vector<lbsim::Uplink> two_uplinks() {
    return {{.name = "gi1_1", .nexthop = "192.0.2.1", .targets = {"198.51.100.1"}},
            {.name = "gi1_1",
             .is_ipv6 = true,
             .nexthop = "2001:db8::1",
             .targets = {"2001:db8:1::53"}}};
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::vector<lbsim::Uplink> uplinks = two_uplinks();
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const lbsim::ParsedHistory parsed = lbsim::parse_csv(text);
    const lbsim::Replayed replayed = lbsim::replay_of(parsed.observations, {}, uplinks);
    std::int64_t last_us = 0;
    for (const lbsim::Event& event : replayed.scenario) {
        // The simulation's clock never goes back, nor beyond the end.
        if (event.at_us < last_us || event.at_us > replayed.duration_us) {
            __builtin_trap();
        }
        last_us = event.at_us;
    }
    for (const lbsim::Observation& one : parsed.observations) {
        lbsim::shown_time(one.at_ms);
    }
    lbsim::parse_time(std::string(text), 1'795'262'400'000);
    return 0;
}

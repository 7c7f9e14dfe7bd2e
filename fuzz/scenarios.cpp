// The scenarios of lbsim: read, held against a configuration, and timed.
#include <vector>

#include "fuzz/input.h"
#include "lbsim/scenario.h"
#include "lbsim/scenario_text.h"

namespace {

std::vector<lbsim::Uplink> two_uplinks() {
    lbsim::Uplink one{.name = "gi1_1", .nexthop = "dhcp", .targets = {"198.51.100.1"}};
    lbsim::Uplink two{
        .name = "gi1_1", .is_ipv6 = true, .nexthop = "2001:db8::1", .targets = {"2001:db8:1::53"}};
    one.settle_us = two.settle_us = 10'000'000;
    return {one, two};
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::vector<lbsim::Uplink> uplinks = two_uplinks();
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const lbsim::ParsedScenario parsed = lbsim::parse_scenario(text);
    std::int64_t last_us = 0;
    for (const lbsim::Event& event : parsed.events) {
        // The simulation's clock never goes back, and a share is one of a hundred.
        if (event.at_us < last_us || event.percent < 0 || event.percent > 100 ||
            event.delay_ms < 0 || event.jitter_ms < 0) {
            __builtin_trap();
        }
        last_us = event.at_us;
        for (const lbsim::Uplink& uplink : uplinks) {
            lbsim::concerns(event, uplink);
        }
    }
    lbsim::check_scenario(parsed.events, uplinks);
    if (lbsim::duration_of(parsed.events, uplinks) < last_us) {
        __builtin_trap();
    }
    if (const auto duration_us = lbsim::parse_duration(text)) {
        lbsim::shown_duration(*duration_us);
    }
    return 0;
}

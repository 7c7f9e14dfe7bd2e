#include "lbcheck/timing.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>

#include "probe/lb_test.h"
#include "probe/lb_test_ping.h"

namespace lbcheck {

namespace {

constexpr std::int64_t cycle_ms = 1000;

std::int64_t cycles_of(std::int64_t duration_ms) {
    return (duration_ms + cycle_ms - 1) / cycle_ms;
}

int whole_s(std::int64_t duration_ms) {
    return static_cast<int>(
        std::min<std::int64_t>(cycles_of(duration_ms), std::numeric_limits<int>::max()));
}

struct OutcomeTimes {
    std::int64_t failure_ms = 0;
    std::int64_t success_ms = 0;
    std::int64_t last_success_ms = 0;  ///< of the last one: no further echo is waited for
};

OutcomeTimes outcome_times(const Probe& probe) {
    if (const auto* ping = dynamic_cast<const LBTestPING*>(&probe)) {
        // From its second run on, each cycle has one, which ends with a first echo unanswered.
        const std::int64_t wait_ms = std::max(0, ts2msecs(&ping->ping_timeout));
        return {cycle_ms + wait_ms, cycle_ms, cycle_ms};
    }
    const std::int64_t late_ms =
        probe.timeout < 0 ? 0 : std::max<std::int64_t>(1, cycles_of(probe.timeout)) * cycle_ms;
    return {late_ms + cycle_ms, 2 * cycle_ms, cycle_ms};
}

}  // namespace

ExpectedChange expected_change(const LBHealth& health) {
    // B39: of two counts, one alone is as good as neither.
    const bool counts = health.success_ct > 0 && health.failure_ct > 0;
    const int failures = counts ? health.failure_ct : 1;
    const int successes = counts ? health.success_ct : 1;
    std::optional<std::int64_t> down_ms;
    std::optional<std::int64_t> up_ms;
    for_each_probe(health, [&](int, const Probe& probe) {
        const OutcomeTimes times = outcome_times(probe);
        const std::int64_t down = std::int64_t{failures} * times.failure_ms;
        const std::int64_t up =
            (std::int64_t{successes} - 1) * times.success_ms + times.last_success_ms;
        // The first target that fails takes the uplink down, or the last one does.
        const bool first_counts = health.check_all;
        down_ms = !down_ms       ? down
                  : first_counts ? std::min(*down_ms, down)
                                 : std::max(*down_ms, down);
        up_ms = !up_ms ? up : first_counts ? std::max(*up_ms, up) : std::min(*up_ms, up);
    });
    return {.failures = failures,
            .successes = successes,
            .down_s = whole_s(down_ms.value_or(0)),
            .up_s = whole_s(up_ms.value_or(0))};
}

std::map<std::pair<std::string, bool>, int> longest_cycles_s(const LBData& data) {
    std::map<std::pair<std::string, bool>, double> waits_s;
    for (const auto& [name, health] : data.health) {
        double& wait_s = waits_s[{health.namespace_name, false}];
        for_each_probe(health, [&wait_s](int, const Probe& probe) {
            if (const auto* ping = dynamic_cast<const LBTestPING*>(&probe)) {
                wait_s += std::max(0.0, static_cast<double>(ping->count)) *
                          std::max(0, ts2msecs(&ping->ping_timeout)) / cycle_ms;
            }
        });
    }
    std::map<std::pair<std::string, bool>, int> longest_s;
    for (const auto& [place, wait_s] : waits_s) {
        longest_s[place] =
            static_cast<int>(std::min<double>(std::ceil(wait_s), std::numeric_limits<int>::max()));
    }
    return longest_s;
}

}  // namespace lbcheck

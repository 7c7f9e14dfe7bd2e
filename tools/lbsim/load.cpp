// What the loader makes of a configuration, as far as a simulation needs it.

#include <algorithm>
#include <cstdint>
#include <string>

#include "core/workers.h"
#include "host/simulated/simulation.h"
#include "lbsim/daemon.h"
#include "lbsim/run.h"
#include "probe/lb_test.h"
#include "probe/lb_test_ping.h"

namespace lbsim {

namespace {

constexpr std::int64_t second_us = 1'000'000;

std::int64_t whole_seconds(std::int64_t duration_us) {
    return (duration_us + second_us - 1) / second_us * second_us;
}

const LBTestPING* as_burst(const Probe& probe) {
    return dynamic_cast<const LBTestPING*>(&probe);
}

/// The longest that a run of an extended ping holds its worker.
std::int64_t longest_run_us(const LBTestPING& ping) {
    return std::int64_t{std::max(ping.count, 1)} *
           (ping.ping_timeout.tv_sec * second_us + ping.ping_timeout.tv_nsec / 1000);
}

/// The longest cycle of the worker that serves the uplink.
std::int64_t longest_cycle_us(const LBData& data, const LBHealth& of) {
    std::int64_t cycle_us = second_us;
    for (const auto& [name, health] : data.family(of.ipv6)) {
        if (health.namespace_name == of.namespace_name) {
            for_each_probe(health, [&cycle_us](int, const Probe& probe) {
                const auto* const ping = as_burst(probe);
                cycle_us += ping == nullptr ? 0 : longest_run_us(*ping);
            });
        }
    }
    return whole_seconds(cycle_us);
}

/// A verdict takes as many results as its count asks, and one more that was under way. A failure is
/// collected in the first cycle in which its probe is older than its time; the next probe leaves in
/// the cycle behind that.
void find_times(const LBData& data, const LBHealth& health, Uplink& uplink) {
    const std::int64_t cycle_us = longest_cycle_us(data, health);
    std::int64_t probe_us = cycle_us;
    std::int64_t period_us = 0;
    for_each_probe(health, [&](int, const Probe& probe) {
        if (const auto* const ping = as_burst(probe)) {
            period_us = std::max(period_us, ping->period * second_us);
        } else {
            probe_us = std::max(probe_us, probe.timeout * std::int64_t{1000});
        }
    });
    const std::int64_t judged_us = (probe_us / cycle_us + 2) * cycle_us;
    const std::int64_t results = std::max({health.success_ct, health.failure_ct, 1}) + 1;
    // Of extended pings, a run follows the one before by their period.
    uplink.failure_us =
        std::max((probe_us + cycle_us - 1) / cycle_us * cycle_us + cycle_us, period_us);
    uplink.answer_us = std::max(2 * cycle_us, period_us);
    uplink.settle_us = results * judged_us;
    uplink.start_us = uplink.settle_us + judged_us + period_us;  // the first one finds no next hop
}

Uplink uplink_of(const LBData& data, const LBHealth& health) {
    Uplink uplink{.name = health.name,
                  .is_ipv6 = health.ipv6,
                  .ns_name = health.namespace_name,
                  .nexthop = health.nexthop,
                  .source = health.source_address,
                  .targets = {}};
    for_each_probe(health, [&uplink](int, const Probe& probe) {
        const std::string target = canonical(probe.target);
        if (target.empty()) {
            uplink.has_nexthop_as_target = true;
        } else if (std::find(uplink.targets.begin(), uplink.targets.end(), target) ==
                   uplink.targets.end()) {
            uplink.targets.push_back(target);
        }
    });
    find_times(data, health, uplink);
    return uplink;
}

}  // namespace

Loaded load(const std::string& configuration) {
    Simulation machine;
    const Daemon daemon(machine, configuration);
    const LBData& data = daemon.data();
    Loaded loaded;
    for (const auto& line : machine.log) {
        loaded.messages.push_back(line.text);
    }
    const WorkByNamespace work = work_by_namespace(data);
    for (const bool is_ipv6 : {false, true}) {
        for (const auto& [name, health] : data.family(is_ipv6)) {
            const Uplink uplink = uplink_of(data, health);
            if (work.at({health.namespace_name, is_ipv6}).needs_worker()) {
                loaded.uplinks.push_back(uplink);
            } else {
                loaded.without_worker +=
                    (loaded.without_worker.empty() ? "" : ", ") + shown(uplink);
            }
        }
    }
    return loaded;
}

}  // namespace lbsim

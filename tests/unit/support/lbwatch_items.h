#pragma once

#include <string>
#include <utility>
#include <vector>

#include "dumps/state.h"
#include "lbwatch/world.h"

/// Items of dumps for the tests of lbwatch, made of plain values.
namespace lbwatch_items {

inline dumps::Probe answered(std::string target, int run = 3) {
    dumps::Probe probe;
    probe.target = std::move(target);
    probe.last_result = dumps::Result::answered;
    probe.success_run = run;
    return probe;
}

inline dumps::Probe timed_out(std::string target, int run = 3) {
    dumps::Probe probe;
    probe.target = std::move(target);
    probe.last_result = dumps::Result::timed_out;
    probe.failure_run = run;
    return probe;
}

/// An uplink with thresholds of three, active or failed, just evaluated.
inline dumps::Interface interface(std::string name, bool is_active,
                                  std::vector<dumps::Probe> probes, int family = 4) {
    dumps::Interface made;
    made.name = std::move(name);
    made.family = family;
    made.is_active = is_active;
    made.nexthop = "192.0.2.1";
    made.success_ct = 3;
    made.failure_ct = 3;
    (is_active ? made.since_success_s : made.since_failure_s) = 0;
    made.probes = std::move(probes);
    return made;
}

inline lbwatch::UplinkKey key(std::string name, int family = 4, std::string space = "") {
    return {.namespace_name = std::move(space), .family = family, .name = std::move(name)};
}

/// So many seconds after 2026-11-21T12:00:00Z, on a machine that ran for a day by then.
inline lbwatch::Moment at(double seconds) {
    const auto ms = static_cast<std::int64_t>(seconds * 1000);
    return {.wall_ms = 1'795'262'400'000 + ms, .boot_ms = 86'400'000 + ms};
}

}  // namespace lbwatch_items

#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "host/simulated/simulation.h"
#include "lbsim/scenario.h"
#include "lbsim/uplink.h"

/// What one seed stands for: a configuration, what happens to its network, and when its host fails.
/// Pure: one seed, one router.
namespace property {

/// From then on, for so long, that share of these calls of the host fails.
struct FaultWindow {
    std::int64_t from_us = 0;
    std::int64_t to_us = 0;
    Simulation::Faults faults;
    std::string text;
};

/// A configuration of one to five uplinks: both families, up to two namespaces, learnt next hops,
/// tunnels, extended pings, rules of both sorts, members without a weight.
std::string random_configuration(std::uint64_t seed);

/// Some ten outages an hour of each uplink, and leases that change.
lbsim::Scenario random_scenario(std::uint64_t seed, const std::vector<lbsim::Uplink>& uplinks,
                                std::int64_t duration_us);

/// Windows that do not overlap. Of the calls, those fail whose failure the daemon is to overcome by
/// itself; what it does not (docs/behaviour.md, first chapter) is left out: opening sockets (B62),
/// the answers of next hops (B84), and frames where an IPv6 solicitation may be among them (B83).
std::vector<FaultWindow> random_faults(std::uint64_t seed,
                                       const std::vector<lbsim::Uplink>& uplinks,
                                       std::int64_t duration_us);

}  // namespace property

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lbsim/scenario.h"

/// Outages as they might come over days. Pure: one seed, one scenario, whatever the machine.
namespace lbsim {

/// How often, how long and of which kind. The defaults are a poor line's, not measured ones: they
/// make the table speak, and say nothing about a provider.
struct OutageModel {
    double outages_per_day = 4;  ///< of each uplink
    std::int64_t mean_length_us = 120'000'000;
    /// Shares of the kinds; only their proportions count.
    double dead = 5;    ///< nothing answers through it
    double link = 1;    ///< the link goes down
    double loss = 2;    ///< 10 to 70 of 100 echoes are lost
    double delay = 1;   ///< 0.2 to 3 s more, with half of that as jitter
    double target = 1;  ///< one of its targets does not answer through it
};

/// "dead=5,link=1": the shares that are named, 0 for the others. False, and `model` as before,
/// where it is none.
bool parse_kinds(const std::string& text, OutageModel& model);

/// Why nothing can be drawn from it; empty where something can.
std::string problem_of(const OutageModel& model);

/// Outages of each uplink (of both families at once) until the end, beginning when it has been
/// judged for the first time. An outage and the time until the next one are distributed
/// exponentially; those of one uplink never overlap, and as many begin in a day as the model says.
/// What one uplink meets does not depend on the others.
Scenario draw_outages(const std::vector<Uplink>& uplinks, std::int64_t duration_us,
                      const OutageModel& model, std::uint64_t seed);

}  // namespace lbsim

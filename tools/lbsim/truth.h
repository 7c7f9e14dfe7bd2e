#pragma once

#include <cstdint>
#include <vector>

#include "lbsim/scenario.h"
#include "lbsim/uplink.h"

/// What is true of the uplinks, whatever the daemon believes. Pure.
namespace lbsim {

/// Of an uplink: `dead` while nothing can answer through it (nothing passes, link or next hop gone,
/// every echo lost, each of its targets cut off behind it alone), `impaired` while something but
/// not all is as at the start, else `good`. A target that is dead for all uplinks says nothing
/// about any of them. `unknown` while nobody watched a replayed one.
enum class Condition { good, impaired, dead, unknown };

struct Stretch {
    std::int64_t from_us = 0;  ///< until the next one
    Condition condition{};
};
/// In the order of time, the first from 0 on; no two neighbours are alike.
using Truth = std::vector<Stretch>;

Truth truth_of(const Uplink& uplink, const Scenario& events);

/// At a moment; what happens at that very moment counts.
Condition condition_at(const Truth& truth, std::int64_t at_us);

}  // namespace lbsim

#pragma once

#include <map>
#include <string>
#include <utility>

#include "config/lb_data.h"

/// How long the daemon takes to notice, reckoned from the keywords. Pure.
///
/// A worker sends, collects and judges once a cycle, which takes a little more than a second. An
/// echo without an answer fails at the first collecting after its `resp-time`, an answered one is
/// collected a cycle after it was sent, and the next echo leaves a cycle later: a failure takes
/// resp-time (in whole cycles, rounded up) + 1 s, a success 2 s.
namespace lbcheck {

/// Seconds from the first echo without an answer, or the first with one, until the uplink's state
/// changes; the wait for that first echo, up to two cycles, is in `down_s` by half.
struct ExpectedChange {
    int failures = 1;  ///< in a row that take a target down
    int successes = 1;
    int down_s = 0;
    int up_s = 0;
};
ExpectedChange expected_change(const LBHealth& health);

/// How long one cycle of each (namespace, is IPv6) takes when every extended ping of it loses all
/// its echoes but the first. The worker does nothing else meanwhile.
std::map<std::pair<std::string, bool>, int> longest_cycles_s(const LBData& data);

}  // namespace lbcheck

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lbsim/history.h"
#include "lbsim/scenario.h"
#include "lbsim/uplink.h"

/// The world that a history tells of. Pure.
///
/// A target's outage is placed by its verdicts: `failure` came so many unanswered echoes after it
/// began, `success` so many answered ones after it ended, and how many is in the history. How long
/// an unanswered echo takes is not: that is taken from the configuration, unless what was counted
/// of three outages or more tells another time. So a begin is right to a cycle either way, an end
/// to half of that time: the echo that was under way when the outage ended had still to be given
/// up. Targets of one uplink that were lost or came back within moments did so together.
///
/// A minute in which cycles were missed, without a verdict that turned, is that share of loss.
/// What nobody watched is `unwatched` (lbsim/scenario.h), and stays as it was before meanwhile.
namespace lbsim {

/// The world, as far as the configuration asks for it.
struct Replayed {
    Scenario scenario{};
    std::int64_t begin_ms = 0;          ///< the simulation's second 0
    std::int64_t duration_us = 0;       ///< 0: nothing was recorded of what the configuration asks
    std::vector<std::string> doubts{};  ///< what the history does not tell, for people
};
/// Where a history has no watches, somebody watched an uplink while observations of it came at
/// least this often.
inline constexpr std::int64_t longest_gap_ms = 150'000;
Replayed replay_of(const History& history, const Period& period,
                   const std::vector<Uplink>& uplinks);

}  // namespace lbsim

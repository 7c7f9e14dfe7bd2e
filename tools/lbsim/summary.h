#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lbsim/run.h"
#include "lbsim/scenario.h"
#include "lbsim/truth.h"
#include "lbsim/uplink.h"

/// How well the daemon followed what happened. Pure.
namespace lbsim {

/// What an event led to at one uplink, until the next event that concerns it.
struct Row {
    std::int64_t at_us = 0;
    std::string event{};      ///< "start", or as the scenario has it
    std::size_t uplink = 0;   ///< of the configuration's
    Condition condition{};    ///< from then on
    bool was_active = false;  ///< at its beginning
    /// The condition asks for a change of state. An impaired or unknown uplink, and one of whose
    /// targets alone something happened to, may go either way.
    bool is_expected = true;
    std::optional<std::int64_t> state_after_us{};  ///< the first change of state that it led to
    std::optional<std::int64_t> route_after_us{};  ///< and the routes' that goes with it
    std::int64_t into_dead_us = 0;    ///< a route led into the uplink while it was dead
    std::int64_t left_unused_us = 0;  ///< the uplink was inactive while it was good
    int flaps = 0;                    ///< changes of state beyond that one
};

struct UplinkTotal {
    std::int64_t into_dead_us = 0;
    std::int64_t left_unused_us = 0;
    std::int64_t dead_us = 0;
    std::int64_t unwatched_us = 0;
    std::int64_t active_us = 0;
    int changes = 0;
    int flaps = 0;
};

struct Summary {
    std::vector<Row> rows{};             ///< by moment, then by uplink
    std::vector<UplinkTotal> uplinks{};  ///< as the configuration's
};
Summary summarize(const std::vector<Uplink>& uplinks, const Scenario& events, const Run& run);

/// Of several rows or uplinks.
struct Totals {
    int rows = 0;
    int asked = 0;                    ///< rows whose condition asked for a change
    int followed = 0;                 ///< and got it
    std::int64_t state_after_us = 0;  ///< the sum over these
    std::int64_t longest_state_after_us = 0;
    int routes_followed = 0;
    std::int64_t route_after_us = 0;
    std::int64_t into_dead_us = 0;
    std::int64_t left_unused_us = 0;
    int flaps = 0;

    void add(const Row& row);
};

}  // namespace lbsim

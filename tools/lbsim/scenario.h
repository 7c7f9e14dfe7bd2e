#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lbsim/uplink.h"

/// What happens to the simulated network, and when. Pure. The file with it: scenario_text.h.
namespace lbsim {

enum class Family { any, ipv4, ipv6 };

enum class Change {
    dead,
    alive,
    loss,
    delay,
    duplicates,
    reorder,
    link_down,
    link_up,
    nexthop_dead,
    nexthop_alive,
    lease,
    clean,
    clock,      ///< the wall clock of the router is set, whatever its uplinks do
    unwatched,  ///< of a replayed uplink, in no scenario file: nobody knows how it was
    watched,    ///< and it is known again
};

struct Event {
    std::int64_t at_us = 0;
    int line = 0;          ///< of the file; 0: it was drawn or made
    std::string uplink{};  ///< empty: the target, through whatever uplink; or the clock
    Family family = Family::any;
    std::string target{};  ///< empty: the uplink as a whole
    Change change{};
    double percent = 0;  ///< of `loss`, `duplicates` and `reorder`
    std::int64_t delay_ms = 0;
    std::int64_t jitter_ms = 0;
    std::string router{};            ///< of `lease`; empty: the lease file goes
    std::int64_t clock_step_us = 0;  ///< of `clock`; negative: back
    std::string text{};              ///< where and what, as written
};
/// In the order of their moments, and within one as they were written.
using Scenario = std::vector<Event>;

struct ScenarioError {
    int line = 0;
    std::string word{};
    std::string reason{};
};

/// What the events name and the configuration does not have, or cannot have happen to it.
std::vector<ScenarioError> check_scenario(const Scenario& events,
                                          const std::vector<Uplink>& uplinks);

/// An address as hosts print it; what is none stays as it is.
std::string canonical(const std::string& address);

/// Targets of both are canonical. The clock concerns no uplink.
bool concerns(const Event& event, const Uplink& uplink);

/// Whether a lease is one for the uplink, which it concerns: of its family, and learnt by dhcp.
bool takes_lease(const Event& event, const Uplink& uplink);

/// Each single failure in turn: every uplink, then every target, each given the time that its
/// slowest verdict takes, and the same to recover.
Scenario single_failures(const std::vector<Uplink>& uplinks);

/// The uplinks of both, each with the longer of its times: what is made for one configuration so
/// fits the other.
std::vector<Uplink> slowest_of(std::vector<Uplink> uplinks, const std::vector<Uplink>& others);

/// How long a scenario is followed where nobody says: until every verdict about its last event is
/// in.
std::int64_t duration_of(const Scenario& events, const std::vector<Uplink>& uplinks);

}  // namespace lbsim

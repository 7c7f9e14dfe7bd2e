#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lbsim/scenario.h"
#include "lbsim/uplink.h"

/// One run of the daemon on a simulated machine. Both functions let the daemon's process-wide
/// tables be filled, which nothing empties again: a process calls one of them, once. `run_apart`
/// (lbsim/apart.h) gives each its process.
namespace lbsim {

/// What the daemon's loader made of a configuration.
struct Loaded {
    std::vector<Uplink> uplinks{};        ///< that a worker serves: IPv4 first, then by name
    std::vector<std::string> messages{};  ///< of the loader
    std::string without_worker{};         ///< uplinks that no worker serves, for people; or empty
};
Loaded load(const std::string& configuration);

struct Plan {
    std::string configuration{};  ///< the text
    Scenario scenario{};
    std::int64_t duration_us = 0;
    std::uint64_t seed = 1;
    /// Instead of the configured counts, for all uplinks.
    std::optional<int> success_ct{};
    std::optional<int> failure_ct{};
};

/// What the daemon made of it: read from its own state after each of its cycles.
struct ObservedChange {
    enum class Kind { state, target, routes };
    std::int64_t at_us = 0;
    Kind kind{};
    std::string uplink{};  ///< empty for `routes`
    bool is_ipv6 = false;
    std::string ns_name{};
    bool is_up = false;  ///< state: active; target: its verdict; routes: there are any
    std::string text{};  ///< state: the daemon's own line; routes: the fragment's
};
/// From then on the routes of its namespace lead into the uplink, or do not.
struct Routed {
    std::int64_t at_us = 0;
    std::size_t uplink = 0;  ///< of `Loaded::uplinks`
    bool is_routed = false;
};
struct Run {
    std::vector<ObservedChange> told{};
    std::vector<Routed> routed{};
    std::int64_t duration_us = 0;
    std::int64_t cycles = 0;                               ///< of all workers
    std::map<std::string, std::string> made_up_routers{};  ///< of dhcp uplinks, by what is shown
    std::int64_t echoes = 0;
    std::int64_t reloads = 0;  ///< of the routing daemons
};
/// The uplinks are those that `load` found in the same configuration.
Run simulate(const Plan& plan, const std::vector<Uplink>& uplinks);

}  // namespace lbsim

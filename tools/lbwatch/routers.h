#pragma once

#include <compare>
#include <string>
#include <vector>

#include "lbwatch/world.h"

namespace lbwatch {

/// Whom the daemon tells of new routes in a namespace: the process whose number stands in the file
/// of the routing daemon. Where none runs, no change of an uplink reaches the kernel.
struct Router {
    std::string namespace_name;  ///< empty: the default one
    int family = 4;
    bool is_running = false;

    auto operator<=>(const Router&) const = default;
};

/// One for each namespace and family in which some rule has an uplink, as it is at this moment;
/// none where the file is there and cannot be read. Any process counts that has the number that the
/// file names. Another root than / is for tests. Any thread.
std::vector<Router> find_routers(const World::Rules& rules, const World::Uplinks& uplinks,
                                 const std::string& root = "");

}  // namespace lbwatch

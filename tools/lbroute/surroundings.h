#pragma once

#include <array>
#include <string>
#include <vector>

#include "lbroute/holds.h"
#include "lbroute/plan.h"
#include "lbroute/uplinks.h"

namespace lbroute {

/// What the plans of a namespace follow beside its fragments.
struct Surroundings {
    Uplinks uplinks;
    std::array<HeldInterfaces, 2> held;  ///< of IPv4, of IPv6

    const HeldInterfaces& held_in(Family family) const {
        return held[family == Family::ipv4 ? 0 : 1];
    }
};

Surroundings surroundings_of(const std::string& namespace_name, const Uplinks& uplinks,
                             const std::vector<Hold>& holds);

}  // namespace lbroute

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

inline Surroundings surroundings_of(const std::string& namespace_name, const Uplinks& uplinks,
                                    const std::vector<Hold>& holds) {
    Surroundings surroundings{.uplinks = uplinks, .held = {}};
    for (const Hold& hold : holds) {
        if (hold.namespace_name == namespace_name) {
            surroundings.held[hold.family == Family::ipv4 ? 0 : 1][hold.interface] = hold.is_forced;
        }
    }
    return surroundings;
}

}  // namespace lbroute

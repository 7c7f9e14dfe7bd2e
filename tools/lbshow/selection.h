#pragma once

#include <string>
#include <vector>

#include "dumps/state.h"

namespace lbshow {

/// What is asked for: all three kinds, or one, and of that one all items or those of the names.
struct Selection {
    bool interfaces = true;
    bool rules = true;
    bool routes = true;
    std::vector<std::string> names{};
};

/// Leaves what was asked for. A name is an interface's, a rule's ("1_ipv4" or its number), or a
/// route's prefix or rule. Gives the first name that is nobody's, or an empty text. Pure.
std::string select(dumps::State& state, const Selection& selection);

}  // namespace lbshow

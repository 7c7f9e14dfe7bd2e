#pragma once

#include <optional>

#include "config/lb_data.h"
#include "dumps/state.h"
#include "lbcheck/live_facts.h"

/// What the daemon's dumps have to hold of a configuration: as the daemon writes it, and as
/// `lbshow` reads it. Pure.
namespace lbcheck {

std::optional<dumps::Interface> expected_of(const LBHealth& health);
/// Adds the rules and their routes.
void expect_rules(const LBData& data, LiveFacts& facts);

}  // namespace lbcheck

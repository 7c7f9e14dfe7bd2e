#pragma once

#include "dumps/state.h"

namespace dumps {

/// Fills in which next hops each route has at this moment, and which interfaces some route uses, as
/// the daemon works it out from rules, weights and active members. Pure; wants all items, before
/// any is left out.
///
/// The dumps hold only the lowest byte of a weight, so a multiple of 256 looks like 0 and is taken
/// for a member that is never routed.
void resolve_next_hops(State& state);

}  // namespace dumps

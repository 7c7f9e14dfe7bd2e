#pragma once

#include <string>

#include "dumps/state.h"

namespace dumps {

/// Reads the dumps below an output directory, and when each was written. A dump that is empty or
/// cut is read again for half a second, since the daemon rewrites its files in place; so is one
/// that a daemon in its first cycle has not written yet. A family without a dump is none of the
/// daemon's.
///
/// Gives what is wrong, with the path and the reason, or an empty text.
std::string read_state(const std::string& directory, bool is_swapped, State& state);

}  // namespace dumps

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "dumps/state.h"
#include "lbwatch/report.h"

/// What the history tells of the uplinks that the dumps show, for lbshow(1).
namespace lbwatch {

/// The past of an uplink whose dump calls it active, or failed. Nothing where it was not watched up
/// to the report's end, or was seen in another state there. Pure.
std::optional<dumps::Past> past_of(const UplinkReport& uplink, bool is_active,
                                   std::int64_t midnight_ms);

/// Fills in the past of each interface that is not stale. Gives why it cannot, or an empty text.
std::string read_past(const std::string& history, dumps::State& state);

}  // namespace lbwatch

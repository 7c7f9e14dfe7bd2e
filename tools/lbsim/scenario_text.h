#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lbsim/scenario.h"

/// The text of a scenario file, and of its times. Pure.
namespace lbsim {

struct ParsedScenario {
    Scenario events{};
    std::vector<ScenarioError> errors{};
};
ParsedScenario parse_scenario(std::string_view text);

/// "10s", "2m", "1.5h", "900ms", "30d": microseconds; nothing where it is none.
std::optional<std::int64_t> parse_duration(std::string_view text);
/// "1m 10s", "2.5s".
std::string shown_duration(std::int64_t duration_us);

}  // namespace lbsim

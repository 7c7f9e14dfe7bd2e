#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// Points in time as an operator writes them. Milliseconds since the epoch.
namespace shared {

/// Reads an age before `now_ms` ("90s", "15m", "1.5h", "1d", "2w"), "now", a date (2026-11-21,
/// local midnight), a local date and time (2026-11-21T14:05, with seconds or without, a blank for
/// the T), one of UTC (with a Z behind it), or seconds since the epoch (nine digits at least).
/// Nothing where it is none of these, nor for a day that no calendar has, or a local time that the
/// clocks are set forward past.
std::optional<std::int64_t> read_time(const std::string& text, std::int64_t now_ms);

/// Seconds since the epoch alone, with or without a fraction.
std::optional<std::int64_t> read_epoch(const std::string& text);

}  // namespace shared

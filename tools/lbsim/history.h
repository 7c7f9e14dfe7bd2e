#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lbsim/scenario.h"
#include "lbsim/uplink.h"

/// What was recorded of a night, and the scenario that it makes. All but `read_history` is pure.
namespace lbsim {

/// What was seen of one target through one uplink, from a moment on.
struct Observation {
    std::int64_t at_ms = 0;  ///< since the epoch
    std::string uplink{};
    bool is_ipv6 = false;
    std::string target{};  ///< canonical
    int answered = 0;      ///< cycles
    int missed = 0;
};

struct HistoryError {
    int line = 0;
    std::string word{};
    std::string reason{};
};
struct ParsedHistory {
    std::vector<Observation> observations{};
    std::vector<HistoryError> errors{};
};
/// "time,uplink,family,target,answered", one a line, with or without that line as the first one: a
/// time in seconds since the epoch or as 2026-11-21T02:05:00Z, 4 or 6 (also ipv4, ipv6), 1 or 0.
ParsedHistory parse_csv(std::string_view text);

/// Seconds since the epoch, an age (12h), a date, a local time or one of UTC: milliseconds since
/// the epoch.
std::optional<std::int64_t> parse_time(const std::string& text, std::int64_t now_ms);
/// "2026-11-21T02:05:00Z".
std::string shown_time(std::int64_t at_ms);

/// A part of a history: from then on, and before then.
struct Period {
    std::optional<std::int64_t> since_ms{};
    std::optional<std::int64_t> until_ms{};
};

/// The world that a history tells of, as far as the configuration asks for it.
struct Replayed {
    Scenario scenario{};
    std::int64_t begin_ms = 0;          ///< the simulation's second 0
    std::int64_t duration_us = 0;       ///< 0: nothing was recorded of what the configuration asks
    std::vector<std::string> doubts{};  ///< what the history does not tell, for people
};
/// Of each target, what was observed lasts until the next observation. Where none came for more
/// than `longest_gap_ms` that is a doubt, as is what the configuration asks and the history does
/// not know.
inline constexpr std::int64_t longest_gap_ms = 150'000;
Replayed replay_of(const std::vector<Observation>& observations, const Period& period,
                   const std::vector<Uplink>& uplinks);

/// Reads a file: the database of lbwatch(8), else comma-separated values. Throws an `Unusable`
/// (lbsim/session.h).
std::vector<Observation> read_history(const std::string& path, const Period& period);

}  // namespace lbsim

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// What was recorded of a night. All but `read_history` is pure.
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

/// "2026-11-21T02:05:00Z".
std::string shown_time(std::int64_t at_ms);

/// A part of a history: from then on, and before then.
struct Period {
    std::optional<std::int64_t> since_ms{};
    std::optional<std::int64_t> until_ms{};
};

/// A target's verdict turned at that moment, after so many results of that kind in a row.
struct Turn {
    std::int64_t at_ms = 0;
    std::string uplink{};
    bool is_ipv6 = false;
    std::string target{};  ///< canonical
    bool is_success = false;
    int in_a_row = 1;
};

/// Somebody looked at the uplink from then until then.
struct Watch {
    std::string uplink{};
    bool is_ipv6 = false;
    std::int64_t begin_ms = 0;
    std::int64_t end_ms = 0;
};

/// All that a history tells. Without watches the observations tell when somebody looked.
struct History {
    std::vector<Observation> observations{};
    std::vector<Turn> turns{};
    std::vector<Watch> watches{};
};

/// "203.0.113.1 no answer (3 in a row)": 3. One, where the text does not tell: the daemon takes
/// each result as it comes.
int count_in_a_row(const std::string& reason);

/// Reads a file: the database of lbwatch(8), else comma-separated values. Throws an `Unusable`
/// (lbsim/session.h).
History read_history(const std::string& path, const Period& period);

}  // namespace lbsim

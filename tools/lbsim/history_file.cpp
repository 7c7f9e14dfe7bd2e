// A history as a file: the database of lbwatch(8), of which the manual page tells the contents, or
// comma-separated values.

#ifdef LB_SQLITE
#include <sqlite3.h>
#endif

#include <memory>

#include "lbsim/history.h"
#include "lbsim/session.h"

namespace lbsim {

namespace {

#ifdef LB_SQLITE

struct CloseDatabase {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
};
struct EndStatement {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};

/// One row for each target and minute, of one uplink's family and namespace; the minute is that of
/// the epoch.
constexpr const char* query =
    "SELECT m.minute, u.name, u.family, t.address, m.answered, m.missed FROM minute m "
    "JOIN target t ON t.id = m.target JOIN uplink u ON u.id = t.uplink "
    "WHERE m.minute >= ?1 AND m.minute < ?2 AND m.answered + m.missed > 0 "
    "ORDER BY m.minute, u.name, u.family, t.address";

std::string text_of(sqlite3_stmt* row, int column) {
    const void* text = sqlite3_column_text(row, column);
    return text == nullptr ? std::string() : static_cast<const char*>(text);
}

[[noreturn]] void complain(const std::string& path, sqlite3* database) {
    throw Unusable{"lbsim: " + path + ": " +
                   (database == nullptr ? "out of memory" : sqlite3_errmsg(database)) + '\n'};
}

std::vector<Observation> read_database(const std::string& path, const Period& period) {
    sqlite3* opened = nullptr;
    const int code = sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READONLY, nullptr);
    const std::unique_ptr<sqlite3, CloseDatabase> database(opened);
    if (code != SQLITE_OK) {
        complain(path, opened);
    }
    constexpr int patience_ms = 5000;
    sqlite3_busy_timeout(opened, patience_ms);
    sqlite3_stmt* prepared = nullptr;
    if (sqlite3_prepare_v2(opened, query, -1, &prepared, nullptr) != SQLITE_OK) {
        complain(path, opened);
    }
    const std::unique_ptr<sqlite3_stmt, EndStatement> statement(prepared);
    constexpr std::int64_t minute_ms = 60'000;
    constexpr std::int64_t last_minute = std::int64_t{1} << 50;
    // The minute in which the period begins counts from its beginning.
    sqlite3_bind_int64(prepared, 1, period.since_ms.value_or(0) / minute_ms);
    sqlite3_bind_int64(
        prepared, 2,
        period.until_ms ? (*period.until_ms + minute_ms - 1) / minute_ms : last_minute);
    std::vector<Observation> observations;
    int step = SQLITE_ROW;
    while ((step = sqlite3_step(prepared)) == SQLITE_ROW) {
        observations.push_back({.at_ms = sqlite3_column_int64(prepared, 0) * minute_ms,
                                .uplink = text_of(prepared, 1),
                                .is_ipv6 = sqlite3_column_int(prepared, 2) == 6,
                                .target = canonical(text_of(prepared, 3)),
                                .answered = sqlite3_column_int(prepared, 4),
                                .missed = sqlite3_column_int(prepared, 5)});
    }
    if (step != SQLITE_DONE) {
        complain(path, opened);
    }
    return observations;
}

#else

std::vector<Observation> read_database(const std::string& path, const Period& /*period*/) {
    throw Unusable{"lbsim: " + path + ": this build has no SQLite: give comma-separated values\n"};
}

#endif

}  // namespace

std::vector<Observation> read_history(const std::string& path, const Period& period) {
    constexpr std::string_view database_mark = "SQLite format 3";
    const std::string text = read_file(path);
    if (text.starts_with(database_mark)) {
        return read_database(path, period);
    }
    ParsedHistory parsed = parse_csv(text);
    std::string complaints;
    for (const HistoryError& error : parsed.errors) {
        complaints += "lbsim: " + path + ":" + std::to_string(error.line) + ": " +
                      (error.word.empty() ? "" : "'" + error.word + "': ") + error.reason + '\n';
    }
    if (!complaints.empty()) {
        throw Unusable{complaints};
    }
    return std::move(parsed.observations);
}

}  // namespace lbsim

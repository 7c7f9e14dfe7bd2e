#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <utility>

#include "lbwatch/event.h"
#include "lbwatch/records.h"
#include "lbwatch/sqlite.h"

/// The tables of the history's file, and the rows that are added to them. Result codes are
/// SQLite's.
namespace lbwatch {

/// The version of the file's layout, in PRAGMA user_version.
inline constexpr int history_version = 1;

/// Gives a new file its tables, in one transaction that is left open where it fails.
int make_history_tables(Database& database);

/// By uplink and begin: one that has grown takes its own place.
using Spans = std::map<std::pair<UplinkKey, std::int64_t>, Span>;

/// Adds rows within the caller's transaction, and remembers the numbers of those of uplinks and
/// targets.
class HistoryTables {
  public:
    /// SQLITE_OK, or the error.
    int write(Database& database, const std::deque<Event>& events);
    int write(Database& database, const std::deque<Minute>& minutes);
    int write(Database& database, const Spans& spans);

    /// After another file was opened, or a transaction was rolled back.
    void forget_rows();

  private:
    /// The row of an uplink, made where there is none; 0 after an error.
    std::int64_t uplink_row(Database& database, const UplinkKey& key);
    std::int64_t target_row(Database& database, const UplinkKey& key, const std::string& target);

    std::map<UplinkKey, std::int64_t> uplink_rows_;
    std::map<std::pair<UplinkKey, std::string>, std::int64_t> target_rows_;
};

}  // namespace lbwatch

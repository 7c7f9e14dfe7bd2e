#pragma once

#include <cstdint>

#include "lbwatch/history_reader.h"
#include "lbwatch/report.h"

namespace lbwatch {

/// The report of a time, in this process's zone. With minutes it reads a row for each target and
/// minute, else only the times of each state. `unwritten` is what the file may lack, where somebody
/// knows: it has the times of now up to the last minute alone.
Report report_of(HistoryReader& history, HistoryReader::Selection selection, bool with_minutes,
                 std::int64_t now_ms, const std::vector<Span>* unwritten = nullptr);

/// From the begin of time, but of the times before `since_ms` only how each uplink's state of now
/// began: cheap, however long the history.
Report recent_report_of(HistoryReader& history, std::int64_t since_ms, std::int64_t now_ms);

}  // namespace lbwatch

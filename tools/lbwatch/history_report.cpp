#include "lbwatch/history_report.h"

#include <algorithm>
#include <ctime>

#include "lbwatch/report_text.h"

namespace lbwatch {

namespace {

/// A running watcher writes what it sees once a minute: what is younger is not there yet, and is no
/// time when nothing was watched.
constexpr std::int64_t written_every_ms = 90'000;

int local_hour(std::int64_t minute) {
    const auto seconds = static_cast<time_t>(minute * 60);
    std::tm date{};
    localtime_r(&seconds, &date);
    return date.tm_hour;
}

}  // namespace

Report report_of(HistoryReader& history, HistoryReader::Selection selection, bool with_minutes,
                 std::int64_t now_ms) {
    const std::vector<Span> spans = history.spans(selection);
    std::int64_t latest_ms = 0;
    for (const Span& span : spans) {
        latest_ms = std::max(latest_ms, span.end_ms);
    }
    if (selection.until_ms >= now_ms && now_ms - latest_ms < written_every_ms) {
        selection.until_ms = std::min(selection.until_ms, latest_ms);
    }
    // Minutes come in the order of time, so one look at the calendar serves all of an hour's.
    std::int64_t asked = -1;
    int hour = 0;
    ReportMaker maker(selection.since_ms, selection.until_ms, [&asked, &hour](std::int64_t minute) {
        if (minute / 15 != asked) {
            asked = minute / 15;
            hour = local_hour(minute);
        }
        return hour;
    });
    maker.add(spans);
    if (with_minutes) {
        history.minutes(selection, [&maker](const Minute& minute) { maker.add(minute); });
    }
    Report made = maker.take();
    made.made_ms = now_ms;
    made.zone = zone_name();
    return made;
}

}  // namespace lbwatch

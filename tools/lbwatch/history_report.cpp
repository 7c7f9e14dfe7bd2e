#include "lbwatch/history_report.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <iterator>
#include <vector>

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

/// Where a report up to then ends: what a running watcher has not written yet is left out.
std::int64_t end_of(const std::vector<Span>& spans, std::int64_t until_ms, std::int64_t now_ms) {
    std::int64_t latest_ms = 0;
    for (const Span& span : spans) {
        latest_ms = std::max(latest_ms, shown_end_ms(span));
    }
    return until_ms >= now_ms && now_ms - latest_ms < written_every_ms
               ? std::min(until_ms, latest_ms)
               : until_ms;
}

/// Lays those that tell of the time and the uplink asked for over the file's.
void append(std::vector<Span>& spans, const std::vector<Span>& unwritten,
            const HistoryReader::Selection& selection) {
    std::copy_if(unwritten.begin(), unwritten.end(), std::back_inserter(spans),
                 [&selection](const Span& span) {
                     return shown_end_ms(span) > selection.since_ms &&
                            span.begin_ms < selection.until_ms &&
                            (selection.uplink.empty() || span.uplink.name == selection.uplink);
                 });
}

}  // namespace

Report report_of(HistoryReader& history, HistoryReader::Selection selection, bool with_minutes,
                 std::int64_t now_ms, const std::vector<Span>* unwritten) {
    std::vector<Span> spans = history.spans(selection);
    if (unwritten != nullptr) {
        append(spans, *unwritten, selection);
    } else {
        selection.until_ms = end_of(spans, selection.until_ms, now_ms);
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

Report recent_report_of(HistoryReader& history, std::int64_t since_ms, std::int64_t now_ms) {
    const std::vector<Span> spans = history.recent_spans(since_ms);
    ReportMaker maker(0, end_of(spans, now_ms, now_ms), local_hour);
    maker.add(spans);
    return maker.take();
}

}  // namespace lbwatch

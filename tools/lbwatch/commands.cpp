#include "lbwatch/commands.h"

#include <cstdint>
#include <iostream>

#include "lbwatch/history_reader.h"
#include "lbwatch/history_report.h"
#include "lbwatch/json.h"
#include "lbwatch/moment.h"
#include "lbwatch/report_page.h"
#include "lbwatch/report_text.h"
#include "shared/output_file.h"
#include "shared/standard_output.h"
#include "shared/time_text.h"

namespace lbwatch {

namespace {

int fail(const std::string& why) {
    std::cerr << "lbwatch: " << why << std::endl;
    return 1;
}

int end() {
    return shared::end_output("lbwatch") ? 0 : 1;
}

std::string no_time(const std::string& text) {
    return "'" + text +
           "' is no time; write an age (90s, 15m, 12h, 1d, 2w), a date (2026-11-21) or "
           "a time (2026-11-21T14:05, with a Z behind it for UTC)";
}

}  // namespace

int watch(const WatchOptions& options) {
    return Watcher(options).run();
}

int tell_events(const EventsOptions& options) {
    const std::int64_t at = now().wall_ms;
    const auto since = shared::read_time(options.since, at);
    const auto until = shared::read_time(options.until, at);
    if (!since || !until) {
        return fail(no_time(since ? options.until : options.since));
    }
    HistoryReader history(options.history);
    if (history.problem().empty() && !options.uplink.empty() && !history.knows(options.uplink)) {
        return fail("the history knows no uplink called '" + options.uplink + "'");
    }
    // Events of this very millisecond belong to "now".
    history.events({.since_ms = *since, .until_ms = *until + 1, .uplink = options.uplink},
                   [&options](const Event& event) {
                       std::cout << (options.as_json
                                         ? json_of(event)
                                         : local_time(event.time_ms) + "  " + line_of(event))
                                 << "\n";
                   });
    const int status = end();
    return history.problem().empty() ? status : fail(history.problem());
}

int report(const ReportOptions& options) {
    const std::int64_t at = now().wall_ms;
    const auto since = shared::read_time(options.since, at);
    const auto until = shared::read_time(options.until, at);
    if (!since || !until) {
        return fail(no_time(since ? options.until : options.since));
    }
    if (*since >= *until) {
        return fail("the time from " + options.since + " to " + options.until + " is empty");
    }
    HistoryReader history(options.history);
    if (history.problem().empty() && !options.uplink.empty() && !history.knows(options.uplink)) {
        return fail("the history knows no uplink called '" + options.uplink + "'");
    }
    const Report made = report_of(
        history, {.since_ms = *since, .until_ms = *until, .uplink = options.uplink}, true, at);
    if (!history.problem().empty()) {
        return fail(history.problem());
    }
    if (!options.html.empty()) {
        const std::string problem = shared::write_output(options.html, html_of(made));
        return problem.empty() ? 0 : fail(problem);
    }
    std::cout << (options.as_json  ? json_of(made) + "\n"
                  : options.as_csv ? csv_of(made)
                                   : text_of(made));
    return end();
}

}  // namespace lbwatch

#include "lbwatch/commands.h"

#include <cerrno>
#include <cstring>
#include <iostream>

#include "lbwatch/history_reader.h"
#include "lbwatch/history_report.h"
#include "lbwatch/json.h"
#include "lbwatch/moment.h"
#include "lbwatch/report_page.h"
#include "lbwatch/report_text.h"
#include "shared/output_file.h"

namespace lbwatch {

namespace {

int fail(const std::string& why) {
    std::cerr << "lbwatch: " << why << std::endl;
    return 1;
}

std::string no_time(const std::string& text) {
    return "'" + text +
           "' is no time; write an age (90s, 15m, 12h, 1d, 2w), a date (2026-11-21) or "
           "a time (2026-11-21T14:05, with a Z behind it for UTC)";
}

/// What a program tells once on standard output, and how that ended.
class Answer {
  public:
    void add(const std::string& text) {
        if (error_ == 0) {
            errno = 0;
            note(!(std::cout << text));
        }
    }
    /// The exit status. A pipe whose reader has gone is nothing to complain of.
    int end() {
        if (error_ == 0) {
            errno = 0;
            note(!std::cout.flush());
        }
        if (error_ == 0 || error_ == EPIPE) {
            return error_ == 0 ? 0 : 1;
        }
        return fail("standard output cannot be written: " + std::string(strerror(error_)));
    }

  private:
    /// A stream does not tell why it failed; what the system said last is the best there is.
    void note(bool has_failed) {
        if (has_failed) {
            error_ = errno == 0 ? EIO : errno;
        }
    }

    int error_ = 0;
};

}  // namespace

int watch(const WatchOptions& options) {
    return Watcher(options).run();
}

int tell_events(const EventsOptions& options) {
    const std::int64_t at = now().wall_ms;
    const auto since = read_time(options.since, at);
    const auto until = read_time(options.until, at);
    if (!since || !until) {
        return fail(no_time(since ? options.until : options.since));
    }
    HistoryReader history(options.history);
    if (history.problem().empty() && !options.uplink.empty() && !history.knows(options.uplink)) {
        return fail("the history knows no uplink called '" + options.uplink + "'");
    }
    Answer answer;
    // Events of this very millisecond belong to "now".
    history.events({.since_ms = *since, .until_ms = *until + 1, .uplink = options.uplink},
                   [&options, &answer](const Event& event) {
                       answer.add(options.as_json
                                      ? json_of(event) + "\n"
                                      : local_time(event.time_ms) + "  " + line_of(event) + "\n");
                   });
    const int status = answer.end();
    if (!history.problem().empty()) {
        return fail(history.problem());
    }
    return status;
}

int report(const ReportOptions& options) {
    const std::int64_t at = now().wall_ms;
    const auto since = read_time(options.since, at);
    const auto until = read_time(options.until, at);
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
    Answer answer;
    answer.add(options.as_json  ? json_of(made) + "\n"
               : options.as_csv ? csv_of(made)
                                : text_of(made));
    return answer.end();
}

}  // namespace lbwatch

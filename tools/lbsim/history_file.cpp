// A history as a file: the database of lbwatch(8), or comma-separated values.

#include <cstdint>
#include <string>

#include "lbsim/history.h"
#include "lbsim/scenario.h"
#include "lbsim/session.h"
#ifdef LB_HISTORY
#include "lbwatch/history_reader.h"
#endif

namespace lbsim {

namespace {

#ifdef LB_HISTORY

History read_database(const std::string& path, const Period& period) {
    constexpr std::int64_t end_of_time_ms = std::int64_t{1} << 50;
    const lbwatch::HistoryReader::Selection all{
        .since_ms = period.since_ms.value_or(0),
        .until_ms = period.until_ms.value_or(end_of_time_ms),
        .uplink = ""};
    lbwatch::HistoryReader reader(path);
    History history;
    reader.minutes(all, [&history](const lbwatch::Minute& row) {
        if (row.answered + row.missed > 0) {
            history.observations.push_back({.at_ms = row.minute * 60'000,
                                            .uplink = row.uplink.name,
                                            .is_ipv6 = row.uplink.family == 6,
                                            .target = canonical(row.target),
                                            .answered = row.answered,
                                            .missed = row.missed});
        }
    });
    reader.events(all, [&history](const lbwatch::Event& event) {
        if (event.kind == lbwatch::EventKind::target) {
            history.turns.push_back({.at_ms = event.time_ms,
                                     .uplink = event.uplink.name,
                                     .is_ipv6 = event.uplink.family == 6,
                                     .target = canonical(event.target),
                                     .is_success = event.to == "success",
                                     .in_a_row = count_in_a_row(event.reason)});
        }
    });
    for (const lbwatch::Span& span : reader.spans(all)) {
        // Before the daemon has judged an uplink, nobody knows how it is.
        if (span.state != lbwatch::UplinkState::unknown) {
            history.watches.push_back({.uplink = span.uplink.name,
                                       .is_ipv6 = span.uplink.family == 6,
                                       .begin_ms = span.begin_ms,
                                       .end_ms = span.end_ms});
        }
    }
    if (!reader.problem().empty()) {
        throw Unusable{"lbsim: " + reader.problem() + '\n'};
    }
    return history;
}

#else

History read_database(const std::string& path, const Period& /*period*/) {
    throw Unusable{"lbsim: " + path + ": this build has no SQLite: give comma-separated values\n"};
}

#endif

}  // namespace

History read_history(const std::string& path, const Period& period) {
    constexpr std::string_view database_mark = "SQLite format 3";
    if (read_beginning(path, database_mark.size()) == database_mark) {
        return read_database(path, period);
    }
    ParsedHistory parsed = parse_csv(read_file(path));
    std::string complaints;
    for (const HistoryError& error : parsed.errors) {
        complaints += "lbsim: " + path + ":" + std::to_string(error.line) + ": " +
                      (error.word.empty() ? "" : quoted(error.word) + ": ") + error.reason + '\n';
    }
    if (!complaints.empty()) {
        throw Unusable{complaints};
    }
    return {.observations = std::move(parsed.observations), .turns = {}, .watches = {}};
}

}  // namespace lbsim

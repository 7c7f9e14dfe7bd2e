#include "lbwatch/history_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <sstream>
#include <system_error>
#include <utility>

#include "lbwatch/history_tables.h"

namespace lbwatch {

namespace {

constexpr const char* event_columns =
    "time_ms, kind, namespace, family, name, target, rule, destinations, before, after, after_s, "
    "reason";

constexpr const char* select_spans =
    "SELECT namespace, family, name, state, begin_ms, end_ms, reason FROM span "
    "JOIN uplink ON uplink.id = span.uplink ";

Event event_of(const Statement& row) {
    Event event;
    event.time_ms = row.number(0);
    event.kind = read_kind(row.text(1)).value_or(EventKind::uplink);
    event.uplink = {.namespace_name = row.text(2),
                    .family = static_cast<int>(row.number(3)),
                    .name = row.text(4)};
    event.target = row.text(5);
    event.rule = row.text(6);
    std::istringstream words(row.text(7));
    for (std::string word; words >> word;) {
        event.destinations.push_back(word);
    }
    event.from = row.text(8);
    event.to = row.text(9);
    event.after_s = row.optional_number(10);
    event.reason = row.text(11);
    return event;
}

/// A reader that may not write needs the writer's files beside it, or a file that nobody writes.
std::string address_of(const std::string& path) {
    std::error_code error;
    const bool is_at_rest = !std::filesystem::exists(path + "-wal", error) &&
                            access(std::filesystem::path(path).parent_path().c_str(), W_OK) != 0;
    std::string address = "file:";
    for (const char character : path) {
        if (character == '?' || character == '#' || character == '%') {
            address += character == '?' ? "%3f" : character == '#' ? "%23" : "%25";
        } else {
            address += character;
        }
    }
    return address + (is_at_rest ? "?immutable=1" : "?mode=ro");
}

}  // namespace

HistoryReader::HistoryReader(const std::string& path) : path_(path) {
    std::error_code error;
    if (!std::filesystem::exists(path, error)) {
        problem_ =
            error ? path + ": " + error.message()
                  : "there is no history at " + path + ": is lbwatch running, and with this file?";
        return;
    }
    // A pipe would be waited for without an end.
    if (!std::filesystem::is_regular_file(path, error)) {
        problem_ = path + " is no regular file";
        return;
    }
    database_ = std::make_unique<Database>(
        address_of(path), SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_URI);
    const auto version =
        database_->is_open() ? database_->number("PRAGMA user_version") : std::nullopt;
    if (!version) {
        check(database_->code());
        if (problem_.empty()) {
            problem_ = path + " is no history of lbwatch";
        }
    } else if (*version > history_version) {
        problem_ = path + " was written by a newer version of lbwatch; read it with that one";
    } else if (*version != history_version) {
        problem_ = path + " is no history of lbwatch";
    }
    if (problem_.empty()) {
        database_->run("PRAGMA busy_timeout = 2000; PRAGMA cache_size = -1024;");
    }
}

void HistoryReader::check(int code) {
    if (code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE) {
        return;
    }
    problem_ = path_ + " cannot be read (" + database_->error() + ")" +
               (is_damage(code) ? "; a running lbwatch moves it aside and begins a new one" : "");
}

Statement HistoryReader::select(std::string sql, const char* order, std::int64_t from,
                                std::int64_t until, const std::string& uplink) const {
    sql += uplink.empty() ? "" : " AND name = ?";
    sql += std::string(" ORDER BY ") + order;
    Statement rows = database_->statement(sql.c_str());
    rows.bind(from).bind(until);
    if (!uplink.empty()) {
        rows.bind(uplink);
    }
    return rows;
}

void HistoryReader::each_row(Statement rows, const std::function<void(const Statement&)>& take) {
    int code = SQLITE_OK;
    while ((code = rows.step()) == SQLITE_ROW) {
        take(rows);
    }
    check(code);
}

void HistoryReader::events(const Selection& selection,
                           const std::function<void(const Event&)>& take) {
    if (!problem_.empty()) {
        return;
    }
    Statement ends = database_->statement(
        "SELECT min(id), max(id) FROM event WHERE time_ms >= ? AND time_ms < ?");
    const int found = ends.bind(selection.since_ms).bind(selection.until_ms).step();
    check(found);
    if (found != SQLITE_ROW || !ends.optional_number(0)) {
        return;
    }
    std::int64_t next = ends.number(0);
    const std::int64_t last = ends.number(1);
    ends.step();
    for (std::vector<Event> batch; next <= last; batch.clear()) {
        next = read_batch(selection, next, last, batch);
        std::for_each(batch.begin(), batch.end(), take);
    }
}

/// Of the rows from `first` to `last` some; gives where to go on. A transaction that stayed open
/// while the rows are taken (by a pager that is left open) would let the writer's log grow.
std::int64_t HistoryReader::read_batch(const Selection& selection, std::int64_t first,
                                       std::int64_t last, std::vector<Event>& batch) {
    constexpr std::int64_t most = 500;
    // By number: an index on the time would have to be sorted anew for each batch.
    const std::string sql = std::string("SELECT ") + event_columns +
                            ", id FROM event WHERE id >= ? AND id <= ? AND +time_ms >= ? AND "
                            "+time_ms < ?" +
                            (selection.uplink.empty() ? "" : " AND +name = ?") +
                            " ORDER BY id LIMIT " + std::to_string(most);
    Statement rows = database_->statement(sql.c_str());
    rows.bind(first).bind(last).bind(selection.since_ms).bind(selection.until_ms);
    if (!selection.uplink.empty()) {
        rows.bind(selection.uplink);
    }
    std::int64_t next = last + 1;
    int code = SQLITE_OK;
    while ((code = rows.step()) == SQLITE_ROW) {
        batch.push_back(event_of(rows));
        if (batch.size() == most) {
            next = rows.number(12) + 1;
        }
    }
    check(code);
    return code == SQLITE_DONE ? next : last + 1;
}

std::vector<Event> HistoryReader::latest(int count) {
    std::vector<Event> events;
    if (!problem_.empty()) {
        return events;
    }
    const std::string sql =
        std::string("SELECT ") + event_columns + " FROM event ORDER BY id DESC LIMIT ?";
    Statement rows = database_->statement(sql.c_str());
    rows.bind(std::int64_t{count});
    each_row(std::move(rows), [&events](const Statement& row) { events.push_back(event_of(row)); });
    std::reverse(events.begin(), events.end());
    return events;
}

bool HistoryReader::has_more_spans(const Selection& selection, std::int64_t than) {
    if (!problem_.empty()) {
        return false;
    }
    const std::string sql =
        std::string(
            "SELECT count(*) FROM (SELECT 1 FROM span JOIN uplink ON uplink.id = span.uplink "
            "WHERE end_ms >= ? AND begin_ms < ?") +
        (selection.uplink.empty() ? "" : " AND name = ?") + " LIMIT " + std::to_string(than + 1) +
        ")";
    Statement rows = database_->statement(sql.c_str());
    rows.bind(selection.since_ms).bind(selection.until_ms);
    if (!selection.uplink.empty()) {
        rows.bind(selection.uplink);
    }
    const int code = rows.step();
    check(code);
    return code == SQLITE_ROW && rows.number(0) > than;
}

std::vector<Span> HistoryReader::spans_of(Statement rows) {
    std::vector<Span> spans;
    each_row(std::move(rows), [&spans](const Statement& row) {
        spans.push_back({.uplink = {.namespace_name = row.text(0),
                                    .family = static_cast<int>(row.number(1)),
                                    .name = row.text(2)},
                         .state = read_uplink_state(row.text(3)).value_or(UplinkState::unknown),
                         .begin_ms = row.number(4),
                         .end_ms = row.number(5),
                         .reason = row.text(6)});
    });
    return spans;
}

std::vector<Span> HistoryReader::spans(const Selection& selection) {
    if (!problem_.empty()) {
        return {};
    }
    return spans_of(select(std::string(select_spans) + "WHERE end_ms >= ? AND begin_ms < ?",
                           "span.id", selection.since_ms, selection.until_ms, selection.uplink));
}

std::vector<Span> HistoryReader::recent_spans(std::int64_t since_ms) {
    if (!problem_.empty()) {
        return {};
    }
    // CROSS keeps the order: uplinks first, then the index; else every span is looked at.
    const std::string sql =
        std::string(select_spans) +
        "WHERE span.id IN (SELECT id FROM span WHERE end_ms >= ? UNION "
        "SELECT late.id FROM uplink AS of CROSS JOIN span AS late ON late.uplink = of.id AND "
        "late.begin_ms >= (SELECT begin_ms FROM span AS last WHERE last.uplink = of.id "
        "ORDER BY begin_ms DESC LIMIT 1 OFFSET 1)) ORDER BY span.id";
    Statement rows = database_->statement(sql.c_str());
    rows.bind(since_ms);
    return spans_of(std::move(rows));
}

void HistoryReader::minutes(const Selection& selection,
                            const std::function<void(const Minute&)>& take) {
    if (!problem_.empty()) {
        return;
    }
    Minute minute;
    each_row(select("SELECT minute, namespace, family, name, address, answered, missed, measured, "
                    "loss, rtt, jitter FROM minute JOIN target ON target.id = minute.target "
                    "JOIN uplink ON uplink.id = target.uplink WHERE minute >= ? AND minute < ?",
                    "minute", selection.since_ms / 60'000, (selection.until_ms + 59'999) / 60'000,
                    selection.uplink),
             [&minute, &take](const Statement& row) {
                 minute.minute = row.number(0);
                 minute.uplink = {.namespace_name = row.text(1),
                                  .family = static_cast<int>(row.number(2)),
                                  .name = row.text(3)};
                 minute.target = row.text(4);
                 minute.answered = static_cast<int>(row.number(5));
                 minute.missed = static_cast<int>(row.number(6));
                 minute.measured = static_cast<int>(row.number(7));
                 minute.loss_percent_sum = row.number(8);
                 minute.rtt_ms_sum = row.number(9);
                 minute.jitter_ms_sum = row.number(10);
                 take(minute);
             });
}

bool HistoryReader::knows(const std::string& uplink) {
    if (!problem_.empty()) {
        return false;
    }
    Statement rows = database_->statement("SELECT 1 FROM uplink WHERE name = ?");
    return rows.bind(uplink).has_row();
}

}  // namespace lbwatch

#include "lbwatch/history_tables.h"

#include <vector>

namespace lbwatch {

namespace {

constexpr const char* layout = R"(
CREATE TABLE uplink (
  id INTEGER PRIMARY KEY, namespace TEXT NOT NULL, family INTEGER NOT NULL, name TEXT NOT NULL,
  UNIQUE (namespace, family, name));
CREATE TABLE target (
  id INTEGER PRIMARY KEY, uplink INTEGER NOT NULL REFERENCES uplink (id), address TEXT NOT NULL,
  UNIQUE (uplink, address));
CREATE TABLE event (
  id INTEGER PRIMARY KEY AUTOINCREMENT, time_ms INTEGER NOT NULL, kind TEXT NOT NULL,
  namespace TEXT NOT NULL, family INTEGER NOT NULL, name TEXT NOT NULL, target TEXT NOT NULL,
  rule TEXT NOT NULL, destinations TEXT NOT NULL, before TEXT NOT NULL, after TEXT NOT NULL,
  after_s INTEGER, reason TEXT NOT NULL);
CREATE INDEX event_time ON event (time_ms);
CREATE INDEX event_uplink ON event (name, family, namespace, time_ms);
CREATE INDEX event_last ON event (namespace, family, name, id) WHERE kind = 'uplink';
CREATE TABLE span (
  id INTEGER PRIMARY KEY, uplink INTEGER NOT NULL REFERENCES uplink (id), state TEXT NOT NULL,
  begin_ms INTEGER NOT NULL, end_ms INTEGER NOT NULL, reason TEXT NOT NULL,
  UNIQUE (uplink, begin_ms));
CREATE INDEX span_end ON span (end_ms);
CREATE TABLE minute (
  minute INTEGER NOT NULL, target INTEGER NOT NULL REFERENCES target (id),
  answered INTEGER NOT NULL, missed INTEGER NOT NULL, measured INTEGER NOT NULL,
  loss INTEGER NOT NULL, rtt INTEGER NOT NULL, jitter INTEGER NOT NULL,
  PRIMARY KEY (minute, target)) WITHOUT ROWID;
)";

/// Prefixes hold no blank.
std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

}  // namespace

int make_history_tables(Database& database) {
    const std::string create = std::string("BEGIN IMMEDIATE;") + layout +
                               "PRAGMA user_version = " + std::to_string(history_version) +
                               ";COMMIT;";
    return database.run(create.c_str());
}

int HistoryTables::write(Database& database, const std::deque<Event>& events) {
    Statement insert = database.statement(
        "INSERT INTO event (time_ms, kind, namespace, family, name, target, rule, destinations, "
        "before, after, after_s, reason) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    for (const Event& event : events) {
        const int code = insert.bind(event.time_ms)
                             .bind(std::string(word_of(event.kind)))
                             .bind(event.uplink.namespace_name)
                             .bind(std::int64_t{event.uplink.family})
                             .bind(event.uplink.name)
                             .bind(event.target)
                             .bind(event.rule)
                             .bind(joined(event.destinations))
                             .bind(event.from)
                             .bind(event.to)
                             .bind(event.after_s)
                             .bind(event.reason)
                             .step();
        if (is_error(code)) {
            return code;
        }
    }
    return SQLITE_OK;
}

int HistoryTables::write(Database& database, const std::deque<Minute>& minutes) {
    Statement insert = database.statement(
        "INSERT INTO minute VALUES (?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT DO UPDATE SET "
        "answered = answered + excluded.answered, missed = missed + excluded.missed, "
        "measured = measured + excluded.measured, loss = loss + excluded.loss, "
        "rtt = rtt + excluded.rtt, jitter = jitter + excluded.jitter");
    for (const Minute& row : minutes) {
        const std::int64_t target = target_row(database, row.uplink, row.target);
        const int code = target == 0 ? database.code()
                                     : insert.bind(row.minute)
                                           .bind(target)
                                           .bind(std::int64_t{row.answered})
                                           .bind(std::int64_t{row.missed})
                                           .bind(std::int64_t{row.measured})
                                           .bind(row.loss_percent_sum)
                                           .bind(row.rtt_ms_sum)
                                           .bind(row.jitter_ms_sum)
                                           .step();
        if (is_error(code) || target == 0) {
            return is_error(code) ? code : SQLITE_ERROR;
        }
    }
    return SQLITE_OK;
}

int HistoryTables::write(Database& database, const Spans& spans) {
    Statement insert = database.statement(
        "INSERT INTO span (uplink, state, begin_ms, end_ms, reason) VALUES (?, ?, ?, ?, ?) "
        "ON CONFLICT DO UPDATE SET end_ms = excluded.end_ms");
    for (const auto& [key, span] : spans) {
        const std::int64_t uplink = uplink_row(database, span.uplink);
        const int code = uplink == 0 ? database.code()
                                     : insert.bind(uplink)
                                           .bind(std::string(word_of(span.state)))
                                           .bind(span.begin_ms)
                                           .bind(span.end_ms)
                                           .bind(span.reason)
                                           .step();
        if (is_error(code) || uplink == 0) {
            return is_error(code) ? code : SQLITE_ERROR;
        }
    }
    return SQLITE_OK;
}

std::int64_t HistoryTables::uplink_row(Database& database, const UplinkKey& key) {
    std::int64_t& row = uplink_rows_[key];
    if (row == 0) {
        const auto bind = [&key](Statement& statement) -> Statement& {
            return statement.bind(key.namespace_name).bind(std::int64_t{key.family}).bind(key.name);
        };
        Statement insert = database.statement(
            "INSERT OR IGNORE INTO uplink (namespace, family, name) VALUES (?, ?, ?)");
        bind(insert).step();
        Statement find = database.statement(
            "SELECT id FROM uplink WHERE namespace = ? AND family = ? AND name = ?");
        row = bind(find).has_row() ? find.number(0) : 0;
    }
    return row;
}

std::int64_t HistoryTables::target_row(Database& database, const UplinkKey& key,
                                       const std::string& target) {
    std::int64_t& row = target_rows_[{key, target}];
    const std::int64_t uplink = row == 0 ? uplink_row(database, key) : 0;
    if (row == 0 && uplink != 0) {
        Statement insert =
            database.statement("INSERT OR IGNORE INTO target (uplink, address) VALUES (?, ?)");
        insert.bind(uplink).bind(target).step();
        Statement find =
            database.statement("SELECT id FROM target WHERE uplink = ? AND address = ?");
        row = find.bind(uplink).bind(target).has_row() ? find.number(0) : 0;
    }
    return row;
}

void HistoryTables::forget_rows() {
    uplink_rows_.clear();
    target_rows_.clear();
}

}  // namespace lbwatch

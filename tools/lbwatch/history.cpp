#include "lbwatch/history.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "lbwatch/moment.h"

namespace lbwatch {

namespace {

/// Rows that wait in memory while the file cannot be written: about an hour of minutes of a hundred
/// targets, and more events than a day of flapping makes.
constexpr std::size_t most_events = 5000;
constexpr std::size_t most_minutes = 20'000;
constexpr std::size_t most_spans = 5000;

/// What was told of each uplink last stays: the next start goes by it.
constexpr const char* not_latest =
    " AND id NOT IN (SELECT max(id) FROM event WHERE kind = 'uplink' "
    "GROUP BY namespace, family, name)";

/// Why a file is not written, though there is something. A pipe would hold us up for ever; somebody
/// else's link would turn the history against another file.
std::string problem_of_place(const std::string& path) {
    struct stat found {};
    if (lstat(path.c_str(), &found) != 0) {
        return "";
    }
    if (S_ISLNK(found.st_mode)) {
        if (found.st_uid != 0 && found.st_uid != geteuid()) {
            return "it is a symbolic link of another user";
        }
        if (stat(path.c_str(), &found) != 0) {
            return "";
        }
    }
    return S_ISREG(found.st_mode) ? "" : "it is no regular file";
}

/// The device and the number of a file; nothing where there is none.
std::optional<std::pair<dev_t, ino_t>> file_at(const std::string& path) {
    struct stat found {};
    return stat(path.c_str(), &found) == 0
               ? std::make_optional(std::make_pair(found.st_dev, found.st_ino))
               : std::nullopt;
}

/// The name of the user that this program runs as.
std::string own_name() {
    const passwd* const entry = getpwuid(geteuid());
    return entry == nullptr ? std::to_string(geteuid()) : entry->pw_name;
}

}  // namespace

History::History(std::string path, Notice notice)
    : path_(std::move(path)), notice_(std::move(notice)) {
    if (open()) {
        remember();
    }
}

History::~History() = default;

bool History::open() {
    if (is_refused_) {
        return false;
    }
    database_.reset();
    tables_.forget_rows();
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), error);
    if (!lock_.is_open()) {
        // Held as long as this program runs; the lock ends with it, the file may stay.
        Fd lock(::open((path_ + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640));
        if (lock.is_open() && flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
            refuse("is written by another lbwatch; this one keeps its history in memory");
            return false;
        }
        lock_ = std::move(lock);
    }
    if (const std::string problem = problem_of_place(path_); !problem.empty()) {
        fail(SQLITE_CANTOPEN, problem);
        return false;
    }
    std::optional<Failure> failure = open_database();
    if (failure && !is_refused_ && is_damage(failure->code)) {
        move_aside(failure->error);
        failure = open_database();
    }
    if (!failure) {
        return true;
    }
    if (!is_refused_) {
        fail(failure->code, failure->error);
    }
    // The next try opens it anew: what it lacks is rarely told to whoever has it open.
    database_.reset();
    return false;
}

std::optional<History::Failure> History::open_database() {
    constexpr int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    database_ = std::make_unique<Database>(path_, flags);
    file_ = file_at(path_);
    if (!database_->is_open()) {
        return Failure{database_->code(), database_->error()};
    }
    if (database_->is_read_only()) {
        return Failure{SQLITE_READONLY,
                       "this user may not write it; mend: chown " + own_name() + ": " + path_};
    }
    return prepare();
}

/// Brings the file to this version's layout.
std::optional<History::Failure> History::prepare() {
    const auto failure = [this] { return Failure{database_->code(), database_->error()}; };
    const auto version = database_->number("PRAGMA user_version");
    if (!version) {
        return failure();
    }
    if (*version > history_version) {
        refuse(
            "was written by a newer version of lbwatch; it stays as it is, and this "
            "one keeps its history in memory: install that version again, or give "
            "another file with --history");
        return Failure{};
    }
    // Readers must not wait for the writer, nor it for them.
    const bool is_set =
        !is_error(database_->run("PRAGMA busy_timeout = 2000;"
                                 "PRAGMA journal_mode = WAL;"
                                 "PRAGMA synchronous = FULL;"
                                 "PRAGMA journal_size_limit = 4194304;"
                                 "PRAGMA cache_size = -1024;"));
    if (!is_set) {
        return failure();
    }
    if (*version == history_version) {
        return std::nullopt;
    }
    if (is_error(make_history_tables(*database_))) {
        const Failure why = failure();  // before the next statement takes its place
        database_->run("ROLLBACK");
        return why;
    }
    return std::nullopt;
}

void History::move_aside(const std::string& why) {
    database_.reset();
    std::string aside = path_ + ".damaged-" + rfc3339(now().wall_ms);
    std::error_code error;
    std::filesystem::rename(path_, aside, error);
    for (const char* part : {"-wal", "-shm"}) {
        std::error_code ignored;
        std::filesystem::rename(path_ + part, aside + part, ignored);
    }
    notice_(path_ + " is damaged (" + why + "); " +
            (error ? "it cannot be moved aside: " + error.message()
                   : "it is kept as " + aside + " and a new one begun"));
}

void History::remember() {
    Statement uplinks = database_->statement(
        "SELECT namespace, family, name, after FROM event WHERE id IN "
        "(SELECT max(id) FROM event WHERE kind = 'uplink' GROUP BY namespace, family, name)");
    while (uplinks.has_row()) {
        // One that is absent is forgotten.
        if (const auto state = read_uplink_state(uplinks.text(3))) {
            remembered_.uplinks[{.namespace_name = uplinks.text(0),
                                 .family = static_cast<int>(uplinks.number(1)),
                                 .name = uplinks.text(2)}] = *state;
        }
    }
    Statement daemon = database_->statement(
        "SELECT after FROM event WHERE kind = 'daemon' ORDER BY id DESC LIMIT 1");
    if (daemon.has_row()) {
        remembered_.daemon = read_daemon_state(daemon.text(0));
    }
}

void History::add(const Event& event) {
    events_.push_back(event);
}

void History::add(std::vector<Minute> minutes) {
    for (Minute& minute : minutes) {
        minutes_.push_back(std::move(minute));
    }
}

void History::add(std::vector<Span> spans) {
    for (Span& span : spans) {
        auto key = std::make_pair(span.uplink, span.begin_ms);
        spans_[std::move(key)] = std::move(span);
    }
}

void History::follow_file() {
    const auto there = file_at(path_);
    if (database_ == nullptr || there == file_) {
        return;
    }
    notice_(path_ + (there ? " is another file now" : " is gone; a new one is begun"));
    // The log beside it belongs to the file that was there, and would be read into the new one.
    database_->run("PRAGMA wal_checkpoint(TRUNCATE)");
    database_.reset();
}

bool History::commit() {
    if (waiting() == 0) {
        return true;
    }
    follow_file();
    int code = SQLITE_CANTOPEN;
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (database_ == nullptr && !open()) {
            keep_within_bounds();
            return false;
        }
        code = write_all();
        if (!is_error(code)) {
            events_.clear();
            minutes_.clear();
            spans_.clear();
            if (!problem_.empty()) {
                notice_(path_ + " is written again" +
                        (lost_ == lost_before_
                             ? "; nothing was lost"
                             : "; " + std::to_string(lost_ - lost_before_) + " rows were lost"));
                problem_.clear();
                lost_before_ = lost_;
            }
            return true;
        }
        const std::string error = database_->error();
        database_->run("ROLLBACK");
        tables_.forget_rows();
        if (!is_damage(code)) {
            fail(code, error);
            break;
        }
        move_aside(error);
    }
    keep_within_bounds();
    return false;
}

int History::write_all() {
    int code = database_->run("BEGIN IMMEDIATE");
    code = is_error(code) ? code : tables_.write(*database_, events_);
    code = is_error(code) ? code : tables_.write(*database_, minutes_);
    code = is_error(code) ? code : tables_.write(*database_, spans_);
    return is_error(code) ? code : database_->run("COMMIT");
}

/// A file that is not this one's to write stays as it is.
void History::refuse(const std::string& why) {
    is_refused_ = true;
    problem_ = path_ + " " + why;
    notice_(problem_);
}

/// It is tried again; the first reason is told, and stays until it is written.
void History::fail(int code, const std::string& error) {
    if (!problem_.empty()) {
        return;
    }
    const bool is_full = (code & 0xff) == SQLITE_FULL;
    problem_ = path_ + " cannot be written (" + error + "); the history goes on in memory" +
               (is_full ? " until there is room on the disk" : "");
    notice_(problem_);
    if (is_full) {
        problem_ += "; look: df " + std::filesystem::path(path_).parent_path().string();
    }
}

std::vector<Span> History::waiting_spans() const {
    std::vector<Span> spans;
    for (const auto& [key, span] : spans_) {
        spans.push_back(span);
    }
    return spans;
}

void History::keep_within_bounds() {
    while (events_.size() > most_events) {
        events_.pop_front();
        ++lost_;
    }
    while (minutes_.size() > most_minutes) {
        minutes_.pop_front();
        ++lost_;
    }
    while (spans_.size() > most_spans) {
        spans_.erase(spans_.begin());
        ++lost_;
    }
}

/// Whether there were any; `sql` deletes those whose number is so far behind the last one's.
bool History::delete_beyond(const std::string& sql, std::int64_t most) {
    Statement rows = database_->statement(sql.c_str());
    const std::int64_t before = database_->changes();
    return rows.bind(most).step() == SQLITE_DONE && database_->changes() != before;
}

void History::forget_old(std::int64_t now_ms, const MostRows& most) {
    if (database_ == nullptr) {
        return;
    }
    Statement minutes = database_->statement("DELETE FROM minute WHERE minute < ?");
    minutes.bind((now_ms - minutes_kept_ms) / 60'000).step();
    for (const std::string& sql : {std::string("DELETE FROM event WHERE time_ms < ?") + not_latest,
                                   std::string("DELETE FROM span WHERE end_ms < ?")}) {
        Statement transitions = database_->statement(sql.c_str());
        transitions.bind(now_ms - transitions_kept_ms).step();
    }
    // A span that goes on is written anew with the next minute.
    const bool has_many_events = delete_beyond(
        std::string("DELETE FROM event WHERE id <= (SELECT max(id) FROM event) - ?") + not_latest,
        most.events);
    const bool has_many_spans =
        delete_beyond("DELETE FROM span WHERE id <= (SELECT max(id) FROM span) - ?", most.spans);
    if ((has_many_events || has_many_spans) && !has_told_most_) {
        has_told_most_ = true;
        notice_(path_ + " holds " + std::to_string(has_many_events ? most.events : most.spans) +
                (has_many_events ? " events" : " states") +
                ", the most that are kept; older ones are deleted from now on: an uplink that "
                "changes all the time is damped by higher success-ct and failure-ct");
    }
}

}  // namespace lbwatch

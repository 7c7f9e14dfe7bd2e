#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/fd.h"
#include "lbwatch/daemon_watch.h"
#include "lbwatch/event.h"
#include "lbwatch/history_tables.h"
#include "lbwatch/records.h"
#include "lbwatch/sqlite.h"

namespace lbwatch {

/// How long rows are kept.
inline constexpr std::int64_t minutes_kept_ms = std::int64_t{90} * 86'400'000;
inline constexpr std::int64_t transitions_kept_ms = std::int64_t{5 * 365 + 1} * 86'400'000;

/// How many rows are kept at most: so much is made by five years of a hundred uplinks that change
/// ten times a day each, or by some weeks of one that never rests.
struct MostRows {
    std::int64_t events = 2'000'000;
    std::int64_t spans = 1'000'000;
};

/// What earlier runs of this program told last.
struct Remembered {
    std::map<UplinkKey, UplinkState> uplinks;
    std::optional<DaemonState> daemon;
};

/// The writing side of the history file, a SQLite database in WAL mode; readers never hold it up.
/// What is committed survives a kill at any moment. While the file cannot be written (a full disk,
/// a folder without rights, a newer version's file) rows wait in memory, up to a bound, and go into
/// the file when it can be written again. A damaged file is moved aside and a new one begun.
/// One thread. Notices, one line each, go to `notice`.
class History {
  public:
    using Notice = std::function<void(const std::string& line)>;

    History(std::string path, Notice notice);
    ~History();
    History(const History&) = delete;
    History& operator=(const History&) = delete;

    const Remembered& remembered() const { return remembered_; }

    void add(const Event& event);
    void add(std::vector<Minute> minutes);
    void add(std::vector<Span> spans);

    /// Writes what waits, in one transaction; true where nothing is left waiting.
    bool commit();

    /// Lets go of a file that was deleted, or that another one has taken the place of: what goes to
    /// it no reader finds. Soon is better: until then its log lies beside the new file.
    void follow_file();

    /// Deletes what is older than it is kept, and the oldest of more rows than that.
    void forget_old(std::int64_t now_ms, const MostRows& most = {});

    /// Why the file is not written; empty where it is.
    const std::string& problem() const { return problem_; }
    /// Rows that no memory was left for, since this program started.
    std::uint64_t lost() const { return lost_; }
    /// Spans that wait.
    std::vector<Span> waiting_spans() const;
    std::size_t waiting() const { return events_.size() + minutes_.size() + spans_.size(); }
    /// Whether the file is this one's to write: it is no newer version's, and no other run's.
    bool is_own() const { return !is_refused_; }

  private:
    struct Failure {
        int code = 0;
        std::string error;
    };

    bool open();
    std::optional<Failure> open_database();
    std::optional<Failure> prepare();
    void move_aside(const std::string& why);
    void remember();
    int write_all();
    void fail(int code, const std::string& error);
    void refuse(const std::string& why);
    void keep_within_bounds();
    bool delete_beyond(const std::string& sql, std::int64_t most);

    std::string path_;
    Notice notice_;
    Fd lock_;
    std::unique_ptr<Database> database_;
    std::optional<std::pair<dev_t, ino_t>> file_;  ///< that the database is in
    bool is_refused_ = false;  ///< a newer version's, or another run's: never touched
    std::string problem_;
    bool has_told_most_ = false;  ///< that there are more rows than are kept
    std::uint64_t lost_ = 0;
    std::uint64_t lost_before_ = 0;  ///< told already
    Remembered remembered_;
    HistoryTables tables_;
    std::deque<Event> events_;
    std::deque<Minute> minutes_;
    Spans spans_;
};

}  // namespace lbwatch

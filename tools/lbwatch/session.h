#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "lbwatch/daemon_watch.h"
#include "lbwatch/dumps.h"
#include "lbwatch/records.h"
#include "lbwatch/world.h"

namespace lbwatch {

/// Turns rewritten dumps and what is known of the daemon's process into events, spans and minutes.
/// Reads files, waits for nothing. One thread. Notices, one line each, go to `notice`.
class Session {
  public:
    using Notice = std::function<void(const std::string& line)>;

    Session(const std::string& dump_folder, Notice notice);

    World& world() { return world_; }
    DaemonWatch& daemon() { return daemon_; }
    const Dumps& dumps() const { return dumps_; }

    /// These files were rewritten. Those that could not be read whole stay in `again()`.
    std::vector<Event> rewritten(const std::set<DumpFile>& files, const Moment& now);
    const std::set<DumpFile>& again() const { return again_; }

    /// The process that wrote the dumps has ended.
    std::vector<Event> ended(const std::string& reason, const Moment& now);

    /// Once a second; `evidence` is asked only when nothing has been rewritten lately.
    std::vector<Event> tick(const std::function<DaemonWatch::Evidence()>& evidence,
                            const Moment& now);

    /// Whether what is old may be told by the clock: not while it was just set by a day or more, by
    /// mistake perhaps.
    bool is_clock_trusted(const Moment& now) const;

    std::vector<Span> take_spans();
    /// Those that are not taken yet, and those that go on.
    Unwritten unwritten() const;
    std::vector<Minute> take_minutes(const Moment& now, bool with_current) {
        return minutes_.take(now, with_current);
    }

  private:
    struct FileState {
        std::string problem;  ///< as told last
        std::optional<std::int64_t> torn_since_boot_ms;
        std::optional<std::int64_t> read_boot_ms;  ///< of the daemon that runs
    };

    bool look(DumpFile file, const Moment& now);
    void tell_problem(DumpFile file, const std::string& problem);
    void read_family(int family, const Moment& now, std::vector<Event>& events);
    void check_families(const Moment& now, std::vector<Event>& events);
    void note_clock(const Moment& now);
    void stop_seeing();
    /// Since the epoch.
    std::int64_t written_s(DumpFile file) const {
        return written_ms_[static_cast<std::size_t>(file)] / 1000;
    }
    FileState& state_of(DumpFile file) { return files_[static_cast<std::size_t>(file)]; }

    Dumps dumps_;
    Notice notice_;
    World world_;
    DaemonWatch daemon_;
    std::array<FileState, dump_files.size()> files_;
    std::array<std::int64_t, dump_files.size()> written_ms_{};
    std::set<DumpFile> again_;
    SpanRecorder spans4_{4};
    SpanRecorder spans6_{6};
    MinuteRecorder minutes_;
    std::int64_t patience_ms_ = 30'000;
    std::optional<std::int64_t> running_since_boot_ms_;
    std::optional<Moment> last_;
    std::optional<std::int64_t> clock_set_boot_ms_;  ///< by so much that old rows seem older
};

}  // namespace lbwatch

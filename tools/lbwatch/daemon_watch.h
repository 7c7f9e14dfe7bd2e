#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lbwatch/event.h"
#include "lbwatch/moment.h"

namespace lbwatch {

enum class DaemonState { unknown, running, stale, stopped };

const char* word_of(DaemonState state);
std::optional<DaemonState> read_daemon_state(const std::string& word);

/// Tells from evidence whether the daemon runs. It ends by a signal and leaves its files, so their
/// age alone proves nothing: `running` is a dump that has just been rewritten, `stopped` a process
/// that has ended, and `stale` neither for too long. Pure; one thread at a time.
class DaemonWatch {
  public:
    /// What is known of the process besides its files.
    enum class Evidence {
        alive,    ///< it was seen
        none,     ///< there is none
        unknown,  ///< the processes of others cannot be seen
    };

    /// The state that an earlier run of this program told last.
    void remember(DaemonState told) { told_ = told; }

    DaemonState state() const { return state_; }
    std::optional<std::int64_t> last_written_boot_ms() const { return last_written_boot_ms_; }
    /// Since when `state()`, where it is known.
    std::optional<std::int64_t> since_boot_ms() const { return since_boot_ms_; }

    /// A dump was rewritten and could be believed.
    std::optional<Event> written(const Moment& now);

    /// The process that wrote has ended.
    std::optional<Event> ended(const std::string& reason, const Moment& now);

    /// Nothing was rewritten lately; `patience_ms` is how long that may be so.
    std::optional<Event> waited(Evidence evidence, std::int64_t patience_ms, const Moment& now);

  private:
    std::optional<Event> become(DaemonState state, std::string reason, const Moment& now);

    DaemonState state_ = DaemonState::unknown;
    std::optional<DaemonState> told_;
    std::optional<std::int64_t> begun_boot_ms_;
    std::optional<std::int64_t> last_written_boot_ms_;
    std::optional<std::int64_t> since_boot_ms_;
};

}  // namespace lbwatch

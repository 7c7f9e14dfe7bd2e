#pragma once

#include <unistd.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/fd.h"
#include "lbwatch/board.h"
#include "lbwatch/daemon_process.h"
#include "lbwatch/dump_watch.h"
#include "lbwatch/history.h"
#include "lbwatch/hooks.h"
#include "lbwatch/line_output.h"
#include "lbwatch/listener.h"
#include "lbwatch/session.h"
#include "shared/usual_paths.h"

namespace lbwatch {

struct WatchOptions {
    std::string out_dir = shared::usual_output;
    std::string history = shared::usual_history;  ///< "none": in memory only
    std::string hooks = shared::usual_hooks;      ///< "none": none is run
    std::string listen;                           ///< ADDRESS:PORT; empty: nowhere
    std::vector<std::string> hosts;               ///< names of this machine beside its own
    bool as_json = false;
};

/// Follows the daemon until a signal ends it: waits for rewritten dumps, the end of the daemon's
/// process and its own second hand, and hands every event to the output and the history. One
/// thread, which the caller gives.
class Watcher {
  public:
    explicit Watcher(WatchOptions options);

    /// The exit status: 0 after SIGTERM or SIGINT, 1 where it cannot listen or the output is gone.
    /// Standard error tells why, and which events the output did not take; not of a pipe whose
    /// reader has gone.
    int run();

  private:
    void wait();
    void tick(const Moment& now);
    void find_process(const Moment& now);
    void distribute(const std::vector<Event>& events, const Moment& now);
    void end_hooks();
    void publish();
    HistoryState history_state() const;
    void keep_what_is_young(const Moment& now);
    void keep(const Moment& now, bool with_current);
    static void notice(const std::string& line);

    WatchOptions options_;
    std::unique_ptr<History> history_;
    std::unique_ptr<Hooks> hooks_;
    LineOutput output_{STDOUT_FILENO};
    Board board_;
    std::unique_ptr<Listener> listener_;
    Session session_;
    DumpWatch folder_;
    DaemonProcess process_;
    Fd signals_;
    Fd loop_;
    std::set<DumpFile> dirty_;
    std::int64_t read_at_boot_ms_ = 0;  ///< when the dirty files are read
    std::int64_t next_second_boot_ms_ = 0;
    std::int64_t last_minute_ = 0;
    std::int64_t changed_boot_ms_ = 0;  ///< when an uplink's state changed last
    std::int64_t spans_kept_boot_ms_ = 0;
    HistoryState published_history_;
    std::int64_t forgotten_boot_ms_ = 0;  ///< when old rows were last deleted
    std::int64_t written_again_boot_ms_ = 0;
    std::int64_t searched_boot_ms_ = 0;  ///< when the process was last looked for
    bool is_ending_ = false;
};

}  // namespace lbwatch

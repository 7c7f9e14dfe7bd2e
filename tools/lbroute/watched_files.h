#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "lbroute/event_loop.h"
#include "lbroute/journal.h"
#include "lbroute/namespaces.h"
#include "lbroute/options.h"
#include "lbroute/site.h"
#include "shared/folder_watch.h"

namespace lbroute {

/// The files whose changes wake the running program: configuration, holds, fragments, process
/// number files, the names of namespaces and, where they matter, the daemon's dumps. One thread's
/// own.
class WatchedFiles {
  public:
    using AllServed = std::map<std::string, Served>;

    /// All of these outlive this object.
    WatchedFiles(const Options& options, const Site& site, EventLoop& loop, Journal& journal);

    /// What is written from now on wakes the loop, also in the folders of these namespaces.
    void watch(const AllServed& served);
    /// Tells the operator where not all can be watched.
    void tell_of_blindness();

    struct Changes {
        bool is_time_to_look = false;  ///< at everything: not all files can be watched
        bool configuration = false;
        bool holds = false;
        bool dumps = false;
        std::set<std::string> fragments;  ///< namespaces in which one changed
    };
    Changes take_changes(const AllServed& served);
    /// When files are looked at without a sign of a change; none while all can be watched.
    std::optional<std::int64_t> next_look_ms() const;

  private:
    const Options& options_;
    const Site& site_;
    EventLoop& loop_;
    Journal& journal_;
    shared::FolderWatch files_;
    std::string real_configuration_;  // at the end of all symbolic links; empty while missing
    int watched_descriptor_ = -1;     // of files_, which has none while the kernel gives none
    std::int64_t look_at_ms_ = 0;     // while some file cannot be watched
};

}  // namespace lbroute

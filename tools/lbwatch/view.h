#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lbwatch/daemon_watch.h"
#include "lbwatch/records.h"
#include "lbwatch/world.h"

namespace lbwatch {

/// How it stands with the history's file.
struct HistoryState {
    std::string problem;           ///< why it is not written; empty: it is
    std::size_t waiting_rows = 0;  ///< in memory
    std::uint64_t lost_rows = 0;   ///< since this program started

    bool operator==(const HistoryState&) const = default;
};

/// What the watcher knows at a moment, for those who show it. A plain copy.
struct View {
    World::Uplinks uplinks;
    World::Rules rules;
    DaemonState daemon = DaemonState::unknown;
    std::optional<std::int64_t> last_written_boot_ms;
    std::string history;  ///< its file; empty where nothing is kept
    HistoryState history_state{};
    Unwritten unwritten{};  ///< of the history
};

}  // namespace lbwatch

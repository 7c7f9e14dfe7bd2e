#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lbwatch/daemon_watch.h"
#include "lbwatch/world.h"

namespace lbwatch {

/// What the watcher knows at a moment, for those who show it. A plain copy.
struct View {
    World::Uplinks uplinks;
    World::Rules rules;
    DaemonState daemon = DaemonState::unknown;
    std::optional<std::int64_t> last_written_boot_ms;
    std::string history;  ///< its file; empty where nothing is kept
};

}  // namespace lbwatch

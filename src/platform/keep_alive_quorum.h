#pragma once

#include <cstdint>
#include <set>

/// Decides which of several workers' keep-alives go on to the watchdog: one does only when every
/// worker that ever reported has reported since the last one that went on. A worker that stops
/// reporting so silences all, however lively its siblings are. No locking: the owner guards it.
class KeepAliveQuorum {
  public:
    /// Any number that is the worker's own for the life of the process.
    using Worker = std::uint64_t;

    /// Takes one report; true where the keep-alive goes on.
    bool report(Worker worker);

  private:
    std::set<Worker> known_;  ///< ever reported
    std::set<Worker> heard_;  ///< reported since the last keep-alive that went on
};

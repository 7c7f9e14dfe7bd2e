#pragma once

#include <cstdint>
#include <set>

/// Decides which of several workers' keep-alives go on to the watchdog: one does only when every
/// worker that ever reported has reported since the last one that went on. A worker that stops
/// reporting so silences all, however lively its siblings are. Pure; the owner guards it. A header
/// of its own, because both hosts and its tests use it.
class KeepAliveQuorum {
  public:
    /// Any number that is the worker's own for the life of the process.
    using Worker = std::uint64_t;

    /// Takes one report; true where the keep-alive goes on.
    bool report(Worker worker) {
        known_.insert(worker);
        heard_.insert(worker);
        if (heard_.size() < known_.size()) {
            return false;
        }
        heard_.clear();
        return true;
    }

  private:
    std::set<Worker> known_;  ///< ever reported
    std::set<Worker> heard_;  ///< reported since the last keep-alive that went on
};

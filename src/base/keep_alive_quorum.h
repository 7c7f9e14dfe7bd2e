#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>

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
        std::uint64_t& last_heard = last_heard_[worker];
        if (last_heard != round_) {
            last_heard = round_;
            ++heard_;
        }
        if (heard_ < last_heard_.size()) {
            return false;
        }
        ++round_;
        heard_ = 0;
        return true;
    }

  private:
    /// Of every worker that ever reported, the round of its last report.
    std::unordered_map<Worker, std::uint64_t> last_heard_;
    std::uint64_t round_ = 1;  ///< a round ends with the keep-alive that goes on
    std::size_t heard_ = 0;    ///< how many reported in this round
};

#pragma once

#include <mutex>
#include <shared_mutex>

/// The one rule for what changes while the daemon runs: the records of `LBData` and the probes they
/// point to.
///
/// - Every record belongs to one worker: an interface (with its probes) to the worker of its
///   namespace and family, a rule's `chosen_nexthops` to the worker that `chooses_for` names, a
///   namespace's last route text to the worker of that namespace and family.
/// - The owner alone writes it, and writes under a `LiveStateWriter`. Being the only writer, it
///   reads its own records without a lock.
/// - Everybody else reads under a `LiveStateReader`.
/// - Either lock is held for a few assignments or the copying of one record: never while something
///   can block, and never while another lock is taken.
///
/// What the loader filled in (names, thresholds, rules, the structure of the maps) never changes
/// after start-up and needs no lock.
inline std::shared_mutex& live_state() {
    static std::shared_mutex lock;
    return lock;
}

class [[nodiscard]] LiveStateWriter {
  public:
    LiveStateWriter() : hold_(live_state()) {}

  private:
    std::unique_lock<std::shared_mutex> hold_;
};

class [[nodiscard]] LiveStateReader {
  public:
    LiveStateReader() : hold_(live_state()) {}

  private:
    std::shared_lock<std::shared_mutex> hold_;
};

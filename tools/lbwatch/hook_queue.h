#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "lbwatch/event.h"

namespace lbwatch {

/// Which event goes to the hooks next. Those of one uplink go in their order and one at a time (so
/// do those of one rule's routes, and the daemon's), at most eight at once in all. Where they come
/// faster than hooks end, older ones about the same thing are dropped: the latest state wins. Pure.
class HookQueue {
  public:
    static constexpr std::size_t most_at_once = 8;
    static constexpr std::size_t most_waiting = 16;  ///< of one uplink, before any is dropped

    /// Gives how many older events had to be dropped for it.
    std::size_t add(const Event& event);

    /// The next event that may go, which then runs until done(); nothing while none may.
    std::optional<Event> next();
    void done(const Event& event);

    bool is_empty() const { return lanes_.empty() && running_.empty(); }
    std::size_t waiting() const;

  private:
    static std::string lane_of(const Event& event);

    std::map<std::string, std::deque<Event>> lanes_;  ///< none is empty
    std::set<std::string> running_;
    std::string last_;  ///< the lane served last: the others come first
};

}  // namespace lbwatch

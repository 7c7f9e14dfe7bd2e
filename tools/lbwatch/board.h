#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "base/fd.h"
#include "lbwatch/event.h"
#include "lbwatch/moment.h"
#include "lbwatch/view.h"

namespace lbwatch {

/// Where the watcher puts what it knows for those who show it. Any thread may call anything; a lock
/// is held for a copy of a pointer or of some events. A watcher that stands still, on a disk or an
/// output that takes nothing, knows nothing: what it published is then shown as unknown.
class Board {
  public:
    Board();

    struct Numbered {
        std::uint64_t number = 0;
        Event event;
    };

    void publish(View view, const Moment& now);
    /// The watcher is at work: what it published is still what it knows.
    void confirm(const Moment& now);
    void add(const Event& event);

    std::shared_ptr<const View> view(const Moment& now) const;
    /// Those with a higher number, of the last few hundred, oldest first.
    std::vector<Numbered> events_after(std::uint64_t number) const;
    std::uint64_t last_number() const;

    /// Readable when an event was added since settle().
    int fd() const { return added_.get(); }
    void settle() const;

  private:
    mutable std::mutex lock_;
    std::shared_ptr<const View> view_;    ///< guarded by lock_
    std::int64_t confirmed_boot_ms_ = 0;  ///< guarded by lock_
    std::deque<Numbered> events_;         ///< guarded by lock_
    std::uint64_t last_number_ = 0;       ///< guarded by lock_
    Fd added_;
};

}  // namespace lbwatch

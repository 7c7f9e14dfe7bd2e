#pragma once

#include <cstdint>
#include <optional>

#include "base/fd.h"

/// Waits for descriptors and one deadline, without ever waking for nothing (epoll(7)). One thread's
/// own.
namespace lbroute {

class EventLoop {
  public:
    EventLoop();

    bool is_open() const { return epoll_.is_open() && timer_.is_open(); }

    /// `is_priority`: what matters is POLLPRI, as for /proc/self/mountinfo.
    void watch(int descriptor, bool is_priority = false);

    /// Blocks until a watched descriptor is ready or the deadline, in milliseconds of
    /// CLOCK_BOOTTIME, is over.
    void wait(std::optional<std::int64_t> deadline_ms);

  private:
    Fd epoll_;
    Fd timer_;
};

}  // namespace lbroute

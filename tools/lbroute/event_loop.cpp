#include "lbroute/event_loop.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace lbroute {

EventLoop::EventLoop()
    : epoll_(epoll_create1(EPOLL_CLOEXEC)),
      timer_(timerfd_create(CLOCK_BOOTTIME, TFD_CLOEXEC | TFD_NONBLOCK)) {
    watch(timer_.get());
}

void EventLoop::watch(int descriptor, bool is_priority) {
    epoll_event event{};
    // A file of /proc is always readable; edges tell only what is new.
    event.events = is_priority ? EPOLLPRI | EPOLLET : EPOLLIN;
    event.data.fd = descriptor;
    epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event);
}

void EventLoop::wait(std::optional<std::int64_t> deadline_ms) {
    itimerspec setting{};
    if (deadline_ms) {
        // A time of 0 would switch the timer off.
        const std::int64_t at = std::max<std::int64_t>(1, *deadline_ms);
        setting.it_value.tv_sec = at / 1000;
        setting.it_value.tv_nsec = static_cast<long>(at % 1000 * 1'000'000);
    }
    // Without its timer the loop looks around every second, so that no deadline is missed for good.
    constexpr int without_timer_ms = 1000;
    const int patience_ms = timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &setting, nullptr) == 0
                                ? -1
                                : without_timer_ms;
    std::array<epoll_event, 16> events{};
    int count = -1;
    do {
        count =
            epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), patience_ms);
    } while (count < 0 && errno == EINTR);
    std::uint64_t expirations = 0;
    // Nothing to read means that it was not the deadline.
    [[maybe_unused]] const auto length = read(timer_.get(), &expirations, sizeof expirations);
}

}  // namespace lbroute

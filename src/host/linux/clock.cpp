#include "host/clock.h"

#include <atomic>
#include <cerrno>

#include "host/linux/clock_source.h"

namespace {

template <clockid_t clock>
timespec kernel_now() {
    timespec now{};
    clock_gettime(clock, &now);
    return now;
}

std::atomic<timespec (*)()> monotonic_source{kernel_now<CLOCK_MONOTONIC>};
std::atomic<timespec (*)()> wall_source{kernel_now<CLOCK_REALTIME>};

}  // namespace

timespec monotonic_now() {
    return monotonic_source.load()();
}

timespec wall_now() {
    return wall_source.load()();
}

void sleep_ms(std::int64_t duration_ms) {
    timespec left{.tv_sec = duration_ms / 1000,
                  .tv_nsec = static_cast<long>(duration_ms % 1000 * 1'000'000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
    }
}

void set_clock_source(const ClockSource& source) {
    monotonic_source = source.monotonic != nullptr ? source.monotonic : kernel_now<CLOCK_MONOTONIC>;
    wall_source = source.wall != nullptr ? source.wall : kernel_now<CLOCK_REALTIME>;
}

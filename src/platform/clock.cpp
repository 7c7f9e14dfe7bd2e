#include "platform/clock.h"

#include <atomic>
#include <cstdint>

namespace {

timespec kernel_monotonic() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

timeval kernel_wall() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now;
}

std::atomic<timespec (*)()> monotonic_source{kernel_monotonic};
std::atomic<timeval (*)()> wall_source{kernel_wall};

std::int64_t whole_ms(const timespec& time) {
    return static_cast<std::int64_t>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

}  // namespace

timespec monotonic_now() {
    return monotonic_source.load()();
}

timeval wall_now() {
    return wall_source.load()();
}

std::int64_t elapsed_ms(const timespec& earlier, const timespec& later) {
    return whole_ms(later) - whole_ms(earlier);
}

void set_clock_source(const ClockSource& source) {
    monotonic_source = source.monotonic != nullptr ? source.monotonic : kernel_monotonic;
    wall_source = source.wall != nullptr ? source.wall : kernel_wall;
}

#pragma once

#include <cstdint>
#include <ctime>

/// The two clocks of the daemon: the monotonic one measures, the wall clock dates. Whatever judges
/// or decides reads time through these, so that a simulated host can let hours pass in
/// milliseconds. Any thread may call.
timespec monotonic_now();
timespec wall_now();

/// Lets that time pass for the calling thread.
void sleep_ms(std::int64_t duration_ms);

/// Milliseconds from `earlier` to `later`, each side first rounded down to whole milliseconds.
inline std::int64_t elapsed_ms(const timespec& earlier, const timespec& later) {
    const auto whole_ms = [](const timespec& time) {
        return static_cast<std::int64_t>(time.tv_sec) * 1000 + time.tv_nsec / 1'000'000;
    };
    return whole_ms(later) - whole_ms(earlier);
}

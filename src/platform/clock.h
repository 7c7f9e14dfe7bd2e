#pragma once

#include <sys/time.h>

#include <cstdint>
#include <ctime>

/// The two clocks of the daemon: the monotonic one measures, the wall clock dates. Whatever judges
/// or decides reads time through these, so that tests run hours in milliseconds.
timespec monotonic_now();
timeval wall_now();

/// Milliseconds from `earlier` to `later`, each side first rounded down to whole milliseconds.
std::int64_t elapsed_ms(const timespec& earlier, const timespec& later);

/// The sources behind the two; a null member keeps the kernel's clock.
struct ClockSource {
    timespec (*monotonic)() = nullptr;
    timeval (*wall)() = nullptr;
};
/// For tests. Takes effect for every thread.
void set_clock_source(const ClockSource& source);

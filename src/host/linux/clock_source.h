#pragma once

#include <ctime>

/// The sources behind the two clocks of host/clock.h; a null member keeps the kernel's clock.
struct ClockSource {
    timespec (*monotonic)() = nullptr;
    timespec (*wall)() = nullptr;
};
/// For tests. Takes effect for every thread.
void set_clock_source(const ClockSource& source);

#pragma once

#include <cstdint>

/// Both clocks of the daemon while it lives: they stand still until told otherwise, for every
/// thread. One at a time; afterwards the kernel's clocks are back.
class GivenClock {
  public:
    /// The monotonic clock starts at `monotonic_ms`, the wall clock at `wall_s` after the epoch.
    explicit GivenClock(std::int64_t monotonic_ms = 1'000'000, std::int64_t wall_s = 1'700'000'000);
    ~GivenClock();
    GivenClock(const GivenClock&) = delete;
    GivenClock& operator=(const GivenClock&) = delete;

    /// Both go on.
    void advance_ms(std::int64_t passed_ms);
    /// The wall clock alone is set, as by the operator.
    void set_wall_s(std::int64_t wall_s);
};

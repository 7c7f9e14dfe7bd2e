#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

/// The arithmetic of an extended ping run, in whole milliseconds. Pure.
struct PingRun {
    int sent = 0;
    int received = 0;
    std::int64_t total_ms = 0;
    int longest_ms = 0;

    void answered(int rtt_ms) {
        ++received;
        total_ms += rtt_ms;
        longest_ms = std::max(longest_ms, rtt_ms);
    }
    /// B67: a lost echo counts with its whole wait, also where an earlier answer took longer.
    void lost(int wait_ms) {
        longest_ms = wait_ms;
        total_ms += wait_ms;
    }

    /// B69: rounded to the nearest percent. The share is divided first and then made a percentage.
    /// The order matters where half a percent is rounded: 23 answers of 40 are a little less
    /// than 57.5 %.
    int loss_percent() const {
        return 100 - static_cast<int>(std::lround(static_cast<double>(received) / sent * 100.0));
    }
    /// `count` is the configured one, above 0.
    int mean_ms(int count) const { return static_cast<int>(total_ms / count); }
    int jitter_ms(int count) const { return longest_ms - mean_ms(count); }
};

/// How long to wait for one echo, as select(2) would take it. `microseconds` outside 0 to 999,999,
/// like a negative number of seconds, makes the wait invalid: it fails at once.
struct EchoWait {
    std::int64_t seconds = 0;
    std::int64_t microseconds = 0;

    bool is_valid() const { return seconds >= 0 && microseconds >= 0 && microseconds < 1'000'000; }
    std::int64_t total_us() const { return seconds * 1'000'000 + microseconds; }
    static int whole_ms(std::int64_t us) { return static_cast<int>(us / 1000); }
};

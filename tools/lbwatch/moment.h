#pragma once

#include <cstdint>
#include <string>

/// Points in time and how they are written; read they are by shared/time_text.h.
namespace lbwatch {

/// One point in time on both clocks, in milliseconds: `wall_ms` since the epoch, which may be
/// stepped, and `boot_ms` since some start, which only grows and counts a suspended machine too.
/// Lengths are told by the second, dates by the first.
struct Moment {
    std::int64_t wall_ms = 0;
    std::int64_t boot_ms = 0;
};

Moment now();

/// How far the wall clock was set between two moments, in milliseconds; 0 for what a clock that is
/// kept right by small corrections may drift.
std::int64_t clock_step_ms(const Moment& before, const Moment& after);

/// For example 2026-11-21T14:05:09.120Z (RFC 3339, UTC).
std::string rfc3339(std::int64_t wall_ms);

/// In the zone of this process: 2026-11-21 15:05:09.
std::string local_time(std::int64_t wall_ms);

/// For example "3d 2h 11m", "2h 11m", "11m 5s", "5s".
std::string length_text(std::int64_t seconds);

}  // namespace lbwatch

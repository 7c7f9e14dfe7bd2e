#include "unit/support/given_clock.h"

#include <atomic>

#include "host/linux/clock_source.h"

namespace {

std::atomic<std::int64_t> given_monotonic_ms{0};
std::atomic<std::int64_t> given_wall_ms{0};

timespec given_monotonic() {
    const std::int64_t now_ms = given_monotonic_ms;
    return {.tv_sec = now_ms / 1000, .tv_nsec = static_cast<long>(now_ms % 1000 * 1'000'000)};
}

timespec given_wall() {
    const std::int64_t now_ms = given_wall_ms;
    return {.tv_sec = now_ms / 1000, .tv_nsec = static_cast<long>(now_ms % 1000 * 1'000'000)};
}

}  // namespace

GivenClock::GivenClock(std::int64_t monotonic_ms, std::int64_t wall_s) {
    given_monotonic_ms = monotonic_ms;
    given_wall_ms = wall_s * 1000;
    set_clock_source({.monotonic = given_monotonic, .wall = given_wall});
}

GivenClock::~GivenClock() {
    set_clock_source({});
}

void GivenClock::advance_ms(std::int64_t passed_ms) {
    given_monotonic_ms += passed_ms;
    given_wall_ms += passed_ms;
}

void GivenClock::set_wall_s(std::int64_t wall_s) {
    given_wall_ms = wall_s * 1000;
}

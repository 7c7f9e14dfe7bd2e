#include "host/clock.h"

#include <gtest/gtest.h>

#include "unit/support/given_clock.h"

namespace {

TEST(ElapsedMs, whole_milliseconds) {
    EXPECT_EQ(
        elapsed_ms({.tv_sec = 10, .tv_nsec = 900'000'000}, {.tv_sec = 12, .tv_nsec = 100'000'000}),
        1200);
}

TEST(ElapsedMs, both_sides_are_rounded_down_first) {
    // 0.9 microseconds apart, but on two sides of a millisecond.
    EXPECT_EQ(elapsed_ms({.tv_sec = 1, .tv_nsec = 1'999'999}, {.tv_sec = 1, .tv_nsec = 2'000'000}),
              1);
    // 0.999999 milliseconds apart, within one.
    EXPECT_EQ(elapsed_ms({.tv_sec = 1, .tv_nsec = 1'000'000}, {.tv_sec = 1, .tv_nsec = 1'999'999}),
              0);
}

TEST(ElapsedMs, backwards_is_negative) {
    EXPECT_EQ(elapsed_ms({.tv_sec = 2, .tv_nsec = 0}, {.tv_sec = 1, .tv_nsec = 500'000'000}), -500);
}

TEST(Clock, given_clock_stands_still_until_advanced) {
    GivenClock clock;
    const timespec earlier = monotonic_now();
    EXPECT_EQ(elapsed_ms(earlier, monotonic_now()), 0);
    clock.advance_ms(7'200'005);
    EXPECT_EQ(elapsed_ms(earlier, monotonic_now()), 7'200'005);
}

TEST(Clock, wall_clock_can_be_set_without_time_passing) {
    GivenClock clock(0, 1000);
    clock.advance_ms(1500);
    EXPECT_EQ(wall_now().tv_sec, 1001);
    EXPECT_EQ(wall_now().tv_nsec, 500'000'000);
    clock.set_wall_s(5);
    EXPECT_EQ(wall_now().tv_sec, 5);
    EXPECT_EQ(monotonic_now().tv_sec, 1);
}

TEST(Clock, kernel_clocks_return_with_the_given_clock_gone) {
    { const GivenClock clock(0, 0); }
    timespec kernel_now{};
    clock_gettime(CLOCK_MONOTONIC, &kernel_now);
    EXPECT_GE(elapsed_ms(kernel_now, monotonic_now()), 0);
    EXPECT_LT(elapsed_ms(kernel_now, monotonic_now()), 10'000);
    EXPECT_GE(wall_now().tv_sec, std::time(nullptr) - 10);
}

}  // namespace

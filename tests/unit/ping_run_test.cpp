#include "probe/ping_run.h"

#include <gtest/gtest.h>

#include "probe/lb_test_ping.h"

namespace {

PingRun run_of(int answers, int rtt_ms, int losses, int wait_ms) {
    PingRun run;
    for (int i = 0; i < answers; ++i) {
        run.answered(rtt_ms);
    }
    for (int i = 0; i < losses; ++i) {
        run.lost(wait_ms);
    }
    run.sent = answers + losses;
    return run;
}

TEST(PingRun, one_of_ten_lost_counts_with_its_whole_wait) {
    const PingRun run = run_of(9, 5, 1, 1000);
    EXPECT_EQ(run.loss_percent(), 10);
    EXPECT_EQ(run.mean_ms(10), 104);
    EXPECT_EQ(run.jitter_ms(10), 896);
}

TEST(PingRun, all_answered_alike_has_no_loss_and_no_jitter) {
    const PingRun run = run_of(10, 5, 0, 1000);
    EXPECT_EQ(run.loss_percent(), 0);
    EXPECT_EQ(run.mean_ms(10), 5);
    EXPECT_EQ(run.jitter_ms(10), 0);
}

TEST(PingRun, lost_echo_sets_the_longest_time_rather_than_raising_it) {
    PingRun run;
    run.answered(300);
    run.lost(100);
    EXPECT_EQ(run.longest_ms, 100);
}

TEST(PingRun, loss_is_rounded_to_the_nearest_percent) {
    EXPECT_EQ(run_of(2, 1, 1, 1).loss_percent(), 33);
    EXPECT_EQ(run_of(1, 1, 2, 1).loss_percent(), 67);
    EXPECT_EQ(run_of(199, 1, 1, 1).loss_percent(), 0);  // 99.5 rounds up to 100
}

TEST(PingRun, share_of_answers_is_divided_before_it_becomes_percent) {
    EXPECT_EQ(run_of(23, 1, 17, 1).loss_percent(), 43);  // 0.575 is stored as a little less
}

TEST(PingRun, mean_is_cut_to_whole_milliseconds) {
    EXPECT_EQ(run_of(1, 7, 0, 1).mean_ms(2), 3);
}

TEST(PingRun, long_waits_do_not_overflow) {
    EXPECT_EQ(run_of(0, 0, 3, 2'000'000'000).mean_ms(3), 2'000'000'000);
}

TEST(EchoWait, microseconds_beyond_a_second_are_invalid) {
    EXPECT_TRUE((EchoWait{.seconds = 1, .microseconds = 999'999}.is_valid()));
    EXPECT_FALSE((EchoWait{.seconds = 1, .microseconds = 1'000'000}.is_valid()));
    EXPECT_FALSE((EchoWait{.seconds = 0, .microseconds = -1}.is_valid()));
    EXPECT_FALSE((EchoWait{.seconds = -1, .microseconds = 0}.is_valid()));
}

TEST(Milliseconds, of_a_time_are_rounded_down) {
    const timespec time{.tv_sec = 2, .tv_nsec = 1'999'999};
    EXPECT_EQ(ts2msecs(&time), 2001);
}

}  // namespace

// What one probe entry of a dump says of its target.

#include <gtest/gtest.h>

#include "lbwatch/target_results.h"
#include "unit/support/lbwatch_items.h"

namespace {

using namespace lbwatch;
using namespace lbwatch_items;

constexpr auto unknown = Verdict::unknown;
constexpr auto success = Verdict::success;
constexpr auto failure = Verdict::failure;

/// An extended ping's result; its limits are 20 %, 150 ms and 40 ms.
dumps::Probe measured(dumps::Probe probe, int loss_percent, int rtt_ms, int jitter_ms) {
    probe.quality = {.loss_percent = loss_percent,
                     .rtt_ms = rtt_ms,
                     .jitter_ms = jitter_ms,
                     .loss_limit = 20,
                     .rtt_limit = 150,
                     .jitter_limit = 40};
    return probe;
}

TEST(LbwatchVerdict, changes_with_the_result_that_completes_a_run) {
    const auto uplink = interface("eth0", true, {});
    EXPECT_EQ(verdict_of(timed_out("a", 2), uplink, success), success);
    EXPECT_EQ(verdict_of(timed_out("a", 3), uplink, success), failure);
    EXPECT_EQ(verdict_of(timed_out("a", 4), uplink, unknown), failure);
    EXPECT_EQ(verdict_of(answered("a", 2), uplink, failure), failure);
    EXPECT_EQ(verdict_of(answered("a", 2), uplink, unknown), unknown);
    EXPECT_EQ(verdict_of(answered("a", 3), uplink, failure), success);
}

TEST(LbwatchVerdict, of_a_target_without_a_result_stays) {
    dumps::Probe none = timed_out("a", 9);
    none.last_result = dumps::Result::none;
    EXPECT_EQ(verdict_of(none, interface("eth0", true, {}), success), success);
    EXPECT_EQ(verdict_of(none, interface("eth0", true, {}), unknown), unknown);
}

TEST(LbwatchVerdict, follows_each_result_where_a_count_is_zero) {
    for (const auto& [success_ct, failure_ct] : {std::pair(0, 3), {3, 0}, {0, 0}}) {
        auto uplink = interface("eth0", true, {});
        uplink.success_ct = success_ct;
        uplink.failure_ct = failure_ct;
        EXPECT_EQ(verdict_of(timed_out("a", 1), uplink, success), failure);
        EXPECT_EQ(verdict_of(answered("a", 1), uplink, failure), success);
    }
}

TEST(LbwatchFault, is_the_first_limit_that_was_reached) {
    const auto fault = [](int loss_percent, int rtt_ms, int jitter_ms) {
        return fault_of(measured(timed_out("a"), loss_percent, rtt_ms, jitter_ms));
    };
    EXPECT_EQ(fault(20, 150, 40), "loss 20 % (limit 20 %)");
    EXPECT_EQ(fault(19, 150, 40), "round-trip time 150 ms (limit 150 ms)");
    EXPECT_EQ(fault(19, 149, 40), "jitter 40 ms (limit 40 ms)");
    EXPECT_EQ(fault(19, 149, 39), "no answer");
    EXPECT_EQ(fault_of(timed_out("a")), "no answer");
}

TEST(LbwatchTarget, takes_results_verdict_and_measurements_over) {
    Target target;
    take_over(target, {measured(answered("a", 3), 10, 20, 5)}, interface("eth0", true, {}));
    EXPECT_EQ(target.verdict, success);
    EXPECT_EQ(target.last_result, dumps::Result::answered);
    EXPECT_EQ(target.success_run, 3);
    EXPECT_EQ(target.failure_run, 0);
    ASSERT_TRUE(target.quality);
    EXPECT_EQ(target.quality->rtt_ms, 20);
    EXPECT_EQ(target.fault, "");
}

TEST(LbwatchTarget, extended_ping_that_never_ran_has_measured_nothing) {
    const auto uplink = interface("eth0", true, {});
    Target target;
    take_over(target, {measured(timed_out("a"), 0, 0, 0)}, uplink);
    EXPECT_FALSE(target.quality);
    dumps::Probe none = measured(timed_out("a"), 1, 1, 1);
    none.last_result = dumps::Result::none;
    take_over(target, {none}, uplink);
    EXPECT_FALSE(target.quality);
    take_over(target, {measured(answered("a"), 0, 0, 0)}, uplink);
    EXPECT_TRUE(target.quality) << "an answer at once";
    for (const auto& values : {std::array{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}) {
        take_over(target, {measured(timed_out("a"), values[0], values[1], values[2])}, uplink);
        EXPECT_TRUE(target.quality);
    }
}

TEST(LbwatchTarget, keeps_its_fault_where_a_run_without_a_first_answer_left_the_last_values) {
    const auto uplink = interface("eth0", true, {});
    Target target;
    take_over(target, {measured(answered("a"), 10, 20, 5)}, uplink);
    // Nothing was measured anew: no limit explains this failure.
    take_over(target, {measured(timed_out("a", 1), 10, 20, 5)}, uplink);
    EXPECT_EQ(target.fault, "no answer");
    take_over(target, {measured(timed_out("a", 2), 50, 20, 5)}, uplink);
    EXPECT_EQ(target.fault, "loss 50 % (limit 20 %)");
    take_over(target, {timed_out("a", 3)}, uplink);
    EXPECT_EQ(target.fault, "no answer");
    for (const auto& values : {std::array{30, 20, 5}, {30, 200, 5}, {30, 200, 50}}) {
        target.fault = "before";
        take_over(target, {measured(timed_out("a"), values[0], values[1], values[2])}, uplink);
        EXPECT_EQ(target.fault, "loss 30 % (limit 20 %)");
        target.fault = "before";
        take_over(target, {measured(timed_out("a"), values[0], values[1], values[2])}, uplink);
        EXPECT_EQ(target.fault, "before") << "the same values again";
    }
}

TEST(LbwatchTarget, of_two_probes_is_missed_where_one_of_them_is) {
    const auto uplink = interface("eth0", true, {});
    Target target;
    take_over(target, {answered("a", 2), measured(timed_out("a", 0), 30, 20, 5)}, uplink);
    EXPECT_EQ(target.last_result, dumps::Result::timed_out);
    EXPECT_EQ(target.fault, "loss 30 % (limit 20 %)");
    ASSERT_TRUE(target.quality);
    EXPECT_EQ(target.quality->loss_percent, 30);
    target = Target();
    take_over(target, {timed_out("a", 1), measured(answered("a", 0), 0, 20, 5)}, uplink);
    EXPECT_EQ(target.last_result, dumps::Result::timed_out);
    EXPECT_EQ(target.fault, "no answer");
    EXPECT_EQ(target.quality->rtt_ms, 20);
}

TEST(LbwatchTarget, of_two_probes_takes_the_result_of_the_one_that_has_run) {
    dumps::Probe none = measured(answered("a"), 0, 0, 0);
    none.last_result = dumps::Result::none;
    Target target;
    take_over(target, {none, answered("a")}, interface("eth0", true, {}));
    EXPECT_EQ(target.last_result, dumps::Result::answered);
    EXPECT_EQ(target.verdict, success);
    EXPECT_FALSE(target.quality);
}

TEST(LbwatchTarget, is_broken_by_a_miss_behind_an_answer) {
    const auto uplink = interface("eth0", false, {});
    Target target;
    take_over(target, {timed_out("a", 1)}, uplink);
    take_over(target, {answered("a", 1)}, uplink);
    EXPECT_FALSE(target.is_broken) << "its next hop had to be learnt";
    take_over(target, {timed_out("a", 1)}, uplink);
    EXPECT_TRUE(target.is_broken);
    Target shared;
    take_over(shared, {answered("a", 0), timed_out("a", 1)}, uplink);
    EXPECT_TRUE(shared.is_broken) << "two probes that disagree";
}

TEST(LbwatchTarget, is_told_with_its_run_where_there_is_one) {
    Target target;
    target.verdict = failure;
    target.fault = "no answer";
    EXPECT_EQ(told("a", target), "a no answer");
    target.failure_run = 1;
    target.success_run = 7;
    EXPECT_EQ(told("a", target), "a no answer (1 in a row)");
    target.verdict = success;
    EXPECT_EQ(told("a", target), "a answered (7 in a row)");
    target.success_run = 0;
    EXPECT_EQ(told("a", target), "a answered");
}

TEST(LbwatchReason, tells_three_targets_of_the_verdict_and_counts_the_others) {
    std::map<std::string, Target> targets;
    EXPECT_EQ(reason_of(targets, success), "");
    for (const char* const address : {"a", "b", "c"}) {
        targets[address].verdict = success;
    }
    targets["x"].verdict = failure;
    targets["x"].fault = "no answer";
    EXPECT_EQ(reason_of(targets, success), "a answered, b answered, c answered");
    EXPECT_EQ(reason_of(targets, failure), "x no answer");
    targets["d"].verdict = success;
    EXPECT_EQ(reason_of(targets, success), "a answered, b answered, c answered and 1 more");
    EXPECT_EQ(reason_of(targets, unknown), "");
}

}  // namespace

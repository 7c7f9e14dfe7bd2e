// The world that lbsim makes of a history.

#include <gtest/gtest.h>

#include <vector>

#include "lbsim/replay.h"
#include "lbsim/scenario_text.h"
#include "lbsim/truth.h"

namespace {

using namespace lbsim;

constexpr std::int64_t night_ms = 1'763'690'040'000;  // the begin of a minute

std::int64_t at(double second) {
    return night_ms + static_cast<std::int64_t>(second * 1000);
}

Observation seen(std::int64_t at_s, int answered, int missed, const char* target = "203.0.113.1") {
    return {.at_ms = at(static_cast<double>(at_s)),
            .uplink = "gi1_1",
            .target = target,
            .answered = answered,
            .missed = missed};
}

Turn turn(double second, bool is_success, int in_a_row, const char* target = "203.0.113.1") {
    return {.at_ms = at(second),
            .uplink = "gi1_1",
            .is_ipv6 = false,
            .target = target,
            .is_success = is_success,
            .in_a_row = in_a_row};
}

Turn failure(double second, const char* target = "203.0.113.1") {
    return turn(second, false, 3, target);
}

Turn success(double second, const char* target = "203.0.113.1") {
    return turn(second, true, 3, target);
}

Watch watch(double begin_s, double end_s) {
    return {.uplink = "gi1_1", .is_ipv6 = false, .begin_ms = at(begin_s), .end_ms = at(end_s)};
}

/// An unanswered echo takes six seconds, an answered one two.
std::vector<Uplink> one_uplink() {
    std::vector<Uplink> uplinks(1);
    uplinks[0].name = "gi1_1";
    uplinks[0].targets = {"203.0.113.1"};
    uplinks[0].failure_us = 6'000'000;
    uplinks[0].answer_us = 2'000'000;
    return uplinks;
}

std::vector<Uplink> two_targets() {
    auto uplinks = one_uplink();
    uplinks[0].targets.emplace_back("203.0.113.2");
    return uplinks;
}

std::string text_of(const Scenario& scenario) {
    std::string text;
    for (const Event& event : scenario) {
        std::string what = event.text.substr(event.text.find("ipv4 ") + 5);
        text += shown_duration(event.at_us) + " " + what + "\n";
    }
    return text;
}

/// Of one uplink that was watched for five minutes.
std::string told(const std::vector<Turn>& turns, std::vector<Observation> observations = {},
                 const std::vector<Uplink>& uplinks = one_uplink()) {
    if (observations.empty()) {
        for (int minute = 0; minute < 5; ++minute) {
            observations.push_back(seen(60 * minute, 59, 0));
            observations.push_back(seen(60 * minute, 59, 0, "203.0.113.2"));
        }
    }
    return text_of(
        replay_of({.observations = observations, .turns = turns, .watches = {watch(0, 300)}}, {},
                  uplinks)
            .scenario);
}

// ---- What comma-separated values tell. ----

TEST(Values, tell_changes_only) {
    const auto replayed =
        replay_of({.observations = {seen(0, 1, 0), seen(2, 1, 0), seen(4, 0, 1), seen(6, 0, 1),
                                    seen(8, 1, 0), seen(10, 1, 0)}},
                  {}, one_uplink());
    EXPECT_EQ(text_of(replayed.scenario),
              "4s target 203.0.113.1 dead\n8s target 203.0.113.1 alive\n");
    EXPECT_EQ(replayed.begin_ms, night_ms);
    EXPECT_EQ(replayed.duration_us, 70'000'000);
    EXPECT_TRUE(replayed.doubts.empty());
}

TEST(Values, of_a_period_begin_with_it) {
    const auto replayed =
        replay_of({.observations = {seen(0, 1, 0), seen(10, 0, 1), seen(40, 1, 0), seen(90, 0, 1)}},
                  {.since_ms = night_ms + 20'000, .until_ms = night_ms + 80'000}, one_uplink());
    EXPECT_EQ(text_of(replayed.scenario),
              "0s target 203.0.113.1 dead\n20s target 203.0.113.1 alive\n");
    EXPECT_EQ(replayed.duration_us, 60'000'000);
}

TEST(Values, that_stop_for_a_while_were_not_watched) {
    auto uplinks = one_uplink();
    uplinks[0].targets.emplace_back("203.0.113.2");
    const auto replayed =
        replay_of({.observations = {seen(0, 1, 0), seen(600, 1, 0), seen(0, 1, 0, "203.0.113.9")}},
                  {}, uplinks);
    EXPECT_EQ(text_of(replayed.scenario), "1m not watched\n10m watched again\n");
    EXPECT_EQ(replayed.doubts,
              (std::vector<std::string>{
                  "gi1_1 ipv4 target 203.0.113.2: never recorded; taken to answer always",
                  "gi1_1 ipv4: not watched for 9m: told as not watched, and simulated as it was "
                  "before",
                  "gi1_1 ipv4 target 203.0.113.9: recorded, but not asked by this configuration"}));
}

TEST(Values, of_nothing_are_nothing) {
    EXPECT_EQ(replay_of({}, {}, one_uplink()).duration_us, 0);
    EXPECT_EQ(
        replay_of({.observations = {seen(0, 1, 0, "203.0.113.9")}}, {}, one_uplink()).duration_us,
        0);
    EXPECT_EQ(replay_of({.observations = {seen(0, 1, 0)}},
                        {.since_ms = at(100), .until_ms = at(200)}, one_uplink())
                  .duration_us,
              0);
}

// ---- What verdicts tell. ----

TEST(Turns, place_an_outage_within_its_minute) {
    // Lost from 80 - 3 * 6 on; the first of three answers left at 105 - 5, half an echo's time
    // after the end.
    EXPECT_EQ(told({failure(80), success(105)}),
              "1m 2s target 203.0.113.1 dead\n1m 37s target 203.0.113.1 alive\n");
}

TEST(Turns, of_another_count_place_it_elsewhere) {
    EXPECT_EQ(told({turn(80, false, 1), turn(105, true, 1)}),
              "1m 14s target 203.0.113.1 dead\n1m 41s target 203.0.113.1 alive\n");
}

TEST(Turns, explain_what_was_missed_in_their_minutes) {
    EXPECT_EQ(told({failure(80), success(105)},
                   {seen(0, 59, 0), seen(60, 26, 33), seen(120, 59, 0), seen(180, 53, 6)}),
              "1m 2s target 203.0.113.1 dead\n1m 37s target 203.0.113.1 alive\n"
              "3m target 203.0.113.1 loss 10%\n");
}

TEST(Turns, that_are_missing_leave_a_loss_in_its_minute) {
    EXPECT_EQ(told({}, {seen(0, 60, 0), seen(60, 45, 15), seen(120, 0, 60), seen(180, 59, 0)}),
              "1m target 203.0.113.1 loss 25%\n2m target 203.0.113.1 dead\n"
              "3m target 203.0.113.1 alive\n");
}

TEST(Turns, that_begin_with_a_success_had_failed_before) {
    EXPECT_EQ(told({success(100)}),
              "0s target 203.0.113.1 dead\n1m 32s target 203.0.113.1 alive\n");
}

TEST(Turns, that_end_with_a_failure_fail_to_the_end) {
    EXPECT_EQ(told({failure(200)}), "3m 2s target 203.0.113.1 dead\n");
}

TEST(Turns, of_targets_that_went_together_are_at_one_moment) {
    EXPECT_EQ(
        told({failure(80), failure(82, "203.0.113.2"), success(105), success(106, "203.0.113.2")},
             {}, two_targets()),
        "1m 3s target 203.0.113.1 dead\n1m 3s target 203.0.113.2 dead\n"
        "1m 37.5s target 203.0.113.1 alive\n1m 37.5s target 203.0.113.2 alive\n");
    EXPECT_EQ(told({failure(80), failure(90, "203.0.113.2")}, {}, two_targets()),
              "1m 2s target 203.0.113.1 dead\n1m 12s target 203.0.113.2 dead\n");
}

TEST(Turns, that_begin_before_the_watch_are_cut_there) {
    EXPECT_EQ(told({failure(10), success(60)}),
              "0s target 203.0.113.1 dead\n52s target 203.0.113.1 alive\n");
}

/// Each in a minute of its own, found by a daemon that gave each echo up after three seconds: 20
/// cycles from the first one given up, at 32, to the first answer, at 52.
History of_a_faster_daemon(int outages) {
    History history{.watches = {watch(0, 180.0 * outages)}};
    for (int i = 0; i < outages; ++i) {
        history.turns.push_back(failure(180.0 * i + 38));
        history.turns.push_back(success(180.0 * i + 56));
        history.observations.push_back(seen(180 * i, 40, 20));
        history.observations.push_back(seen(180 * i + 60, 60, 0));
        history.observations.push_back(seen(180 * i + 120, 60, 0));
    }
    return history;
}

TEST(Counts, tell_how_long_the_recorded_daemon_waited) {
    const auto replayed = replay_of(of_a_faster_daemon(3), {}, one_uplink());
    EXPECT_EQ(shown_duration(replayed.scenario[0].at_us), "29s");
    EXPECT_EQ(shown_duration(replayed.scenario[1].at_us), "49.5s");
    EXPECT_EQ(replayed.doubts,
              std::vector<std::string>{
                  "gi1_1 ipv4: an unanswered echo took the recorded daemon 3s, and takes this "
                  "configuration 6s: its outages are placed by what was recorded"});
}

TEST(Counts, that_two_outages_share_tell_nothing) {
    History history = of_a_faster_daemon(3);
    for (Observation& one : history.observations) {
        one.missed = 20;
    }
    for (int i = 0; i < 3; ++i) {
        history.turns.push_back(failure(180.0 * i + 64));
        history.turns.push_back(success(180.0 * i + 80));
    }
    EXPECT_TRUE(replay_of(history, {}, one_uplink()).doubts.empty());
}

TEST(Counts, of_two_outages_are_too_few_for_that) {
    EXPECT_TRUE(replay_of(of_a_faster_daemon(2), {}, one_uplink()).doubts.empty());
}

// ---- What nobody watched. ----

TEST(Gap, is_told_and_what_was_dead_stays_so) {
    History history{.observations = {seen(0, 59, 0), seen(180, 59, 0)},
                    .turns = {failure(50)},
                    .watches = {watch(0, 60), watch(180, 240)}};
    const auto replayed = replay_of(history, {}, one_uplink());
    EXPECT_EQ(text_of(replayed.scenario),
              "32s target 203.0.113.1 dead\n1m not watched\n3m target 203.0.113.1 alive\n"
              "3m watched again\n");
    const Truth truth = truth_of(one_uplink()[0], replayed.scenario);
    EXPECT_EQ(condition_at(truth, 40'000'000), Condition::dead);
    EXPECT_EQ(condition_at(truth, 100'000'000), Condition::unknown);
    EXPECT_EQ(condition_at(truth, 200'000'000), Condition::good);
}

TEST(Gap, that_ends_with_the_target_still_silent_ends_no_outage) {
    // Somebody looks again at 105 s; no verdict turns, for it is what it was.
    History history{.observations = {seen(0, 31, 19), seen(60, 0, 50), seen(120, 0, 60)},
                    .turns = {failure(50)},
                    .watches = {watch(0, 95), watch(105, 180)}};
    EXPECT_EQ(text_of(replay_of(history, {}, one_uplink()).scenario),
              "32s target 203.0.113.1 dead\n1m 35s not watched\n1m 45s watched again\n");
}

TEST(Gap, of_a_killed_watcher_moves_no_begin) {
    // What was counted before the end of the first watcher is lost with it.
    History history{.observations = {seen(0, 59, 0), seen(60, 0, 5), seen(120, 0, 55)},
                    .turns = {failure(105.9)},
                    .watches = {watch(0, 105.9), watch(114, 180)}};
    EXPECT_EQ(text_of(replay_of(history, {}, one_uplink()).scenario),
              "1m 27.9s target 203.0.113.1 dead\n1m 45.9s not watched\n1m 54s watched again\n");
    // Started again at once, so that its parts touch.
    history.watches = {watch(0, 105.9), watch(106.5, 180)};
    EXPECT_EQ(text_of(replay_of(history, {}, one_uplink()).scenario),
              "1m 27.9s target 203.0.113.1 dead\n");
}

TEST(Gap, of_a_killed_watcher_ends_what_was_before_where_the_next_one_begins) {
    History history{.observations = {seen(0, 0, 10), seen(60, 0, 5), seen(120, 59, 0)},
                    .turns = {},
                    .watches = {watch(0, 90), watch(110, 180)}};
    EXPECT_EQ(text_of(replay_of(history, {}, one_uplink()).scenario),
              "0s target 203.0.113.1 dead\n1m 30s not watched\n1m 50s watched again\n"
              "2m target 203.0.113.1 alive\n");
    history.observations[0] = seen(0, 59, 0);
    EXPECT_EQ(text_of(replay_of(history, {}, one_uplink()).scenario),
              "1m 30s not watched\n1m 50s target 203.0.113.1 dead\n1m 50s watched again\n"
              "2m target 203.0.113.1 alive\n");
}

TEST(Gap, of_a_killed_watcher_moves_no_outage_before_an_answer) {
    const History history{.observations = {seen(0, 59, 0), seen(60, 0, 5), seen(120, 0, 55)},
                          .turns = {failure(50), success(80)},
                          .watches = {watch(0, 90), watch(90.5, 180)}};
    const std::string text = text_of(replay_of(history, {}, one_uplink()).scenario);
    EXPECT_EQ(text,
              "32s target 203.0.113.1 dead\n1m 12s target 203.0.113.1 alive\n"
              "1m 20s target 203.0.113.1 dead\n");
}

TEST(Gap, is_whatever_of_the_period_has_no_watch) {
    const auto replayed =
        replay_of({.observations = {seen(60, 59, 0)}, .watches = {watch(60, 120)}},
                  {.since_ms = at(0), .until_ms = at(180)}, one_uplink());
    EXPECT_EQ(text_of(replayed.scenario), "0s not watched\n1m watched again\n2m not watched\n");
    EXPECT_EQ(replayed.duration_us, 180'000'000);
}

TEST(Gap, is_all_the_time_of_an_uplink_that_was_never_recorded) {
    auto uplinks = one_uplink();
    uplinks.push_back(uplinks[0]);
    uplinks[1].name = "gi1_2";
    const auto replayed =
        replay_of({.observations = {seen(0, 59, 0)}, .watches = {watch(0, 60)}}, {}, uplinks);
    EXPECT_EQ(text_of(replayed.scenario), "0s not watched\n");
    EXPECT_EQ(replayed.scenario[0].uplink, "gi1_2");
    EXPECT_EQ(
        replayed.doubts[1],
        "gi1_2 ipv4: not watched for 1m: told as not watched, and simulated as it was before");
}

TEST(Gap, between_two_spans_that_touch_is_none) {
    EXPECT_EQ(text_of(replay_of({.observations = {seen(0, 59, 0)},
                                 .watches = {watch(30, 60), watch(0, 30)}},
                                {}, one_uplink())
                          .scenario),
              "");
}

}  // namespace

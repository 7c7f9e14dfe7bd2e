#include <gtest/gtest.h>

#include "lbwatch/world.h"
#include "unit/support/lbwatch_items.h"

namespace {

using namespace lbwatch;
using namespace lbwatch_items;

class LbwatchWorld : public testing::Test {
  protected:
    /// Reads a dump of family 4 in the second; gives all events, cycles stay in `cycles`.
    std::vector<Event> read(double second, const std::vector<dumps::Interface>& interfaces) {
        const Moment now = at(second);
        Changes changes = world.read(4, interfaces, now.wall_ms / 1000, now);
        cycles = changes.cycles;
        return changes.events;
    }

    static std::vector<std::string> lines(const std::vector<Event>& events) {
        std::vector<std::string> all;
        for (const Event& event : events) {
            all.push_back(line_of(event));
        }
        return all;
    }

    using Lines = std::vector<std::string>;
    World world;
    std::vector<Cycle> cycles;
};

TEST_F(LbwatchWorld, uplink_appears_with_its_state) {
    const auto events = read(0, {interface("eth0", true, {answered("198.51.100.1")})});
    EXPECT_EQ(lines(events),
              Lines{"eth0 ipv4 absent -> active: 198.51.100.1 answered (3 in a row)"});
    EXPECT_FALSE(events.front().after_s);
}

TEST_F(LbwatchWorld, uplink_that_is_not_judged_yet_is_unknown) {
    const auto waiting = interface("eth0", false, {timed_out("198.51.100.1", 1)});
    EXPECT_EQ(lines(read(0, {waiting})), Lines{"eth0 ipv4 absent -> unknown: not judged yet"});
    EXPECT_EQ(read(1, {waiting}), std::vector<Event>());
    EXPECT_EQ(world.uplinks().at(key("eth0")).state, UplinkState::unknown);
}

/// A line that loses every other echo, from the daemon's start on.
TEST_F(LbwatchWorld, uplink_without_enough_answers_in_a_row_is_failed_once_there_was_time) {
    read(-60, {interface("eth0", true, {answered("198.51.100.1")})});
    world.forget_states();
    std::vector<Event> events;
    int second = 0;
    for (; second < 60 && events.empty(); ++second) {
        const auto probe =
            second % 4 < 2 ? timed_out("198.51.100.1", 1) : answered("198.51.100.1", 1);
        events = read(second, {interface("eth0", false, {probe})});
    }
    EXPECT_EQ(second, 31);
    EXPECT_EQ(lines(events),
              Lines{"eth0 ipv4 active -> failed: 198.51.100.1 no 3 answers in a row since the "
                    "daemon started; changed while nothing was watched"});
    EXPECT_EQ(world.uplinks().at(key("eth0")).state, UplinkState::failed);
}

TEST_F(LbwatchWorld, uplink_that_still_counts_its_answers_is_not_failed) {
    for (int second = 0; second < 300; ++second) {
        auto one = interface("eth0", false, {});
        one.success_ct = 200;
        one.probes = {second < 3 ? timed_out("a", 1) : answered("a", second / 2)};
        read(second, {one});
        EXPECT_EQ(world.uplinks().at(key("eth0")).state, UplinkState::unknown) << second;
    }
}

TEST_F(LbwatchWorld, uplink_with_a_high_count_of_answers_has_the_time_of_two_runs_of_them) {
    auto one = interface("eth0", false, {});
    one.success_ct = 20;
    for (int second = 0; second < 79; ++second) {
        one.probes = {second % 16 == 15 ? timed_out("a", 1) : answered("a", second % 16 + 1)};
        read(second, {one});
        EXPECT_EQ(world.uplinks().at(key("eth0")).state, UplinkState::unknown) << second;
    }
    EXPECT_EQ(lines(read(79, {one})),
              Lines{"eth0 ipv4 unknown -> failed: a no 20 answers in a row since the "
                    "daemon started"});
}

TEST_F(LbwatchWorld, uplink_that_was_never_evaluated_is_not_failed) {
    for (int second = 0; second < 60; ++second) {
        auto one =
            interface("eth0", false, {second % 2 == 0 ? answered("a", 1) : timed_out("a", 1)});
        one.since_failure_s.reset();
        read(second, {one});
    }
    EXPECT_EQ(world.uplinks().at(key("eth0")).state, UplinkState::unknown);
}

TEST_F(LbwatchWorld, inactive_uplink_that_the_daemon_has_held_for_active_is_failed_at_once) {
    auto one = interface("eth0", false, {timed_out("a", 1)});
    one.since_success_s = 125;
    EXPECT_EQ(lines(read(0, {one})), Lines{"eth0 ipv4 absent -> failed: a no 3 answers in a row"});
}

TEST_F(LbwatchWorld, two_probes_of_one_target_are_counted_as_one) {
    auto quality = timed_out("a", 1);
    quality.position = 2;
    quality.quality = dumps::Quality{.loss_percent = 0,
                                     .rtt_ms = 300,
                                     .jitter_ms = 5,
                                     .loss_limit = 10,
                                     .rtt_limit = 200,
                                     .jitter_limit = 50};
    read(0, {interface("eth0", true, {answered("a", 0), quality})});
    ASSERT_EQ(cycles.size(), 1U);
    EXPECT_FALSE(cycles[0].is_answered);
    ASSERT_TRUE(cycles[0].quality);
    EXPECT_EQ(cycles[0].quality->rtt_ms, 300);
    EXPECT_EQ(world.uplinks().at(key("eth0")).targets.at("a").missed, 1U);
}

TEST_F(LbwatchWorld, failure_is_told_with_its_target_run_and_length) {
    read(0, {interface("eth0", true, {answered("203.0.113.53")})});
    auto failed = interface("eth0", false, {timed_out("203.0.113.53")});
    read(1, {interface("eth0", true, {timed_out("203.0.113.53", 1)})});
    const auto first = read(60, {failed});
    EXPECT_EQ(lines(first),
              (Lines{"eth0 ipv4 target 203.0.113.53 success -> failure: no answer (3 in a row)",
                     "eth0 ipv4 active -> failed: 203.0.113.53 no answer (3 in a row)"}));
    const auto second = read(125, {interface("eth0", true, {answered("203.0.113.53")})});
    EXPECT_EQ(lines(second).back(),
              "eth0 ipv4 failed -> active after 1m 5s: 203.0.113.53 answered (3 in a row)");
}

TEST_F(LbwatchWorld, state_met_at_the_start_has_lasted_since_the_other_was_judged_last) {
    auto one = interface("eth0", true, {answered("198.51.100.1")});
    one.since_failure_s = 7200;
    read(0, {one});
    const auto events = read(60, {interface("eth0", false, {timed_out("198.51.100.1")})});
    EXPECT_EQ(events.back().after_s, 7260);
}

TEST_F(LbwatchWorld, age_that_no_clock_explains_is_not_used) {
    for (const int age_s : {-500, 86'500}) {
        world = World();
        auto one = interface("eth0", true, {answered("198.51.100.1")});
        one.since_failure_s = age_s;
        read(0, {one});
        const auto events = read(60, {interface("eth0", false, {timed_out("198.51.100.1")})});
        EXPECT_FALSE(events.back().after_s) << age_s;
    }
}

TEST_F(LbwatchWorld, verdict_between_the_thresholds_stays) {
    read(0, {interface("eth0", true, {answered("a"), answered("b")})});
    EXPECT_EQ(read(1, {interface("eth0", true, {timed_out("a", 2), answered("b")})}),
              std::vector<Event>());
    EXPECT_EQ(world.uplinks().at(key("eth0")).targets.at("a").verdict, Verdict::success);
    EXPECT_EQ(lines(read(2, {interface("eth0", true, {timed_out("a", 3), answered("b")})})),
              Lines{"eth0 ipv4 target a success -> failure: no answer (3 in a row)"});
}

TEST_F(LbwatchWorld, threshold_of_zero_takes_every_result) {
    auto one = interface("eth0", true, {answered("a", 0)});
    one.failure_ct = 0;
    read(0, {one});
    one.probes = {timed_out("a", 0)};
    EXPECT_EQ(lines(read(1, {one})), Lines{"eth0 ipv4 target a success -> failure: no answer"});
}

TEST_F(LbwatchWorld, extended_ping_tells_the_limit_it_reached) {
    auto probe = answered("a", 1);
    probe.quality = dumps::Quality{.loss_percent = 0,
                                   .rtt_ms = 20,
                                   .jitter_ms = 5,
                                   .loss_limit = 10,
                                   .rtt_limit = 200,
                                   .jitter_limit = 50};
    auto one = interface("eth0", true, {probe});
    one.success_ct = one.failure_ct = 1;
    read(0, {one});
    one.is_active = false;
    one.since_failure_s = 0;
    one.probes[0].last_result = dumps::Result::timed_out;
    one.probes[0].failure_run = 1;
    one.probes[0].quality->loss_percent = 30;
    EXPECT_EQ(lines(read(1, {one})).back(),
              "eth0 ipv4 active -> failed: a loss 30 % (limit 10 %) (1 in a row)");
}

TEST_F(LbwatchWorld, extended_ping_without_a_first_answer_is_not_blamed_on_old_measurements) {
    auto probe = answered("a", 1);
    probe.quality = dumps::Quality{.loss_percent = 0,
                                   .rtt_ms = 20,
                                   .jitter_ms = 5,
                                   .loss_limit = 10,
                                   .rtt_limit = 200,
                                   .jitter_limit = 50};
    auto one = interface("eth0", true, {probe});
    read(0, {one});
    one.is_active = false;
    one.since_failure_s = 0;
    one.probes[0].last_result = dumps::Result::timed_out;
    one.probes[0].failure_run = 3;
    EXPECT_EQ(lines(read(1, {one})).back(), "eth0 ipv4 active -> failed: a no answer (3 in a row)");
}

TEST_F(LbwatchWorld, next_hop_that_changes_is_an_event_and_the_first_is_none) {
    auto one = interface("eth0", true, {answered("a")});
    EXPECT_EQ(read(0, {one}).size(), 1U);
    one.nexthop = "192.0.2.9";
    EXPECT_EQ(lines(read(1, {one})), Lines{"eth0 ipv4 next hop 192.0.2.1 -> 192.0.2.9"});
    one.nexthop.clear();
    EXPECT_EQ(lines(read(2, {one})), Lines{"eth0 ipv4 next hop 192.0.2.9 -> none"});
}

TEST_F(LbwatchWorld, uplink_is_gone_only_when_two_dumps_say_so) {
    const auto one = interface("eth0", true, {answered("a")});
    const auto two = interface("eth1", true, {answered("b")});
    read(0, {one, two});
    EXPECT_EQ(read(1, {one}), std::vector<Event>());
    EXPECT_EQ(read(2, {one, two}), std::vector<Event>());
    read(3, {one});
    const auto events = read(4, {one});
    EXPECT_EQ(lines(events),
              Lines{"eth1 ipv4 active -> absent: no longer in the daemon's configuration"});
    EXPECT_FALSE(world.uplinks().contains(key("eth1")));
}

TEST_F(LbwatchWorld, daemon_that_starts_anew_changes_nothing_until_it_has_judged) {
    const auto one = interface("eth0", true, {answered("a")});
    read(0, {one});
    world.forget_states();
    EXPECT_EQ(world.uplinks().at(key("eth0")).state, UplinkState::unknown);
    auto starting = interface("eth0", false, {answered("a", 1)});
    starting.since_failure_s.reset();
    EXPECT_EQ(read(10, {starting}), std::vector<Event>());
    EXPECT_EQ(world.uplinks().at(key("eth0")).state, UplinkState::unknown);
    EXPECT_EQ(read(12, {one}), std::vector<Event>());
    EXPECT_EQ(world.uplinks().at(key("eth0")).state, UplinkState::active);
}

TEST_F(LbwatchWorld, change_over_a_stopped_daemon_is_told_as_unwatched) {
    read(0, {interface("eth0", true, {answered("a")})});
    world.forget_states();
    const auto events = read(100, {interface("eth0", false, {timed_out("a")})});
    EXPECT_EQ(lines(events).back(),
              "eth0 ipv4 active -> failed: a no answer (3 in a row); changed while nothing was "
              "watched");
}

TEST_F(LbwatchWorld, failure_that_the_daemon_before_found_is_none_of_the_next_one) {
    read(0, {interface("eth0", false, {timed_out("a"), answered("b")})});
    world.forget_states();
    auto starting = interface("eth0", false, {timed_out("a", 1), answered("b", 1)});
    starting.since_failure_s.reset();
    EXPECT_EQ(read(10, {starting}), std::vector<Event>());
    const Uplink& uplink = world.uplinks().at(key("eth0"));
    EXPECT_EQ(uplink.state, UplinkState::unknown);
    EXPECT_EQ(uplink.targets.at("a").verdict, Verdict::unknown);
    EXPECT_EQ(uplink.targets.at("b").verdict, Verdict::unknown);
}

TEST_F(LbwatchWorld, remembered_state_is_no_event_while_it_holds) {
    world.remember(key("eth0"), UplinkState::active);
    EXPECT_EQ(read(0, {interface("eth0", true, {answered("a")})}), std::vector<Event>());
}

TEST_F(LbwatchWorld, another_run_of_the_daemon_is_known_by_what_it_has_forgotten) {
    auto one = interface("eth0", true, {answered("a")});
    const std::int64_t now_s = at(1).wall_ms / 1000;
    read(0, {one});
    EXPECT_FALSE(world.is_of_another_run({one}, now_s));
    one.is_active = false;
    one.since_success_s = 1;
    one.since_failure_s = 0;
    EXPECT_FALSE(world.is_of_another_run({one}, now_s));
    one.since_success_s.reset();
    EXPECT_TRUE(world.is_of_another_run({one}, now_s));
}

TEST_F(LbwatchWorld, clock_that_was_set_back_is_no_other_run) {
    auto one = interface("eth0", true, {answered("a")});
    read(0, {one});
    one.is_active = false;
    one.since_success_s.reset();  // an age of 0, as of a judgement in the future
    EXPECT_FALSE(world.is_of_another_run({one}, at(-60).wall_ms / 1000));
}

TEST_F(LbwatchWorld, uplink_that_is_not_evaluated_becomes_unknown_and_returns) {
    auto one = interface("eth0", true, {answered("a")});
    read(0, {one});
    one.since_success_s = 31;
    EXPECT_EQ(read(31, {one}), std::vector<Event>());  // a clock that was set looks like this
    one.since_success_s = 37;
    EXPECT_EQ(lines(read(37, {one})), Lines{"eth0 ipv4 active -> unknown: not evaluated for 37s"});
    one.since_success_s = 0;
    EXPECT_EQ(lines(read(40, {one})).back().substr(0, 36), "eth0 ipv4 unknown -> active after 3s");
}

TEST_F(LbwatchWorld, each_rewrite_of_a_single_worker_is_a_cycle) {
    const auto one = interface("eth0", true, {answered("a"), timed_out("b", 1)});
    read(0.2, {one});
    ASSERT_EQ(cycles.size(), 2U);
    EXPECT_TRUE(cycles[0].is_answered);
    EXPECT_FALSE(cycles[1].is_answered);
    read(0.9, {one});
    EXPECT_EQ(cycles.size(), 2U);
    EXPECT_EQ(world.uplinks().at(key("eth0")).targets.at("b").missed, 2U);
}

TEST_F(LbwatchWorld, rewrites_of_several_workers_count_by_the_date_of_the_evaluation) {
    auto one = interface("eth0", true, {answered("a")});
    auto two = interface("eth1", true, {answered("b")});
    two.namespace_name = "blue";
    read(0, {one, two});
    EXPECT_EQ(cycles.size(), 2U);
    one.since_success_s = 1;  // the other's worker wrote
    read(1, {one, two});
    ASSERT_EQ(cycles.size(), 1U);
    EXPECT_EQ(cycles[0].uplink.name, "eth1");
}

TEST_F(LbwatchWorld, probe_without_a_result_counts_as_none) {
    dumps::Probe fresh;
    fresh.target = "a";
    read(0, {interface("eth0", false, {fresh})});
    EXPECT_TRUE(cycles.empty());
}

TEST_F(LbwatchWorld, down_time_is_what_was_seen_down) {
    read(0, {interface("eth0", false, {timed_out("a")})});
    read(1, {interface("eth0", false, {timed_out("a")})});
    read(2, {interface("eth0", true, {answered("a")})});
    read(3, {interface("eth0", true, {answered("a")})});
    EXPECT_EQ(world.uplinks().at(key("eth0")).down_ms, 2000);
    EXPECT_EQ(world.uplinks().at(key("eth0")).to_active, 1U);
}

class LbwatchRoutes : public LbwatchWorld {
  protected:
    LbwatchRoutes() {
        rule.number = 1;
        rule.members = {{.interface = "eth0", .family = 4, .weight = 1},
                        {.interface = "eth1", .family = 4, .weight = 3}};
    }
    static dumps::Route route(std::string prefix, std::string nexthop = "") {
        dumps::Route made;
        made.rule_number = 1;
        made.prefix = std::move(prefix);
        made.nexthop = std::move(nexthop);
        return made;
    }
    void states(double second, bool first, bool second_one) {
        auto two = interface("eth1", second_one, {second_one ? answered("b") : timed_out("b")});
        two.nexthop = "192.0.2.2";
        read(second, {interface("eth0", first, {first ? answered("a") : timed_out("a")}), two});
    }
    dumps::Rule rule;
};

TEST_F(LbwatchRoutes, all_active_members_are_used_and_alike_changes_are_one_event) {
    states(0, true, true);
    EXPECT_EQ(world.read({rule}, {route("10.0.0.0/8"), route("0.0.0.0/0")}, at(0)),
              std::vector<Event>());
    EXPECT_TRUE(world.uplinks().at(key("eth1")).is_routed);
    states(1, true, false);
    EXPECT_EQ(lines(world.read({rule}, {route("10.0.0.0/8"), route("0.0.0.0/0")}, at(1))),
              Lines{"routes of 1_ipv4 to 0.0.0.0/0 and 1 more: eth0, eth1 -> eth0"});
    EXPECT_FALSE(world.uplinks().at(key("eth1")).is_routed);
    states(2, false, false);
    EXPECT_EQ(lines(world.read({rule}, {route("10.0.0.0/8"), route("0.0.0.0/0")}, at(2))),
              Lines{"routes of 1_ipv4 to 0.0.0.0/0 and 1 more: eth0 -> none after 1s"});
}

TEST_F(LbwatchRoutes, failover_rule_uses_the_uplink_of_the_chosen_next_hop) {
    rule.is_failover = true;
    states(0, true, true);
    world.read({rule}, {route("10.0.0.0/8", "192.0.2.2")}, at(0));
    EXPECT_FALSE(world.uplinks().at(key("eth0")).is_routed);
    EXPECT_EQ(lines(world.read({rule}, {route("10.0.0.0/8", "192.0.2.1")}, at(1))),
              Lines{"routes of 1_ipv4 to 10.0.0.0/8: eth1 -> eth0"});
}

TEST_F(LbwatchRoutes, member_without_weight_or_next_hop_is_not_used) {
    rule.members[1].weight = 0;
    states(0, true, true);
    world.read({rule}, {route("10.0.0.0/8")}, at(0));
    EXPECT_EQ(world.rules().begin()->second.used.at("10.0.0.0/8"), "eth0");
}

TEST_F(LbwatchRoutes, nothing_is_told_before_all_members_are_judged) {
    states(0, true, true);
    world.read({rule}, {route("10.0.0.0/8")}, at(0));
    world.forget_states();
    auto starting = interface("eth1", false, {answered("b", 1)});
    starting.nexthop = "192.0.2.2";
    read(10, {interface("eth0", true, {answered("a")}), starting});
    EXPECT_EQ(world.read({rule}, {route("10.0.0.0/8")}, at(10)), std::vector<Event>());
    read(41, {interface("eth0", true, {answered("a")}), starting});
    EXPECT_EQ(lines(world.read({rule}, {route("10.0.0.0/8")}, at(41))),
              Lines{"routes of 1_ipv4 to 10.0.0.0/8: eth0, eth1 -> eth0"});
}

}  // namespace

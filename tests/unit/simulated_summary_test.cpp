// What lbsim holds for true, and what it makes of the daemon's answer to it.

#include <gtest/gtest.h>

#include "lbsim/scenario_text.h"
#include "lbsim/summary.h"
#include "lbsim/truth.h"

namespace {

using namespace lbsim;

constexpr std::int64_t s = 1'000'000;

Uplink one_uplink() {
    Uplink uplink;
    uplink.name = "gi1_1";
    uplink.nexthop = "192.0.2.1";
    uplink.targets = {"203.0.113.1", "203.0.113.2"};
    return uplink;
}

Scenario scenario_of(const std::string& text) {
    const ParsedScenario parsed = parse_scenario(text);
    EXPECT_TRUE(parsed.errors.empty());
    return parsed.events;
}

std::string truth_text(const std::string& scenario, const Uplink& uplink = one_uplink()) {
    std::string text;
    for (const Stretch& stretch : truth_of(uplink, scenario_of(scenario))) {
        text += std::to_string(stretch.from_us / s) +
                (stretch.condition == Condition::good       ? " good, "
                 : stretch.condition == Condition::impaired ? " impaired, "
                                                            : " dead, ");
    }
    return text;
}

TEST(Truth, is_good_until_something_happens) {
    EXPECT_EQ(truth_text(""), "0 good, ");
    EXPECT_EQ(truth_text("0s gi1_1 dead"), "0 dead, ");
    EXPECT_EQ(truth_text("5s gi1_2 dead"), "0 good, ");
    EXPECT_EQ(truth_text("5s gi1_1 ipv6 dead"), "0 good, ");
}

TEST(Truth, is_dead_while_any_cause_lasts) {
    EXPECT_EQ(truth_text("5s gi1_1 dead\n6s gi1_1 link down\n7s gi1_1 alive\n8s gi1_1 link up"),
              "0 good, 5 dead, 8 good, ");
    EXPECT_EQ(truth_text("5s gi1_1 nexthop dead\n9s gi1_1 clean"), "0 good, 5 dead, 9 good, ");
    EXPECT_EQ(truth_text("5s gi1_1 loss 100%"), "0 good, 5 dead, ");
}

TEST(Truth, of_a_link_is_no_better_where_one_family_is_clean) {
    EXPECT_EQ(
        truth_text("5s gi1_1 link down\n6s gi1_1 dead\n7s gi1_1 ipv4 clean\n9s gi1_1 link up"),
        "0 good, 5 dead, 9 good, ");
}

TEST(Truth, is_good_again_with_the_router_of_a_new_lease) {
    Uplink uplink = one_uplink();
    uplink.nexthop = "dhcp";
    const std::string dead = "5s gi1_1 nexthop dead\n";
    EXPECT_EQ(truth_text(dead + "7s gi1_1 lease 198.51.100.254", uplink),
              "0 good, 5 dead, 7 good, ");
    EXPECT_EQ(truth_text(dead + "7s gi1_1 lease none", uplink), "0 good, 5 dead, ");
    EXPECT_EQ(truth_text(dead + "7s gi1_1 lease fe80::1", uplink), "0 good, 5 dead, ");
    EXPECT_EQ(truth_text(dead + "7s gi1_1 lease 198.51.100.254"), "0 good, 5 dead, ");
}

TEST(Truth, is_impaired_where_something_passes) {
    EXPECT_EQ(
        truth_text("5s gi1_1 loss 30%\n6s gi1_1 delay 1s\n7s gi1_1 loss 0%\n8s gi1_1 delay 0s"),
        "0 good, 5 impaired, 8 good, ");
}

TEST(Truth, knows_an_uplink_that_none_of_its_targets_answers_through) {
    EXPECT_EQ(truth_text("5s gi1_1 target 203.0.113.1 dead\n6s gi1_1 target 203.0.113.2 dead\n"
                         "7s gi1_1 target 203.0.113.1 alive\n8s gi1_1 clean"),
              "0 good, 5 impaired, 6 dead, 7 impaired, 8 good, ");
}

TEST(Truth, takes_the_losses_of_a_target_for_an_impairment_up_to_the_last_echo) {
    EXPECT_EQ(truth_text("5s gi1_1 target 203.0.113.1 loss 30%\n"
                         "6s gi1_1 target 203.0.113.1 loss 100%\n"
                         "7s gi1_1 target 203.0.113.2 loss 100%\n"
                         "8s gi1_1 target 203.0.113.1 loss 0%\n"
                         "9s gi1_1 target 203.0.113.2 alive"),
              "0 good, 5 impaired, 7 dead, 8 impaired, 9 good, ");
}

TEST(Truth, does_not_blame_an_uplink_for_a_target_that_is_dead_for_all) {
    EXPECT_EQ(truth_text("5s target 203.0.113.1 dead\n5s target 203.0.113.2 dead"), "0 good, ");
}

/// A run that tells these changes of state, each with its route in the same moment.
lbsim::Run run_of(std::initializer_list<std::pair<std::int64_t, bool>> changes,
                  std::int64_t duration_s) {
    lbsim::Run run;
    run.duration_us = duration_s * s;
    for (const auto& [at_s, is_active] : changes) {
        ObservedChange told;
        told.at_us = at_s * s;
        told.kind = ObservedChange::Kind::state;
        told.uplink = "gi1_1";
        told.is_up = is_active;
        run.told.push_back(told);
        run.routed.push_back({at_s * s, 0, is_active});
    }
    return run;
}

TEST(Summary, measures_from_the_event_to_the_change_it_asks_for) {
    const auto summary = summarize({one_uplink()}, scenario_of("20s gi1_1 dead\n50s gi1_1 alive"),
                                   run_of({{3, true}, {27, false}, {54, true}}, 60));
    ASSERT_EQ(summary.rows.size(), 3);
    EXPECT_EQ(summary.rows[0].event, "start");
    EXPECT_EQ(summary.rows[0].state_after_us, 3 * s);
    EXPECT_EQ(summary.rows[0].left_unused_us, 3 * s);
    EXPECT_EQ(summary.rows[1].state_after_us, 7 * s);
    EXPECT_EQ(summary.rows[1].route_after_us, 7 * s);
    EXPECT_EQ(summary.rows[1].into_dead_us, 7 * s);
    EXPECT_EQ(summary.rows[1].left_unused_us, 0);
    EXPECT_EQ(summary.rows[2].state_after_us, 4 * s);
    EXPECT_EQ(summary.rows[2].left_unused_us, 4 * s);
    EXPECT_EQ(summary.rows[2].flaps, 0);
    EXPECT_EQ(summary.uplinks[0].into_dead_us, 7 * s);
    EXPECT_EQ(summary.uplinks[0].left_unused_us, 7 * s);
    EXPECT_EQ(summary.uplinks[0].dead_us, 30 * s);
    EXPECT_EQ(summary.uplinks[0].active_us, (24 + 6) * s);
    EXPECT_EQ(summary.uplinks[0].changes, 3);
}

TEST(Summary, says_so_where_the_state_never_follows) {
    const auto summary =
        summarize({one_uplink()}, scenario_of("20s gi1_1 dead"), run_of({{3, true}}, 60));
    EXPECT_TRUE(summary.rows[1].is_expected);
    EXPECT_EQ(summary.rows[1].state_after_us, std::nullopt);
    EXPECT_EQ(summary.rows[1].into_dead_us, 40 * s);
}

TEST(Summary, counts_as_flaps_what_comes_after_the_first_change) {
    const auto summary =
        summarize({one_uplink()}, scenario_of("20s gi1_1 loss 40%"),
                  run_of({{3, true}, {25, false}, {30, true}, {35, false}, {40, true}}, 60));
    EXPECT_FALSE(summary.rows[1].is_expected);
    EXPECT_EQ(summary.rows[1].state_after_us, 5 * s);
    EXPECT_EQ(summary.rows[1].flaps, 3);
    EXPECT_EQ(summary.rows[1].left_unused_us, 0);  // it was impaired
}

TEST(Summary, does_not_take_a_later_move_of_the_route_for_the_answer) {
    lbsim::Run run = run_of({{3, true}}, 60);
    run.routed = {{40 * s, 0, true}};
    const auto summary = summarize({one_uplink()}, {}, run);
    EXPECT_EQ(summary.rows[0].state_after_us, 3 * s);
    EXPECT_EQ(summary.rows[0].route_after_us, std::nullopt);
}

TEST(Summary, puts_events_of_one_moment_into_one_row_and_leaves_out_what_was_not_reached) {
    const auto summary =
        summarize({one_uplink()}, scenario_of("9s gi1_1 dead\n9s gi1_1 link down\n80s gi1_1 clean"),
                  run_of({{3, true}}, 60));
    ASSERT_EQ(summary.rows.size(), 2);
    EXPECT_EQ(summary.rows[1].event, "gi1_1 dead, gi1_1 link down");
}

}  // namespace

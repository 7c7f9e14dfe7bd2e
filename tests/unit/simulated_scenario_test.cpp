// The scenario file of lbsim: what is understood, and what is said of the rest.

#include <gtest/gtest.h>

#include "lbsim/scenario.h"
#include "lbsim/scenario_text.h"

namespace {

using namespace lbsim;

std::string error_of(const std::string& text) {
    const ParsedScenario parsed = parse_scenario(text);
    if (parsed.errors.size() != 1) {
        return std::to_string(parsed.errors.size()) + " errors";
    }
    const ScenarioError& error = parsed.errors.front();
    return std::to_string(error.line) + ": '" + error.word + "' " + error.reason;
}

Event event_of(const std::string& line) {
    const ParsedScenario parsed = parse_scenario(line);
    EXPECT_TRUE(parsed.errors.empty()) << line;
    return parsed.events.empty() ? Event() : parsed.events.front();
}

std::vector<Uplink> two_uplinks_of_both_families() {
    std::vector<Uplink> uplinks(3);
    uplinks[0].name = "gi1_1";
    uplinks[0].nexthop = "192.0.2.1";
    uplinks[0].targets = {"203.0.113.53"};
    uplinks[1] = uplinks[0];
    uplinks[1].is_ipv6 = true;
    uplinks[1].targets = {"2001:db8::53"};
    uplinks[2].name = "gi1_2";
    uplinks[2].nexthop = "dhcp";
    uplinks[2].targets = {"203.0.113.53", "203.0.113.54"};
    for (Uplink& uplink : uplinks) {
        uplink.settle_us = 10'000'000;
        uplink.start_us = 15'000'000;
    }
    return uplinks;
}

TEST(Duration, has_a_number_and_a_unit) {
    EXPECT_EQ(parse_duration("10s"), 10'000'000);
    EXPECT_EQ(parse_duration("1.5h"), 5'400'000'000);
    EXPECT_EQ(parse_duration("900ms"), 900'000);
    EXPECT_EQ(parse_duration("2m"), 120'000'000);
    EXPECT_EQ(parse_duration("30d"), 2'592'000'000'000);
    EXPECT_EQ(parse_duration("0s"), 0);
}

TEST(Duration, is_refused_without_either_and_beyond_centuries) {
    for (const char* text :
         {"", "10", "s", "-1s", "1e3s", "1.s2", "10 s", "nans", "infd", "99999999999d"}) {
        EXPECT_EQ(parse_duration(text), std::nullopt) << text;
    }
}

TEST(Duration, is_shown_in_its_largest_units) {
    EXPECT_EQ(shown_duration(0), "0s");
    EXPECT_EQ(shown_duration(2'500'000), "2.5s");
    EXPECT_EQ(shown_duration(70'000'000), "1m 10s");
    EXPECT_EQ(shown_duration(90'000'000'000), "1d 1h");
}

TEST(Scenario, has_an_event_a_line_between_comments) {
    const ParsedScenario parsed =
        parse_scenario("# head\n\n10s gi1_1 dead # why\r\n12s gi1_2 clean");
    ASSERT_EQ(parsed.events.size(), 2);
    EXPECT_EQ(parsed.events[0].at_us, 10'000'000);
    EXPECT_EQ(parsed.events[0].uplink, "gi1_1");
    EXPECT_EQ(parsed.events[0].change, Change::dead);
    EXPECT_EQ(parsed.events[0].text, "gi1_1 dead");
    EXPECT_EQ(parsed.events[1].line, 4);
    EXPECT_EQ(parsed.events[1].change, Change::clean);
}

TEST(Scenario, is_sorted_by_time_and_keeps_the_order_within_a_moment) {
    const auto events = parse_scenario("9s a dead\n5s b dead\n9s c dead\n").events;
    EXPECT_EQ(events[0].uplink + events[1].uplink + events[2].uplink, "bac");
}

TEST(Scenario, knows_what_can_happen_to_an_uplink) {
    EXPECT_EQ(event_of("1s u link down").change, Change::link_down);
    EXPECT_EQ(event_of("1s u link up").change, Change::link_up);
    EXPECT_EQ(event_of("1s u nexthop dead").change, Change::nexthop_dead);
    EXPECT_EQ(event_of("1s u nexthop alive").change, Change::nexthop_alive);
    EXPECT_EQ(event_of("1s clock forward 2h").clock_step_us, 7'200'000'000);
    EXPECT_EQ(event_of("1s clock back 90s").clock_step_us, -90'000'000);
    EXPECT_EQ(event_of("1s clock back 90s").change, Change::clock);
    EXPECT_EQ(event_of("1s u alive").change, Change::alive);
    EXPECT_EQ(event_of("1s u lease 198.51.100.254").router, "198.51.100.254");
    EXPECT_EQ(event_of("1s u lease none").router, "");
    EXPECT_EQ(event_of("1s u duplicates 7%").percent, 7);
    EXPECT_EQ(event_of("1s u reorder 0.5%").percent, 0.5);
    const Event loss = event_of("1s u ipv6 loss 30%");
    EXPECT_EQ(loss.family, Family::ipv6);
    EXPECT_EQ(loss.percent, 30);
    const Event delay = event_of("1s u delay 900ms jitter 0.2s");
    EXPECT_EQ(delay.delay_ms, 900);
    EXPECT_EQ(delay.jitter_ms, 200);
}

TEST(Scenario, knows_targets_of_all_uplinks_and_of_one) {
    const Event of_all = event_of("1s target 2001:DB8::53 dead");
    EXPECT_EQ(of_all.uplink, "");
    EXPECT_EQ(of_all.target, "2001:db8::53");
    const Event of_one = event_of("1s u ipv4 target 203.0.113.53 dead");
    EXPECT_EQ(of_one.uplink, "u");
    EXPECT_EQ(of_one.family, Family::ipv4);
    EXPECT_EQ(of_one.target, "203.0.113.53");
    EXPECT_EQ(event_of("1s u target 203.0.113.53 loss 20%").percent, 20);
}

TEST(Scenario, names_line_and_word_of_an_error) {
    EXPECT_EQ(error_of("\n10 u dead"), "2: '10' a time is wanted, such as 10s, 2m, 1.5h or 900ms");
    EXPECT_EQ(error_of("1s u deda"),
              "1: 'deda' what happens is wanted: dead, alive, loss, delay, duplicates, reorder, "
              "link, nexthop, lease, target or clean");
    EXPECT_EQ(error_of("1s u loss 30"), "1: '30' a share is wanted, from 0% to 100%");
    EXPECT_EQ(error_of("1s u loss 130%"), "1: '130%' a share is wanted, from 0% to 100%");
    EXPECT_EQ(error_of("1s u loss"), "1: '' a share is wanted, from 0% to 100%");
    EXPECT_EQ(error_of("1s u link sideways"), "1: 'sideways' 'down' or 'up' is wanted");
    EXPECT_EQ(error_of("1s u ipv6 link down"),
              "1: 'link' a link goes down and up for both families: leave out 'ipv4' or 'ipv6'");
    EXPECT_EQ(error_of("1s u lease here"),
              "1: 'here' the address of the lease's router is wanted, or 'none'");
    EXPECT_EQ(error_of("1s u dead now"), "1: 'now' nothing more is understood on this line");
    EXPECT_EQ(error_of("1s target here dead"), "1: 'here' the address of a target is wanted");
    EXPECT_EQ(error_of("1s target 203.0.113.1 link down"),
              "1: 'link' a target can be dead, alive or clean, or have a loss or a delay");
    EXPECT_EQ(error_of("1s"), "1: '' an uplink is wanted, or 'target', or 'clock'");
    EXPECT_EQ(error_of("1s clock on 3s"), "1: 'on' 'back' or 'forward' is wanted");
    EXPECT_EQ(error_of("1s clock back"),
              "1: '' how far the clock is set is wanted, such as 10s, 2m, 1.5h or 900ms");
    EXPECT_EQ(error_of("1s clock back 3s 4s"), "1: '4s' nothing more is understood on this line");
}

TEST(Scenario, tells_every_line_that_is_wrong) {
    EXPECT_EQ(parse_scenario("x\n1s u dead\ny\n").errors.size(), 2);
}

TEST(Scenario, is_held_against_the_configuration) {
    const auto uplinks = two_uplinks_of_both_families();
    const auto reason = [&uplinks](const std::string& line) {
        const auto errors = check_scenario({event_of(line)}, uplinks);
        return errors.empty() ? std::string() : errors.front().word + ": " + errors.front().reason;
    };
    EXPECT_EQ(reason("1s gi1_1 ipv6 dead"), "");
    EXPECT_EQ(reason("1s clock back 1h"), "");
    EXPECT_EQ(reason("1s gi1_9 dead"),
              "gi1_9: the configuration has no such uplink that a worker serves");
    EXPECT_EQ(reason("1s gi1_2 ipv6 dead"),
              "gi1_2: the configuration does not have it in this family");
    EXPECT_EQ(reason("1s target 203.0.113.99 dead"),
              "203.0.113.99: no probe of the uplink has this target");
    EXPECT_EQ(reason("1s gi1_1 lease 192.0.2.9"),
              "gi1_1: its next hop is not learnt by dhcp in that family");
    EXPECT_EQ(reason("1s gi1_2 lease 192.0.2.9"), "");
    EXPECT_EQ(reason("1s gi1_2 lease fe80::1"),
              "gi1_2: its next hop is not learnt by dhcp in that family");
}

TEST(SingleFailures, take_each_uplink_then_each_target_once) {
    const auto events = single_failures(two_uplinks_of_both_families());
    std::string texts;
    for (const Event& event : events) {
        texts += std::to_string(event.at_us / 1'000'000) + " " + event.text + "\n";
    }
    EXPECT_EQ(texts,
              "15 gi1_1 dead\n25 gi1_1 alive\n35 gi1_2 dead\n45 gi1_2 alive\n"
              "55 target 203.0.113.53 dead\n65 target 203.0.113.53 alive\n"
              "75 target 2001:db8::53 dead\n85 target 2001:db8::53 alive\n"
              "95 target 203.0.113.54 dead\n105 target 203.0.113.54 alive\n");
}

TEST(DurationOfAScenario, lets_the_last_event_be_judged) {
    const auto uplinks = two_uplinks_of_both_families();
    EXPECT_EQ(duration_of({event_of("40s gi1_1 dead")}, uplinks), 50'000'000);
    EXPECT_EQ(duration_of({}, uplinks), 15'000'000);
}

}  // namespace

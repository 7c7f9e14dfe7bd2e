#include <gtest/gtest.h>

#include "dumps/freshness.h"
#include "unit/support/given_dumps.h"

namespace {

using given::written;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// IPv4 and IPv6 with an interface, a rule and a route each, and their dumps.
dumps::State two_families() {
    dumps::State made;
    for (const int family : {4, 6}) {
        dumps::Interface one;
        one.name = "eth0";
        one.family = family;
        one.is_active = true;
        one.since_success_s = 0;
        made.interfaces.push_back(one);
        made.rules.push_back({.number = 1, .family = family});
        made.routes.push_back(
            {.rule_number = 1, .family = family, .position = 1, .prefix = "10.0.0.0/8"});
        made.files.push_back({.name = dumps::outbounds_name(family), .written = written});
    }
    made.files.push_back({.name = "wlb_rules.bin", .written = written});
    made.files.push_back({.name = "wlb_routes.bin", .written = written});
    made.dump_directory = "/run/load-balance/wlb_dump";
    return made;
}

/// Which of the two families' items are stale, as they come: interfaces, rules, routes.
std::vector<bool> stale_items(const dumps::State& state) {
    std::vector<bool> all;
    for (const auto& one : state.interfaces) {
        all.push_back(one.is_stale);
    }
    for (const auto& one : state.rules) {
        all.push_back(one.is_stale);
    }
    for (const auto& one : state.routes) {
        all.push_back(one.is_stale);
    }
    return all;
}

const std::vector<bool> none(6, false);
const std::vector<bool> everything(6, true);
const std::vector<bool> only_ipv6{false, true, false, true, false, true};

TEST(Freshness, of_dumps_at_the_limit_is_kept) {
    dumps::State state = two_families();
    dumps::judge_freshness(state, written + milliseconds(15'999), std::nullopt);
    EXPECT_FALSE(dumps::has_stale(state));
    EXPECT_EQ(dumps::stale_lines(state), "");
    EXPECT_EQ(stale_items(state), none);
}

TEST(Freshness, ends_beyond_the_limit) {
    dumps::State state = two_families();
    dumps::judge_freshness(state, written + seconds(16), std::nullopt);
    EXPECT_TRUE(dumps::has_stale(state));
    EXPECT_EQ(stale_items(state), everything);
    EXPECT_EQ(dumps::stale_lines(state),
              "STALE: ipv4 written 16 s ago, at 2026-11-21T14:10:05Z: is the daemon running? "
              "(systemctl status lb)\n"
              "STALE: ipv6 written 16 s ago, at 2026-11-21T14:10:05Z: is the daemon running? "
              "(systemctl status lb)\n");
}

TEST(Freshness, lasts_as_long_as_the_operator_says) {
    dumps::State state = two_families();
    dumps::judge_freshness(state, written + seconds(16), 16);
    EXPECT_FALSE(dumps::has_stale(state));
    dumps::judge_freshness(state, written + seconds(3), 2);
    EXPECT_TRUE(dumps::has_stale(state));
}

TEST(Freshness, of_a_family_that_is_configured_no_more_ends_alone_and_says_what_to_remove) {
    dumps::State state = two_families();
    state.files[1].written = written - seconds(300);
    dumps::judge_freshness(state, written + seconds(1), std::nullopt);
    EXPECT_EQ(stale_items(state), only_ipv6);
    EXPECT_EQ(dumps::stale_lines(state),
              "STALE: ipv6 written 301 s ago, at 2026-11-21T14:05:05Z: nothing writes "
              "/run/load-balance/wlb_dump/wlb_ipv6_outbounds.bin any more; where this family is no "
              "longer configured: rm /run/load-balance/wlb_dump/wlb_ipv6_outbounds.bin\n");
}

TEST(Freshness, lasts_a_minute_where_an_extended_ping_may_hold_the_cycle) {
    dumps::State state = two_families();
    state.interfaces[0].probes.push_back({.quality = dumps::Quality{}});
    dumps::judge_freshness(state, written + seconds(60), std::nullopt);
    EXPECT_EQ(stale_items(state), only_ipv6);
    dumps::judge_freshness(state, written + seconds(61), std::nullopt);
    EXPECT_EQ(stale_items(state), everything);
    dumps::State strict = two_families();
    strict.interfaces[0].probes.push_back({.quality = dumps::Quality{}});
    dumps::judge_freshness(strict, written + seconds(16), 15);
    EXPECT_EQ(stale_items(strict), everything) << "what the operator says counts";
}

TEST(Freshness, is_not_had_by_files_from_the_future) {
    dumps::State state = two_families();
    dumps::judge_freshness(state, written - seconds(1), std::nullopt);
    EXPECT_FALSE(dumps::has_stale(state)) << "clocks tick coarsely";
    dumps::judge_freshness(state, written - seconds(2), std::nullopt);
    EXPECT_EQ(stale_items(state), everything);
    EXPECT_TRUE(dumps::stale_lines(state).starts_with(
        "STALE: ipv4 written 2 s in the future, at 2026-11-21T14:10:05Z: the clock was set back "
        "since; is the daemon running? (systemctl status lb)\n"))
        << dumps::stale_lines(state);
}

TEST(Freshness, is_the_oldest_files_of_those_that_tell_of_a_family) {
    dumps::State state = two_families();
    state.files[2].written = written - seconds(20);
    dumps::judge_freshness(state, written, std::nullopt);
    EXPECT_EQ(stale_items(state), everything);
    EXPECT_EQ(state.families.at(0).oldest.name, "wlb_rules.bin");
    EXPECT_EQ(state.families.at(0).age_s, 20);
}

TEST(Freshness, of_one_file_from_the_future_does_not_hide_behind_an_old_one) {
    dumps::State state = two_families();
    state.files[2].written = written + seconds(900);
    dumps::judge_freshness(state, written, std::nullopt);
    EXPECT_EQ(stale_items(state), everything);
    EXPECT_EQ(state.families.at(0).age_s, -900);
}

TEST(Freshness, of_rules_whose_family_has_no_dump_is_that_of_the_rules) {
    dumps::State state = two_families();
    state.files.erase(state.files.begin() + 1);
    state.interfaces.pop_back();
    dumps::judge_freshness(state, written, std::nullopt);
    EXPECT_EQ(state.families.size(), 1U);
    EXPECT_FALSE(state.rules[1].is_stale);
    dumps::judge_freshness(state, written + seconds(16), std::nullopt);
    EXPECT_TRUE(state.rules[1].is_stale);
    EXPECT_TRUE(state.routes[1].is_stale);
}

TEST(Freshness, ends_for_an_interface_that_its_worker_judges_no_more) {
    dumps::State state = two_families();
    state.interfaces[0].namespace_name = "blue";
    state.interfaces[0].since_success_s = 16;
    state.interfaces[0].since_failure_s = 400;
    dumps::judge_freshness(state, written + seconds(1), std::nullopt);
    EXPECT_EQ(stale_items(state), (std::vector<bool>{true, false, false, false, false, false}));
    EXPECT_TRUE(dumps::has_stale(state));
    EXPECT_EQ(dumps::stale_lines(state),
              "STALE: eth0 (ipv4, namespace blue) judged 16 s ago: its worker stands still "
              "(systemctl restart lb)\n");
}

TEST(Freshness, is_not_lent_by_a_date_that_a_clock_set_back_left_in_the_future) {
    dumps::State state = two_families();
    state.interfaces[0].since_success_s = 16;
    state.interfaces[0].since_failure_s = -5000;
    dumps::judge_freshness(state, written + seconds(1), std::nullopt);
    EXPECT_TRUE(state.interfaces[0].is_stale);
    // Just after the step its own state has such a date, up to the next judgement.
    state.interfaces[0].since_success_s = -5000;
    state.interfaces[0].since_failure_s = 400;
    dumps::judge_freshness(state, written + seconds(1), std::nullopt);
    EXPECT_FALSE(state.interfaces[0].is_stale);
}

TEST(Freshness, of_an_interface_that_was_never_judged_is_its_familys) {
    dumps::State state = two_families();
    state.interfaces[0].is_active = false;
    state.interfaces[0].since_success_s.reset();
    dumps::judge_freshness(state, written + seconds(1), std::nullopt);
    EXPECT_EQ(stale_items(state), none);
}

TEST(Freshness, makes_ages_within_the_dump_count_to_now) {
    dumps::State state = two_families();
    state.interfaces[0].since_success_s = 3;
    state.interfaces[1].since_success_s = 0x7fffffff;
    dumps::judge_freshness(state, written + seconds(100), std::nullopt);
    EXPECT_EQ(state.interfaces[0].since_success_s, 103);
    EXPECT_EQ(state.interfaces[1].since_success_s, 0x7fffffff);
    EXPECT_EQ(state.interfaces[0].since_failure_s, std::nullopt);
}

TEST(Freshness, is_what_the_default_views_show) {
    dumps::State state = two_families();
    state.files[1].written = written - seconds(300);
    dumps::judge_freshness(state, written, std::nullopt);
    dumps::leave_out_stale(state);
    ASSERT_EQ(state.interfaces.size(), 1U);
    EXPECT_EQ(state.interfaces[0].family, 4);
    EXPECT_EQ(state.rules.size(), 1U);
    EXPECT_EQ(state.routes.size(), 1U);
    EXPECT_EQ(state.left_out.interfaces, 1U);
}

TEST(UtcText, is_rfc_3339) {
    EXPECT_EQ(dumps::utc_text(written + milliseconds(999)), "2026-11-21T14:10:05Z");
    EXPECT_EQ(dumps::utc_text(dumps::Time{}), "1970-01-01T00:00:00Z");
}

}  // namespace

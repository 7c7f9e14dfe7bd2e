// What Prometheus is given, against the names and units that its rules and dashboards ask for.

#include <gtest/gtest.h>

#include <string>

#include "lbwatch/board.h"
#include "lbwatch/metrics.h"

namespace {

using namespace lbwatch;

/// The samples alone, without help and types.
std::string samples_of(const View& view, const Moment& now) {
    std::string samples;
    const std::string text = metrics_of(view, "1.2", now);
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at);
        if (text[at] != '#') {
            samples += text.substr(at, end - at + 1);
        }
        at = end + 1;
    }
    return samples;
}

View one_uplink() {
    View view;
    view.daemon = DaemonState::running;
    view.last_written_boot_ms = 10'000;
    Uplink& uplink = view.uplinks[{.namespace_name = "blue", .family = 6, .name = "gi1_1"}];
    uplink.state = UplinkState::failed;
    uplink.to_active = 3;
    uplink.to_failed = 4;
    uplink.down_ms = 61'500;
    Target& target = uplink.targets["2001:db8::1"];
    target.answered = 100;
    target.missed = 7;
    target.quality = {.loss_percent = 20,
                      .rtt_ms = 150,
                      .jitter_ms = 30,
                      .loss_limit = 50,
                      .rtt_limit = 800,
                      .jitter_limit = 90};
    RuleRoutes& rule = view.rules[{.namespace_name = "blue", .name = "1_ipv6"}];
    rule.members = {{.namespace_name = "blue", .family = 6, .name = "gi1_1"},
                    {.namespace_name = "blue", .family = 6, .name = "gi1_2"}};
    return view;
}

TEST(Metrics, of_an_uplink_have_its_labels_and_base_units) {
    const std::string uplink = R"({uplink="gi1_1",family="ipv6",namespace="blue")";
    const std::string target = uplink + R"(,target="2001:db8::1"} )";
    EXPECT_EQ(samples_of(one_uplink(), {.wall_ms = 0, .boot_ms = 12'500}),
              "lb_build_info{version=\"1.2\"} 1\n"
              "lb_up 1\n"
              "lb_dump_age_seconds 2.5\n"
              "lb_uplink_state" +
                  uplink +
                  ",state=\"active\"} 0\n"
                  "lb_uplink_state" +
                  uplink +
                  ",state=\"failed\"} 1\n"
                  "lb_uplink_state" +
                  uplink +
                  ",state=\"unknown\"} 0\n"
                  "lb_uplink_routed" +
                  uplink +
                  "} 0\n"
                  "lb_uplink_transitions_total" +
                  uplink +
                  ",to=\"active\"} 3\n"
                  "lb_uplink_transitions_total" +
                  uplink +
                  ",to=\"failed\"} 4\n"
                  "lb_uplink_down_seconds_total" +
                  uplink +
                  "} 61.5\n"
                  "lb_probe_answered_total" +
                  target +
                  "100\n"
                  "lb_probe_missed_total" +
                  target +
                  "7\n"
                  "lb_quality_loss_ratio" +
                  target +
                  "0.2\n"
                  "lb_quality_rtt_seconds" +
                  target +
                  "0.15\n"
                  "lb_quality_jitter_seconds" +
                  target +
                  "0.03\n"
                  "lb_quality_loss_limit_ratio" +
                  target +
                  "0.5\n"
                  "lb_quality_rtt_limit_seconds" +
                  target +
                  "0.8\n"
                  "lb_quality_jitter_limit_seconds" +
                  target +
                  "0.09\n"
                  "lb_rule_uplinks{rule=\"1_ipv6\",namespace=\"blue\"} 2\n"
                  "lb_rule_uplinks_active{rule=\"1_ipv6\",namespace=\"blue\"} 0\n"
                  "lb_rule_uplinks_failed{rule=\"1_ipv6\",namespace=\"blue\"} 1\n");
}

TEST(Metrics, count_the_active_uplinks_of_a_rule) {
    View view = one_uplink();
    Uplink& uplink = view.uplinks.begin()->second;
    uplink.state = UplinkState::active;
    uplink.is_routed = true;
    const std::string samples = samples_of(view, {.wall_ms = 0, .boot_ms = 10'000});
    EXPECT_NE(
        samples.find("lb_uplink_routed{uplink=\"gi1_1\",family=\"ipv6\",namespace=\"blue\"} 1\n"),
        std::string::npos);
    EXPECT_NE(samples.find("lb_rule_uplinks_active{rule=\"1_ipv6\",namespace=\"blue\"} 1\n"),
              std::string::npos);
}

TEST(Metrics, of_a_daemon_that_was_never_seen_are_not_made_up) {
    EXPECT_EQ(samples_of(View{}, {.wall_ms = 0, .boot_ms = 10'000}),
              "lb_build_info{version=\"1.2\"} 1\nlb_up 0\n");
}

TEST(Metrics, tell_whether_the_history_is_written) {
    View view;
    view.history = "/var/lib/lb/history.db";
    EXPECT_EQ(samples_of(view, {.wall_ms = 0, .boot_ms = 0}),
              "lb_build_info{version=\"1.2\"} 1\nlb_up 0\nlb_history_written 1\n"
              "lb_history_waiting_rows 0\nlb_history_lost_rows_total 0\n");
    view.history_state = {.problem = "full", .waiting_rows = 12, .lost_rows = 3};
    EXPECT_EQ(samples_of(view, {.wall_ms = 0, .boot_ms = 0}),
              "lb_build_info{version=\"1.2\"} 1\nlb_up 0\nlb_history_written 0\n"
              "lb_history_waiting_rows 12\nlb_history_lost_rows_total 3\n");
}

TEST(Metrics, of_a_watcher_that_stands_still_are_unknown_and_not_the_last_ones) {
    Board board;
    View view = one_uplink();
    view.uplinks.begin()->second.state = UplinkState::active;
    board.publish(view, {.wall_ms = 0, .boot_ms = 10'000});
    board.confirm({.wall_ms = 0, .boot_ms = 20'000});
    const auto says = [&board](const char* sample, std::int64_t boot_ms) {
        const Moment now{.wall_ms = 0, .boot_ms = boot_ms};
        return samples_of(*board.view(now), now).find(sample) != std::string::npos;
    };
    EXPECT_TRUE(says("lb_up 1\n", 50'000));
    EXPECT_TRUE(says("state=\"active\"} 1\n", 50'000));
    EXPECT_TRUE(says("lb_up 0\n", 50'001));
    EXPECT_TRUE(says("state=\"active\"} 0\n", 50'001));
    EXPECT_TRUE(says("state=\"unknown\"} 1\n", 50'001));
    board.confirm({.wall_ms = 0, .boot_ms = 60'000});
    EXPECT_TRUE(says("lb_up 1\n", 60'001));
}

}  // namespace

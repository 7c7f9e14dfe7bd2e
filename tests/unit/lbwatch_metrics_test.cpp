// What Prometheus is given, against the names and units that its rules and dashboards ask for.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "lbwatch/board.h"
#include "lbwatch/metrics.h"
#include "lbwatch/routers.h"

namespace {

using namespace lbwatch;

/// The samples alone, without help and types.
std::string samples_of(const View& view, const Moment& now) {
    std::string samples;
    const std::string text = metrics_of(view, {}, "1.2", now);
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

TEST(Metrics, tell_whether_each_routing_daemon_runs) {
    const std::string text =
        metrics_of(View{},
                   {{.namespace_name = "", .family = 4, .is_running = true},
                    {.namespace_name = "blue", .family = 6, .is_running = false}},
                   "1.2", {.wall_ms = 0, .boot_ms = 10'000});
    EXPECT_NE(text.find("lb_router_up{family=\"ipv4\",namespace=\"\"} 1\n"
                        "lb_router_up{family=\"ipv6\",namespace=\"blue\"} 0\n"),
              std::string::npos)
        << text;
}

/// A root with the files of process numbers.
class Routers : public testing::Test {
  protected:
    Routers() : root_(testing::TempDir() + "routers" + std::to_string(getpid())) {
        join("1_ipv4", {"", 4, "gi1_1"});
        join("1_ipv4", {"", 4, "gi1_2"});
    }
    ~Routers() override { std::filesystem::remove_all(root_); }

    void join(const char* rule, const UplinkKey& uplink) {
        rules_[{.namespace_name = uplink.namespace_name, .name = rule}].members.push_back(uplink);
        uplinks_[uplink] = {};
    }
    void write(const std::string& path, const std::string& text) {
        const std::filesystem::path file = root_ + path;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << text;
    }
    std::vector<Router> found() const { return find_routers(rules_, uplinks_, root_); }

    std::string root_;
    World::Rules rules_;
    World::Uplinks uplinks_;
};

TEST_F(Routers, are_those_that_the_files_of_process_numbers_name) {
    join("1_ipv6", {"blue", 6, "gi1_1"});
    write("/var/run/routing.pid", std::to_string(getpid()) + "\n");
    write("/var/run/routing6.pid", "1\n");  // no rule has that family there
    EXPECT_EQ(found(), (std::vector<Router>{{"", 4, true}, {"blue", 6, false}}));
    write("/var/vrfs/blue/usr/var/run/routing6.pid", std::to_string(getpid()) + "\n");
    EXPECT_EQ(found(), (std::vector<Router>{{"", 4, true}, {"blue", 6, true}}));
}

TEST_F(Routers, are_asked_for_only_where_a_rule_has_an_uplink_that_there_is) {
    rules_[{.namespace_name = "", .name = "1_ipv6"}].members = {{"", 6, "gi1_9"}};
    uplinks_[{"red", 4, "gi1_3"}] = {};
    EXPECT_EQ(found(), (std::vector<Router>{{"", 4, false}}));
}

TEST_F(Routers, do_not_run_where_the_file_names_no_process) {
    for (const char* text : {"", "lbroute\n", "0\n", "-1\n", "4194305\n"}) {
        write("/var/run/routing.pid", text);
        EXPECT_EQ(found(), (std::vector<Router>{{"", 4, false}})) << text;
    }
}

TEST_F(Routers, are_not_made_up_where_the_file_cannot_be_read) {
    std::filesystem::create_directories(root_ + "/var/run/routing.pid");
    EXPECT_EQ(found(), std::vector<Router>{});
}

}  // namespace

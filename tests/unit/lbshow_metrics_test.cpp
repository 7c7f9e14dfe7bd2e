#include <gtest/gtest.h>

#include "dumps/freshness.h"
#include "lbshow/views.h"
#include "unit/support/given_dumps.h"

namespace {

using given::judged;

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(MetricsText, is_grouped_by_metric_with_escaped_labels) {
    dumps::State one = judged();
    one.interfaces[0].name = "a\"\\";
    const std::string text = lbshow::metrics(one, "1.2.3");
    EXPECT_TRUE(
        has(text,
            "# HELP lb_interface_active 1 when the interface is healthy, that is, enough of "
            "its probes are answered\n"
            "# TYPE lb_interface_active gauge\n"
            "lb_interface_active{interface=\"a\\\"\\\\\",family=\"ipv4\",namespace=\"blue\"} 1\n"))
        << text;
    EXPECT_TRUE(has(
        text, "lb_route_chosen{rule=\"12_ipv4\",prefix=\"10.0.0.0/8\",nexthop=\"192.0.2.1\"} 1\n"));
    EXPECT_TRUE(has(text, "lb_build_info{version=\"1.2.3\"} 1\n"));
}

TEST(MetricsText, tells_probes_of_one_target_apart) {
    dumps::State one = judged();
    one.interfaces[0].probes[1].target = one.interfaces[0].probes[0].target;
    const std::string text = lbshow::metrics(one, "1");
    const std::string labels = "{interface=\"gi1_1\",family=\"ipv4\",namespace=\"blue\",";
    EXPECT_TRUE(has(text, "lb_probe_answered" + labels +
                              "probe=\"1\",type=\"ping\",target=\"198.51.100.1\"} 1\n"))
        << text;
    EXPECT_TRUE(has(text, "lb_probe_answered" + labels +
                              "probe=\"2\",type=\"ping_ext\",target=\"198.51.100.1\"} 0\n"));
}

TEST(MetricsText, measures_in_base_units) {
    dumps::State one = judged();
    one.interfaces[0].probes[1].quality->rtt_ms = -7;
    const std::string text = lbshow::metrics(one, "1");
    EXPECT_TRUE(has(text, "target=\"198.51.100.2\"} 0.896\n")) << text;
    EXPECT_TRUE(has(text, "target=\"198.51.100.2\"} 0.10\n"));
    EXPECT_TRUE(has(text, "target=\"198.51.100.2\"} -0.007\n"));
}

TEST(MetricsText, never_holds_a_series_twice) {
    dumps::State twice = judged();
    twice.interfaces.push_back(twice.interfaces[0]);
    EXPECT_EQ(lbshow::metrics(twice, "1"), lbshow::metrics(judged(), "1"));
}

TEST(MetricsText, of_a_fresh_family_says_that_it_is_up) {
    const std::string text = lbshow::metrics(judged(3), "1");
    EXPECT_TRUE(has(text, "lb_up{family=\"ipv4\"} 1\n")) << text;
    EXPECT_TRUE(has(text, "lb_dump_age_seconds{family=\"ipv4\"} 3\n"));
    EXPECT_FALSE(has(text, "family=\"ipv6\"} 0\n"));
}

TEST(MetricsText, of_a_stale_family_is_left_out_but_that_it_is_down_and_how_old) {
    dumps::State dead = judged(61);
    dumps::leave_out_stale(dead);
    EXPECT_EQ(lbshow::metrics(dead, "1"),
              "# HELP lb_build_info 1, with the version of the programs\n"
              "# TYPE lb_build_info gauge\n"
              "lb_build_info{version=\"1\"} 1\n"
              "# HELP lb_dump_age_seconds age of the oldest dump that tells of the family\n"
              "# TYPE lb_dump_age_seconds gauge\n"
              "lb_dump_age_seconds{family=\"ipv4\"} 61\n"
              "# HELP lb_up 1 when the daemon writes the family's dumps, 0 when they are stale\n"
              "# TYPE lb_up gauge\n"
              "lb_up{family=\"ipv4\"} 0\n");
}

TEST(MetricsText, of_an_interface_whose_worker_stands_still_is_left_out_but_that) {
    dumps::State hung = given::state();
    hung.interfaces[0].since_success_s = 61;
    dumps::judge_freshness(hung, given::written, std::nullopt);
    dumps::leave_out_stale(hung);
    const std::string labels = "{interface=\"gi1_1\",family=\"ipv4\",namespace=\"blue\"} ";
    const std::string text = lbshow::metrics(hung, "1");
    EXPECT_TRUE(has(text, "lb_interface_worker_stalled" + labels + "1\n")) << text;
    EXPECT_FALSE(has(text, "lb_interface_active{"));
    EXPECT_TRUE(
        has(lbshow::metrics(judged(), "1"), "lb_interface_worker_stalled" + labels + "0\n"));
}

TEST(MetricsText, tells_healthy_from_routed) {
    dumps::State unrouted = judged();
    unrouted.interfaces[0].is_routed = false;
    const std::string labels = "{interface=\"gi1_1\",family=\"ipv4\",namespace=\"blue\"} ";
    EXPECT_TRUE(has(lbshow::metrics(judged(), "1"), "lb_interface_routed" + labels + "1\n"));
    const std::string text = lbshow::metrics(unrouted, "1");
    EXPECT_TRUE(has(text, "lb_interface_active" + labels + "1\n")) << text;
    EXPECT_TRUE(has(text, "lb_interface_routed" + labels + "0\n"));
}

}  // namespace

// What `lbroute status` shows, against a kernel on a desk.

#include <gmock/gmock.h>

#include <cerrno>

#include "lbroute/findings.h"
#include "lbroute/report.h"
#include "lbroute/report_text.h"
#include "support/lbroute_scene.h"
#include <nlohmann/json.hpp>

namespace lbroute {

namespace {

using namespace scene;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

/// One route over gi1_1 (weight 1) and gi1_2 (weight 3), as `lines` say, beside a kernel that has
/// it as a group of 256 buckets.
class Reports : public ::testing::Test {
  protected:
    void SetUp() override {
        view.kernel = three_links();
        view.kernel.hops = {{1, address("192.0.2.1"), 11},
                            {2, address("192.0.2.1"), 11},
                            {3, address("198.51.100.1"), 12},
                            {4, address("198.51.100.1"), 12}};
        view.kernel.groups = {{.id = 9,
                               .entries = {{1, 1}, {2, 1}, {3, 3}, {4, 3}},
                               .is_resilient = true,
                               .buckets = 256}};
        KernelRoute route;
        route.prefix = prefix("0.0.0.0/0");
        route.group_id = 9;
        view.kernel.routes = {route};
    }

    ReportedRoute report(const std::string& lines) {
        const Fragment asked = fragment(lines);
        view.wanted.routes = plan_routes(asked, {.namespace_name = "",
                                                 .table = main_table,
                                                 .mode = Mode::sticky,
                                                 .uplinks = &uplinks,
                                                 .kernel = &view.kernel,
                                                 .held = &held,
                                                 .guesses = true});
        apply_refusals(daemon, "", view);
        const auto routes = reported_routes(view, daemon, "", [](std::uint32_t) {
            return std::vector<std::pair<std::uint32_t, int>>{{1, 40}, {2, 24}, {3, 100}, {4, 92}};
        });
        return routes.at(0);
    }

    Uplinks uplinks = three_uplinks();
    View view;
    HeldInterfaces held;
    DaemonRecord daemon;
};

constexpr const char* as_it_stands =
    "route 0.0.0.0/0 multipath via 192.0.2.1 weight 1 via 198.51.100.1 weight 3;\n";

TEST_F(Reports, route_that_is_as_asked_is_ok_with_its_shares) {
    const ReportedRoute route = report(as_it_stands);
    EXPECT_EQ(route.state, "ok");
    EXPECT_EQ(route.mode, "sticky");
    EXPECT_EQ(route.hops.at(0).buckets, 64);
    EXPECT_DOUBLE_EQ(route.hops[0].share_percent.value(), 25.0);
}

TEST_F(Reports, other_weights_differ) {
    EXPECT_EQ(report("route 0.0.0.0/0 multipath via 192.0.2.1 weight 1 via 198.51.100.1 weight "
                     "1;\n")
                  .state,
              "differs");
}

TEST_F(Reports, missing_and_leftover_next_hops_are_shown) {
    const ReportedRoute route =
        report("route 0.0.0.0/0 multipath via 192.0.2.1 weight 1 via 203.0.113.1 weight 3;\n");
    EXPECT_EQ(route.state, "differs");
    EXPECT_EQ(route.hops.at(1).state, "missing");
    EXPECT_EQ(route.hops.at(2).state, "leftover");
    EXPECT_EQ(route.hops[2].interface, "gi1_2");
}

TEST_F(Reports, refusal_that_the_program_was_given_is_shown) {
    daemon.refused_hops[{"", "203.0.113.1", "gi1_3"}] = "no way";
    const ReportedRoute route = report(
        "route 0.0.0.0/0 multipath via 192.0.2.1 weight 1 via 198.51.100.1 weight 3 via "
        "203.0.113.1 weight 3;\n");
    EXPECT_EQ(route.state, "differs");
    EXPECT_EQ(route.hops.at(2).state, "refused");
    EXPECT_EQ(route.hops[2].reason, "no way");
}

TEST_F(Reports, missing_route_is_shown_with_who_has_its_place) {
    KernelRoute other;
    other.prefix = prefix("10.0.0.0/8");
    other.protocol = 4;
    other.hops = {{address("192.0.2.9"), 11, 1, false}};
    view.foreign = {other};
    const ReportedRoute route = report("route 10.0.0.0/8 multipath via 192.0.2.1 weight 1;\n");
    EXPECT_EQ(route.state, "missing");
    EXPECT_EQ(route.in_place,
              "ip route del 10.0.0.0/8 metric 0 protocol static via 192.0.2.9 dev gi1_1");
}

TEST_F(Reports, shadowed_route_does_not_agree) {
    view.kernel.routes[0].priority = 50;
    KernelRoute other;
    other.prefix = prefix("0.0.0.0/0");
    other.protocol = 16;
    other.priority = 7;
    view.foreign = {other};
    const ReportedRoute route = report(
        "route 0.0.0.0/0 multipath via 192.0.2.1 weight 1 via 198.51.100.1 weight 3 metric 50;\n");
    EXPECT_EQ(route.state, "shadowed");
    EXPECT_THAT(route.shadowed_by, ElementsAre("ip route del default metric 7 protocol dhcp"));
}

TEST_F(Reports, route_of_others_beside_ours_of_the_same_metric_is_told) {
    KernelRoute other;
    other.prefix = prefix("0.0.0.0/0");
    other.protocol = 9;
    view.foreign = {other};
    const ReportedRoute route = report(as_it_stands);
    const std::string command = "ip route del default metric 0 protocol ra";
    EXPECT_EQ(route.state, "shadowed");
    EXPECT_EQ(route.in_place, "");
    EXPECT_THAT(route.shadowed_by, ElementsAre(command));
    const auto problems = problems_of(view, "");
    ASSERT_EQ(problems.size(), 1U);
    EXPECT_EQ(problems.begin()->first,
              "IPv4 0.0.0.0/0 is shadowed by a route of others with the same metric, which ends "
              "with: " +
                  command);
}

TEST_F(Reports, small_weight_that_was_raised_for_its_buckets_is_as_asked) {
    constexpr const char* asked =
        "route 0.0.0.0/0 multipath via 192.0.2.1 weight 1 via 198.51.100.1 weight 2000;\n";
    // One of 256 buckets in 257 would be none.
    view.kernel.groups[0].entries = {{1, 2}, {2, 2}, {3, 256}, {4, 256}};
    EXPECT_EQ(report(asked).state, "ok");
    view.kernel.groups[0].entries = {{1, 1}, {2, 1}, {3, 256}, {4, 256}};
    EXPECT_EQ(report(asked).state, "differs");
}

TEST_F(Reports, plain_route_is_compared_by_its_weights) {
    view.kernel.routes[0].group_id = 0;
    view.kernel.routes[0].hops = {{address("192.0.2.1"), 11, 2, false},
                                  {address("198.51.100.1"), 12, 6, false}};
    const ReportedRoute route = report(as_it_stands);
    EXPECT_EQ(route.state, "ok");
    EXPECT_EQ(route.mode, "plain");
    EXPECT_EQ(route.hops.at(0).buckets, std::nullopt);
    EXPECT_DOUBLE_EQ(route.hops.at(1).share_percent.value(), 75.0);
    view.kernel.routes[0].hops[1].weight = 5;
    EXPECT_EQ(report(as_it_stands).state, "differs");
}

TEST_F(Reports, group_without_buckets_has_shares_by_weight) {
    view.kernel.groups[0].is_resilient = false;
    const ReportedRoute route = report(as_it_stands);
    EXPECT_EQ(route.mode, "group");
    EXPECT_EQ(route.state, "ok");
    EXPECT_EQ(route.hops.at(1).buckets, std::nullopt);
    EXPECT_DOUBLE_EQ(route.hops.at(1).share_percent.value(), 75.0);
}

TEST_F(Reports, next_hop_that_is_held_is_not_missing) {
    held = {{"gi1_2", false}};
    const ReportedRoute route = report(as_it_stands);
    EXPECT_EQ(route.state, "differs") << "it stands in the kernel still";
    EXPECT_EQ(route.hops.at(1).state, "held");
    EXPECT_EQ(route.hops.size(), 2U);
}

TEST_F(Reports, next_hop_without_an_interface_keeps_the_route_from_being_as_asked) {
    view.kernel.links.pop_back();
    const ReportedRoute route = report(
        "route 0.0.0.0/0 multipath via 192.0.2.1 weight 1 via 198.51.100.1 weight 3 via "
        "203.0.113.1 weight 3;\n");
    EXPECT_EQ(route.hops.at(2).state, "no interface");
    EXPECT_EQ(route.hops.at(2).reason, "there is no interface gi1_3");
    EXPECT_EQ(route.hops.at(2).share_percent, std::nullopt);
    EXPECT_EQ(route.state, "differs");
}

TEST_F(Reports, route_that_nobody_asks_for_is_left_over) {
    report("");
    const auto routes = reported_routes(view, daemon, "", [](std::uint32_t group) {
        EXPECT_EQ(group, 9U);
        return std::vector<std::pair<std::uint32_t, int>>{{1, 64}, {77, 1}};
    });
    ASSERT_EQ(routes.size(), 1U);
    EXPECT_EQ(routes[0].state, "leftover");
    EXPECT_EQ(routes[0].prefix, "0.0.0.0/0");
    EXPECT_EQ(routes[0].mode, "sticky");
    ASSERT_EQ(routes[0].hops.size(), 2U);
    EXPECT_EQ(routes[0].hops[0].state, "leftover");
    EXPECT_EQ(routes[0].hops[0].buckets, 64);
    EXPECT_EQ(routes[0].hops[1].buckets, 0);
    EXPECT_FALSE(routes[0].agrees());
}

TEST_F(Reports, refused_route_has_the_kernels_reason_where_it_differs) {
    daemon.refused_routes[{"", "0.0.0.0/0"}] = "taken";
    daemon.refused_routes[{"blue", "0.0.0.0/0"}] = "of another namespace";
    EXPECT_EQ(report(as_it_stands).refusal, "");
    view.kernel.routes.clear();
    const ReportedRoute route = report(as_it_stands);
    EXPECT_EQ(route.state, "missing");
    EXPECT_EQ(route.mode, "");
    EXPECT_EQ(route.refusal, "taken");
    EXPECT_EQ(route.hops.at(0).state, "missing");
}

TEST(KernelReport, tells_in_words_whether_the_kernel_agrees) {
    Report report;
    report.namespaces.emplace_back();
    EXPECT_THAT(report_text(report), HasSubstr("There is no fragment"));
    EXPECT_FALSE(report.agrees());
    report.namespaces[0].fragments.push_back({"/usr/etc/routing-wlb.conf", "read", {}});
    EXPECT_THAT(report_text(report), HasSubstr("The kernel routes as the fragments ask.\n"));
    report.namespaces[0].problem = "there is no namespace blue";
    EXPECT_THAT(report_text(report), HasSubstr("not looked at: there is no namespace blue\n"));
    EXPECT_FALSE(report.agrees());
    EXPECT_THAT(report_json(report), HasSubstr("\"agrees\": false"));
}

/// A report with one of everything.
Report whole_report() {
    Report report;
    report.daemon.pid = 812;
    report.is_running = true;
    report.now_ms = 1'000'000;
    report.problems = {"/etc/lb.conf cannot be read"};
    report.holds = {{.namespace_name = "",
                     .interface = "gi1_3",
                     .family = Family::ipv4,
                     .until_ms = {},
                     .is_forced = false},
                    {.namespace_name = "blue",
                     .interface = "gi1_4",
                     .family = Family::ipv6,
                     .until_ms = 1'090'000,
                     .is_forced = true}};
    ReportedNamespace& one = report.namespaces.emplace_back();
    one.name = "blue";
    one.fragments = {{"/etc/a", "read", {"/etc/a, line 3: no"}}, {"/etc/b", "missing", {}}};
    ReportedRoute& route = one.routes.emplace_back();
    route.prefix = "10.0.0.0/8";
    route.metric = 20;
    route.table = 100;
    route.state = "differs";
    route.mode = "sticky";
    route.refusal = "no way";
    route.in_place = "ip route del one";
    route.shadowed_by = {"ip route del two", "ip route del three"};
    route.hops = {{.gateway = "192.0.2.1",
                   .interface = "gi1_1",
                   .weight = 1,
                   .state = "routed",
                   .reason = "",
                   .buckets = 64,
                   .share_percent = 25.04},
                  {.gateway = "198.51.100.1",
                   .interface = "",
                   .weight = 30,
                   .state = "no interface",
                   .reason = "it is gone",
                   .buckets = {},
                   .share_percent = {}}};
    return report;
}

TEST(KernelReport, shows_everything_in_columns) {
    EXPECT_EQ(report_text(whole_report()),
              "lbroute runs as process 812\n"
              "/etc/lb.conf cannot be read\n"
              "held: gi1_3 IPv4 until it is released\n"
              "held: gi1_4 IPv6 in namespace blue for 1m 30s, also as the last next hop\n"
              "namespace blue\n"
              "/etc/a, line 3: no\n"
              "/etc/b: missing\n"
              "IPv4 10.0.0.0/8  metric 20  differs  sticky\n"
              "    via 192.0.2.1     dev gi1_1  weight 1   25.0 %  64 buckets  routed\n"
              "    via 198.51.100.1  dev -      weight 30  -                   no interface: it is "
              "gone\n"
              "    refused: no way\n"
              "    in its place stands a route of others, which ends with: ip route del one\n"
              "    shadowed by a route of others with a lower metric or the same, which ends with: "
              "ip route "
              "del two\n"
              "    shadowed by a route of others with a lower metric or the same, which ends with: "
              "ip route "
              "del three\n"
              "The kernel does not route as the fragments ask.\n");
}

TEST(KernelReport, has_the_same_for_programs) {
    const auto read = nlohmann::json::parse(report_json(whole_report()));
    const auto expected = nlohmann::json::parse(R"({
        "running": true, "pid": 812, "bird2_file": "", "agrees": false, "others": [],
        "problems": ["/etc/lb.conf cannot be read"],
        "holds": [
            {"interface": "gi1_3", "family": 4, "namespace": "", "forced": false,
             "seconds_left": null},
            {"interface": "gi1_4", "family": 6, "namespace": "blue", "forced": true,
             "seconds_left": 90}],
        "namespaces": [{
            "name": "blue", "agrees": false, "problem": "", "not_served": "",
            "fragments": [
                {"path": "/etc/a", "state": "read", "problems": ["/etc/a, line 3: no"]},
                {"path": "/etc/b", "state": "missing", "problems": []}],
            "routes": [{
                "prefix": "10.0.0.0/8", "family": 4, "metric": 20, "table": 100,
                "state": "differs", "mode": "sticky", "refusal": "no way",
                "in_place": "ip route del one",
                "shadowed_by": ["ip route del two", "ip route del three"],
                "hops": [
                    {"gateway": "192.0.2.1", "interface": "gi1_1", "weight": 1, "state": "routed",
                     "reason": "", "buckets": 64, "share_percent": 25.04},
                    {"gateway": "198.51.100.1", "interface": "", "weight": 30,
                     "state": "no interface", "reason": "it is gone", "buckets": null,
                     "share_percent": null}]}]}]})");
    EXPECT_EQ(read, expected) << read.dump(1);
}

TEST(KernelReport, of_a_program_that_does_not_run_names_no_process) {
    Report report = whole_report();
    report.is_running = false;
    report.daemon.bird2_file = "/etc/bird/lbroute.conf";
    EXPECT_TRUE(report_text(report).starts_with("lbroute does not run\n/etc/lb.conf"));
    const auto read = nlohmann::json::parse(report_json(report));
    EXPECT_TRUE(read["pid"].is_null());
    EXPECT_EQ(read["bird2_file"], "");
    EXPECT_EQ(read["running"], false);
}

TEST(KernelReport, says_what_bird_was_given_where_bird_writes_the_routes) {
    Report report = whole_report();
    report.daemon.bird2_file = "/etc/bird/lbroute.conf";
    std::string text = report_text(report);
    EXPECT_THAT(text, HasSubstr("bird writes the routes, by /etc/bird/lbroute.conf; what it made "
                                "of it: birdc show route protocol lbroute4 (and lbroute6)\n"));
    EXPECT_TRUE(text.ends_with("bird was not given what the fragments ask for.\n"));
    report.problems.clear();
    report.namespaces[0].fragments[0].problems.clear();
    report.namespaces[0].routes[0].state = "ok";
    text = report_text(report);
    EXPECT_TRUE(text.ends_with("bird was given what the fragments ask for.\n"));
}

TEST(KernelReport, agrees_only_where_nothing_is_amiss) {
    Report right = whole_report();
    right.problems.clear();
    right.namespaces[0].fragments[0].problems.clear();
    right.namespaces[0].routes[0].state = "ok";
    EXPECT_TRUE(right.agrees());
    Report report = right;
    report.problems = {"what"};
    EXPECT_FALSE(report.agrees());
    report = right;
    report.namespaces[0].fragments[0].problems = {"what"};
    EXPECT_FALSE(report.agrees());
    report = right;
    report.namespaces[0].fragments[0].state = "not whole or not readable";
    EXPECT_FALSE(report.agrees());
    report.namespaces[0].fragments[0].state = "missing";
    EXPECT_FALSE(report.agrees()) << "nothing is asked for";
    report.namespaces[0].fragments.push_back({"/etc/c", "read", {}});
    EXPECT_TRUE(report.agrees());
    report.namespaces.emplace_back().routes.emplace_back().state = "shadowed";
    EXPECT_FALSE(report.agrees());
}

TEST(KernelReport, namespace_that_is_not_served_is_no_agreement) {
    Report report;
    ReportedNamespace& blue = report.namespaces.emplace_back();
    blue.name = "blue";
    blue.not_served = "another has it";
    blue.fragments.push_back({"/usr/etc/routing-wlb.conf", "read", {}});
    EXPECT_THAT(report_text(report), HasSubstr("namespace blue\nnot served: another has it\n"));
    EXPECT_FALSE(report.agrees());
    EXPECT_THAT(report_json(report), HasSubstr("\"not_served\": \"another has it\""));
}

TEST(Findings, path_in_force_is_that_of_a_route_which_the_kernel_has) {
    PlannedRoute route;
    PlannedHop& hop = route.hops.emplace_back();
    hop.gateway = address("192.0.2.1");
    hop.interface = "gi1_1";
    EXPECT_EQ(path_text(route), "via 192.0.2.1 dev gi1_1 weight 1");
    route.refusal = place_is_taken;
    EXPECT_EQ(path_text(route), no_path);
}

TEST(SpanText, has_the_two_greatest_units) {
    EXPECT_EQ(span_text(90'000), "1m 30s");
    EXPECT_EQ(span_text(0), "0s");
    EXPECT_EQ(span_text(59'001), "1m");
    EXPECT_EQ(span_text(90'061'000), "1d 1h");
}

}  // namespace

}  // namespace lbroute

#include <gmock/gmock.h>

#include "config/lb_data_factory.h"
#include "lbroute/commands.h"
#include "lbroute/daemon_record.h"
#include "lbroute/findings.h"
#include "lbroute/report.h"
#include "lbroute/uplinks.h"
#include "support/lbroute_scene.h"

namespace lbroute {

namespace {

using namespace scene;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

LBData configuration() {
    LBData data;
    std::string name = "gi1_1";
    LBHealth one(name, false);
    one.nexthop = "192.0.2.1";
    data.health.emplace(name, one);
    name = "gi1_2";
    LBHealth two(name, false);
    two.nexthop = "dhcp";
    two.namespace_name = "blue";
    data.health.emplace(name, two);
    LBRule rule;
    rule.targets = {{"10.0.0.0/8", -1}, {"nonsense", 3}};
    rule.interfaces = {{{"gi1_1", false}, 2}, {{"gi1_3", false}, 0}, {{"gi1_1", true}, 1}};
    data.rules.emplace("1_ipv4", rule);
    return data;
}

TEST(Uplinks, are_those_of_the_configuration) {
    const Uplinks uplinks = uplinks_of(configuration());
    ASSERT_EQ(uplinks.uplinks.size(), 2U);
    EXPECT_EQ(uplinks.uplinks[0].next_hop, address("192.0.2.1"));
    EXPECT_EQ(uplinks.uplinks[1].next_hop, std::nullopt);
    EXPECT_TRUE(uplinks.uplinks[1].is_learning);
    EXPECT_THAT(uplinks.namespaces(), ElementsAre("", "blue"));
}

TEST(Uplinks, rules_have_members_of_one_family_and_none_of_weight_0) {
    const Uplinks uplinks = uplinks_of(configuration());
    ASSERT_EQ(uplinks.rules.size(), 2U);
    EXPECT_THAT(uplinks.rules[0].members, ElementsAre(Member{"gi1_1", 2}));
    EXPECT_THAT(uplinks.rules[0].targets, ElementsAre(prefix("10.0.0.0/8")));
    EXPECT_EQ(uplinks.rules[1].family, Family::ipv6);
}

TEST(Uplinks, dumps_tell_the_next_hop_in_force_and_who_is_active) {
    lbshow::Interface dumped;
    dumped.name = "gi1_2";
    dumped.family = 4;
    dumped.namespace_name = "blue";
    dumped.nexthop = "198.51.100.1";
    dumped.nexthop_from = "dhcp";
    dumped.is_active = true;
    const Uplinks uplinks = with_dumps(uplinks_of(configuration()), {dumped});
    const Uplink* found = uplinks.find("blue", Family::ipv4, "gi1_2");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->next_hop, address("198.51.100.1"));
    EXPECT_EQ(found->is_active, true);
    EXPECT_EQ(uplinks.find("", Family::ipv4, "gi1_1")->is_active, std::nullopt);
}

TEST(PrefixText, is_an_address_and_a_length_and_nothing_else) {
    EXPECT_EQ(prefix_of("10.1.2.3/8")->text(), "10.0.0.0/8");
    EXPECT_EQ(prefix_of("2001:db8::1/32")->text(), "2001:db8::/32");
    for (const char* wrong : {"", "10.0.0.0", "10.0.0.0/33", "10.0.0.0/8x", "x/8", "::/129", "/8",
                              "10.0.0.0/-1", "10.0.0.0/ 8"}) {
        EXPECT_FALSE(prefix_of(wrong)) << wrong;
    }
}

TEST(Commands, are_those_of_ip) {
    const KernelState kernel = three_links();
    KernelRoute route;
    route.prefix = prefix("0.0.0.0/0");
    route.group_id = 5;
    EXPECT_EQ(command_of(PutRoute{route, true}, kernel, ""),
              "ip route replace default metric 0 protocol 76 nhid 5");
    route.group_id = 0;
    route.prefix = prefix("2001:db8::/32");
    route.table = 7;
    route.hops = {{address("fe80::1"), 11, 2, false}, {address("fe80::1"), 12, 1, false}};
    EXPECT_EQ(command_of(PutRoute{route, false}, kernel, "blue"),
              "ip -n blue -6 route add 2001:db8::/32 table 7 metric 0 protocol 76 nexthop via "
              "fe80::1 dev gi1_1 weight 2 nexthop via fe80::1 dev gi1_2 weight 1");
    route.protocol = 16;
    route.hops.pop_back();
    EXPECT_EQ(removal_command(route, kernel, ""),
              "ip -6 route del 2001:db8::/32 table 7 metric 0 protocol dhcp via fe80::1 dev gi1_1");
    EXPECT_EQ(command_of(RemoveNextHop{5}, kernel, ""), "ip nexthop del id 5");
}

TEST(Commands, that_flush_are_those_that_have_something_to_take_away) {
    KernelState own;
    EXPECT_EQ(flush_commands(own, "blue"), "");
    own.hops = {{1, address("192.0.2.1"), 11}};
    own.routes.emplace_back().group_id = 1;
    EXPECT_EQ(flush_commands(own, "blue"), "ip -n blue nexthop flush protocol 76");
    own.hops.clear();
    own.routes = {KernelRoute{}, KernelRoute{}};
    own.routes[1].prefix = prefix("2001:db8::/32");
    EXPECT_EQ(flush_commands(own, ""),
              "ip route flush table all protocol 76; ip -6 route flush table all protocol 76");
}

TEST(DaemonRecord, is_read_as_it_was_written) {
    DaemonRecord record;
    record.pid = 12;
    record.start = "345";
    record.table = 100;
    record.is_sticky = false;
    record.refused_hops[{"blue", "192.0.2.1", "gi1_1"}] = "no \"way\"\xff";
    record.refused_routes[{"", "10.0.0.0/8"}] = "taken";
    record.not_served["blue"] = "no place";
    DaemonRecord read = parse_record(record_text(record));
    EXPECT_THAT(read.refused_hops.at({"blue", "192.0.2.1", "gi1_1"}), HasSubstr("no \"way\""));
    read.refused_hops = record.refused_hops;
    EXPECT_EQ(read, record);
}

TEST(DaemonRecord, that_is_none_counts_as_none) {
    for (const char* text : {"", "{", "[]", "{\"pid\":1}", "{\"pid\":\"x\"}", "null"}) {
        EXPECT_EQ(parse_record(text), DaemonRecord{}) << text;
    }
}

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

TEST(Findings, path_in_force_is_that_of_a_route_which_the_kernel_has) {
    PlannedRoute route;
    PlannedHop& hop = route.hops.emplace_back();
    hop.gateway = address("192.0.2.1");
    hop.interface = "gi1_1";
    EXPECT_EQ(path_text(route), "via 192.0.2.1 dev gi1_1 weight 1");
    route.refusal = place_is_taken;
    EXPECT_EQ(path_text(route), no_path);
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

TEST(SpanText, has_the_two_greatest_units) {
    EXPECT_EQ(span_text(90'000), "1m 30s");
    EXPECT_EQ(span_text(0), "0s");
    EXPECT_EQ(span_text(59'001), "1m");
    EXPECT_EQ(span_text(90'061'000), "1d 1h");
}

}  // namespace

}  // namespace lbroute

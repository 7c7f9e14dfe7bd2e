#include "decision/lb_decision.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <future>

#include "config/live_state.h"
#include "decision/route_text.h"
#include "unit/support/captured_log.h"
#include "unit/support/faults.h"
#include "unit/support/loaded.h"

namespace {

using Weights = LBDecision::Weights;

TEST(RouteText, line_has_head_clauses_and_metric) {
    EXPECT_EQ(
        route_line("10.8.0.0/16", via_clause("10.0.0.1", 1) + via_clause("192.168.1.1", 3), 20),
        "route 10.8.0.0/16 multipath via 10.0.0.1 weight 1 via 192.168.1.1 weight 3 metric 20;\n");
    EXPECT_EQ(route_line("0.0.0.0/0", via_clause("10.0.0.1", 1), -1),
              "route 0.0.0.0/0 multipath via 10.0.0.1 weight 1;\n");
}

TEST(RouteText, only_minus_1_is_no_metric) {
    EXPECT_EQ(route_line("0.0.0.0/0", "", 0), "route 0.0.0.0/0 multipath metric 0;\n");
    EXPECT_EQ(route_line("0.0.0.0/0", "", -2), "route 0.0.0.0/0 multipath metric -2;\n");
}

TEST(RouteText, only_the_ipv4_fragment_checks_links) {
    EXPECT_EQ(fragment_text("R", false), "protocol static {\ncheck link 1;\nR};\n");
    EXPECT_EQ(fragment_text("R", true), "protocol static {\nR};\n");
}

TEST(RouteText, files_lie_below_the_namespace) {
    EXPECT_EQ(fragment_path("", false), "/usr/etc/routing-wlb.conf");
    EXPECT_EQ(fragment_path("", true), "/usr/etc/routing6-wlb.conf");
    EXPECT_EQ(fragment_path("blue", false), "/var/vrfs/blue/usr/etc/routing-wlb.conf");
    EXPECT_EQ(pid_command("", false), "cat /var/run/routing.pid");
    EXPECT_EQ(pid_command("", true), "cat /var/run/routing6.pid");
    EXPECT_EQ(pid_command("blue", true), "cat /var/vrfs/blue/usr/var/run/routing6.pid");
}

struct Deciding : testing::Test {
    void interface(const std::string& name, const std::string& nexthop, bool is_active = true,
                   const std::string& nexthop_addr = "", bool ipv6 = false) {
        LBHealth& health = data.family(ipv6).try_emplace(name, name, ipv6).first->second;
        health.nexthop = nexthop;
        health.nexthop_addr = nexthop_addr;
        health.active = is_active;
    }
    LBRule& rule(const std::string& name, std::map<std::string, int> targets,
                 std::map<std::string, int> members) {
        LBRule& made = data.rules[name];
        made.targets = std::move(targets);
        for (const auto& [member, weight] : members) {
            made.interfaces[{member, false}] = weight;
        }
        return made;
    }
    /// The route text of a run; files, processes and shells are out of reach meanwhile.
    std::string run() {
        const faults::FailCall no_file(faults::Call::open, EACCES);
        const faults::FailCall no_shell(faults::Call::popen, EAGAIN);
        LBDecision().run(data, ctx);
        return data.last_routes4[""];
    }

    LBData data;
    TestContext ctx;
    CapturedLog log;
};

TEST_F(Deciding, shared_rule_routes_over_all_active_members) {
    interface("eth0", "dhcp", true, "10.0.0.1");
    interface("eth1", "192.168.1.1");
    rule("1_ipv4", {{"0.0.0.0/0", -1}, {"10.8.0.0/16", 20}}, {{"eth0", 1}, {"eth1", 3}});
    EXPECT_EQ(
        run(),
        "route 0.0.0.0/0 multipath via 10.0.0.1 weight 1 via 192.168.1.1 weight 3;\n"
        "route 10.8.0.0/16 multipath via 10.0.0.1 weight 1 via 192.168.1.1 weight 3 metric 20;\n");
    EXPECT_TRUE(data.rules.at("1_ipv4").chosen_nexthops.empty());
}

TEST_F(Deciding, failover_rule_routes_over_the_heaviest_and_remembers_it) {
    interface("eth0", "10.0.0.1");
    interface("eth1", "192.168.1.1");
    rule("1_ipv4", {{"0.0.0.0/0", -1}}, {{"eth0", 1}, {"eth1", 3}}).failover = 1;
    EXPECT_EQ(run(), "route 0.0.0.0/0 multipath via 192.168.1.1 weight 3;\n");
    EXPECT_EQ(data.rules.at("1_ipv4").chosen_nexthops,
              (std::map<std::string, std::string>{{"0.0.0.0/0", "192.168.1.1"}}));
}

TEST_F(Deciding, among_equals_the_first_name_wins) {
    interface("b", "10.0.0.2");
    interface("a", "10.0.0.1");
    rule("1_ipv4", {{"0.0.0.0/0", -1}}, {{"a", 5}, {"b", 5}}).failover = 1;
    EXPECT_EQ(run(), "route 0.0.0.0/0 multipath via 10.0.0.1 weight 5;\n");
}

TEST_F(Deciding, failover_moves_on_and_forgets_when_nothing_is_left) {
    interface("a", "10.0.0.1");
    interface("b", "10.0.0.2");
    rule("1_ipv4", {{"0.0.0.0/0", -1}}, {{"a", 5}, {"b", 1}}).failover = 1;
    run();
    data.health.at("a").active = false;
    EXPECT_EQ(run(), "route 0.0.0.0/0 multipath via 10.0.0.2 weight 1;\n");
    EXPECT_EQ(data.rules.at("1_ipv4").chosen_nexthops.at("0.0.0.0/0"), "10.0.0.2");
    data.health.at("b").active = false;
    EXPECT_EQ(run(), "");
    EXPECT_TRUE(data.rules.at("1_ipv4").chosen_nexthops.empty());
}

TEST_F(Deciding, member_without_weight_is_never_routed) {
    interface("a", "10.0.0.1");
    rule("1_ipv4", {{"0.0.0.0/0", -1}}, {{"a", 0}});
    EXPECT_EQ(run(), "");
}

TEST_F(Deciding, member_without_a_learnt_next_hop_is_left_out) {
    interface("a", "dhcp");
    interface("b", "tunnel");
    interface("c", "10.0.0.3");
    rule("1_ipv4", {{"0.0.0.0/0", -1}}, {{"a", 1}, {"b", 1}, {"c", 1}});
    EXPECT_EQ(run(), "route 0.0.0.0/0 multipath via 10.0.0.3 weight 1;\n");
}

TEST_F(Deciding, rules_and_interfaces_of_other_namespaces_contribute_nothing) {
    interface("a", "10.0.0.1");
    interface("b", "10.0.0.2");
    data.health.at("b").namespace_name = "blue";
    rule("1_ipv4", {{"0.0.0.0/0", -1}}, {{"a", 1}, {"b", 1}});
    LBRule& foreign = rule("2_ipv4", {{"10.0.0.0/8", -1}}, {{"a", 1}});
    foreign.namespace_name = "blue";
    foreign.chosen_nexthops["10.0.0.0/8"] = "kept";
    EXPECT_EQ(run(), "route 0.0.0.0/0 multipath via 10.0.0.1 weight 1;\n");
    EXPECT_EQ(foreign.chosen_nexthops.at("10.0.0.0/8"), "kept");
}

TEST_F(Deciding, members_of_the_other_family_and_unknown_ones_are_left_out) {
    interface("a", "2001:db8::1", true, "", true);
    rule("1_ipv4", {{"0.0.0.0/0", -1}}, {{"a", 1}, {"missing", 1}}).interfaces[{"a", true}] = 1;
    EXPECT_EQ(run(), "");
}

TEST_F(Deciding, siblings_choice_is_not_wiped) {
    LBRule& rule4 = rule("1_ipv4", {{"0.0.0.0/0", -1}}, {{"a", 1}});
    rule4.failover = 1;
    rule4.chosen_nexthops["0.0.0.0/0"] = "10.0.0.1";
    TestContext ctx6(true);
    LBDecision().run(data, ctx6);
    EXPECT_EQ(rule4.chosen_nexthops.at("0.0.0.0/0"), "10.0.0.1");
}

TEST_F(Deciding, unchanged_routes_touch_nothing) {
    interface("a", "10.0.0.1");
    rule("1_ipv4", {{"0.0.0.0/0", -1}}, {{"a", 1}});
    run();
    const faults::FailCall no_file(faults::Call::open, EACCES);
    const faults::FailCall no_shell(faults::Call::popen, EAGAIN);
    LBDecision().run(data, ctx);
    EXPECT_EQ(no_file.calls() + no_shell.calls(), 0);
}

TEST_F(Deciding, empty_routes_at_the_start_touch_nothing) {
    const faults::FailCall no_file(faults::Call::open, EACCES);
    LBDecision().run(data, ctx);
    EXPECT_EQ(no_file.calls(), 0);
}

TEST_F(Deciding, routing_daemon_that_cannot_be_asked_is_a_debug_line) {
    interface("a", "10.0.0.1");
    rule("1_ipv4", {{"0.0.0.0/0", -1}}, {{"a", 1}});
    run();
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{{7,
                                                  "LBDecision::run() can't execute "
                                                  "'cat /var/run/routing.pid'"}}));
}

TEST_F(Deciding, null_pointers_make_no_route) {
    interface("a", "10.0.0.1");
    LBRule& made = rule("1_ipv4", {{"0.0.0.0/0", -1}}, {{"a", 1}});
    std::string line;
    bool is_added = false;
    LBDecision decision;
    const Weights weights{{"a", 1}};
    decision.generate_route(data.health.begin(), nullptr, &is_added, data.rules.begin(), weights,
                            made.targets.begin(), ctx);
    decision.generate_route(data.health.begin(), &line, nullptr, data.rules.begin(), weights,
                            made.targets.begin(), ctx);
    EXPECT_EQ(line, "");
    EXPECT_FALSE(is_added);
}

TEST_F(Deciding, rule_without_targets_leaves_its_choices_alone) {
    interface("a", "10.0.0.1");
    LBRule& made = rule("1_ipv4", {}, {{"a", 1}});
    made.failover = 1;
    made.chosen_nexthops["10.0.0.0/8"] = "kept";
    EXPECT_EQ(run(), "");
    EXPECT_EQ(made.chosen_nexthops.at("10.0.0.0/8"), "kept");
}

TEST_F(Deciding, member_that_fails_is_left_out_from_then_on) {
    interface("a", "10.0.0.1");
    interface("b", "10.0.0.2");
    rule("1_ipv4", {{"0.0.0.0/0", -1}}, {{"a", 1}, {"b", 1}});
    run();
    data.health.at("a").active = false;
    EXPECT_EQ(run(), "route 0.0.0.0/0 multipath via 10.0.0.2 weight 1;\n");
}

TEST_F(Deciding, interface_that_carries_nothing_in_this_run_makes_no_route) {
    interface("a", "10.0.0.1");
    LBRule& made = rule("1_ipv4", {{"0.0.0.0/0", -1}}, {{"a", 1}, {"b", 1}});
    std::string line;
    bool is_added = false;
    LBDecision().generate_route(data.health.begin(), &line, &is_added, data.rules.begin(),
                                Weights{{"b", 1}}, made.targets.begin(), ctx);
    EXPECT_EQ(line, "");
    EXPECT_FALSE(is_added);
}

TEST_F(Deciding, choice_is_remembered_of_the_only_interface_left) {
    interface("a", "10.0.0.1");
    LBRule& made = rule("1_ipv4", {{"0.0.0.0/0", -1}}, {{"a", 1}, {"b", 1}});
    made.failover = 1;
    std::string line;
    bool is_added = false;
    const auto route_with = [&](const Weights& weights) {
        LBDecision().generate_route(data.health.begin(), &line, &is_added, data.rules.begin(),
                                    weights, made.targets.begin(), ctx);
    };
    route_with({{"a", 1}, {"b", 1}});
    EXPECT_TRUE(made.chosen_nexthops.empty());
    route_with({{"a", 1}});
    EXPECT_EQ(made.chosen_nexthops.at("0.0.0.0/0"), "10.0.0.1");
}

TEST_F(Deciding, a_cycle_without_changes_waits_for_no_reader) {
    interface("a", "10.0.0.1");
    rule("1_ipv4", {{"0.0.0.0/0", -1}}, {{"a", 1}}).failover = 1;
    run();
    std::future_status ended{};
    std::future<void> cycle;
    {
        const LiveStateReader hold;
        cycle = std::async(std::launch::async, [this] { LBDecision().run(data, ctx); });
        ended = cycle.wait_for(std::chrono::seconds(5));
    }
    EXPECT_EQ(ended, std::future_status::ready);
}

TEST_F(Deciding, weights_of_a_failover_rule_hold_one_interface) {
    interface("a", "10.0.0.1");
    interface("b", "10.0.0.2");
    interface("c", "10.0.0.3", false);
    LBRule& made = rule("1_ipv4", {}, {{"a", 2}, {"b", 2}, {"c", 9}});
    EXPECT_EQ(LBDecision().get_new_weights(data, made, ctx), (Weights{{"a", 2}, {"b", 2}}));
    made.failover = 1;
    EXPECT_EQ(LBDecision().get_new_weights(data, made, ctx), (Weights{{"a", 2}}));
}

TEST_F(Deciding, command_output_comes_line_by_line_with_a_blank) {
    std::string output;
    EXPECT_EQ(LBDecision().execute("printf '1234\\n5'; false", output, ctx, true), 256);
    EXPECT_EQ(output, "1234\n 5 ");
}

TEST_F(Deciding, command_output_is_added_to_what_is_there) {
    std::string output = "before ";
    LBDecision().execute("echo 1234", output, ctx, true);
    EXPECT_EQ(output, "before 1234\n ");
}

TEST_F(Deciding, command_that_cannot_run_leaves_the_output_alone) {
    std::string output = "before";
    const faults::FailCall no_shell(faults::Call::popen, EAGAIN);
    EXPECT_EQ(LBDecision().execute("echo 1234", output, ctx, true), -1);
    EXPECT_EQ(output, "before");
}

TEST_F(Deciding, command_that_is_not_read_gives_its_status_only) {
    std::string output;
    EXPECT_EQ(LBDecision().execute("exit 3; echo x", output, ctx, false), 3 << 8);
    EXPECT_EQ(output, "");
}

}  // namespace

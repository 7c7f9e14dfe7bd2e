// Outages and returns of uplinks, from the packet to the routing daemon, in virtual time.

#include <algorithm>

#include "probe/lb_test_ping.h"
#include "unit/simulated_router.h"

namespace {

struct TwoUplinks : SimulatedRouter {
    TwoUplinks() {
        add_uplink("gi1_1", "192.0.2.10", "192.0.2.1");
        add_uplink("gi1_2", "198.51.100.10", "198.51.100.1");
        add_target("203.0.113.1");
        add_target("203.0.113.2");
        routing = &sim.add_routing_daemon(4711, false);
    }
    const std::string via_first = " via 192.0.2.1 weight 1";
    const std::string via_second = " via 198.51.100.1 weight 3";
    static std::string fragment(const std::string& vias) {
        return "protocol static {\ncheck link 1;\n" +
               (vias.empty() ? "" : "route 0.0.0.0/0 multipath" + vias + ";\n") + "};\n";
    }
    Simulation::RoutingDaemon* routing = nullptr;
};

TEST_F(TwoUplinks, are_routed_once_their_targets_are_proven) {
    start(two_uplinks);
    run_cycles(10);
    EXPECT_TRUE(lb->data.health.at("gi1_1").active);
    EXPECT_EQ(routing->routes_in_force, fragment(via_first + via_second));
    EXPECT_EQ(sim.commands.back(), "ip route flush cache 2>/dev/null");
}

TEST_F(TwoUplinks, ask_for_each_next_hop_once) {
    start(two_uplinks);
    run_cycles(60);
    EXPECT_EQ(sim.solicitations_sent, 2);
    EXPECT_EQ((sim.neighbours[{"", "gi1_1", "192.0.2.1"}]), (MacAddress{2, 0, 0, 0, 2, 1}));
}

TEST_F(TwoUplinks, outage_takes_one_out_and_its_end_brings_it_back) {
    start(two_uplinks);
    run_cycles(20);
    sim.in_force().targets["203.0.113.1"].answers = false;
    const int down_after = cycles_until("gi1_1", false);
    run_cycles(1);
    EXPECT_EQ(routing->routes_in_force, fragment(via_second));
    EXPECT_GE(down_after, 4);  // two probes of 2 s each
    EXPECT_LE(down_after, 10);
    sim.in_force().targets["203.0.113.1"].answers = true;
    EXPECT_GT(cycles_until("gi1_1", true), 0);
    run_cycles(1);
    EXPECT_EQ(routing->routes_in_force, fragment(via_first + via_second));
}

TEST_F(TwoUplinks, all_down_leave_no_route_and_one_returns) {
    start(two_uplinks);
    run_cycles(20);
    for (auto& [address, target] : sim.in_force().targets) {
        target.answers = false;
    }
    run_cycles(20);
    EXPECT_EQ(routing->routes_in_force, fragment(""));
    sim.in_force().targets["203.0.113.2"].answers = true;
    run_cycles(20);
    EXPECT_EQ(routing->routes_in_force, fragment(via_second));
}

TEST_F(TwoUplinks, link_that_is_down_fails_like_a_silent_target) {
    start(two_uplinks);
    run_cycles(20);
    sim.in_force().links["gi1_2"].is_up = false;
    EXPECT_GT(cycles_until("gi1_2", false), 0);
    sim.in_force().links["gi1_2"].is_up = true;
    EXPECT_GT(cycles_until("gi1_2", true), 0);
}

TEST_F(TwoUplinks, next_hop_that_answers_late_is_asked_until_it_does) {
    sim.in_force().links["gi1_1"].next_hops["192.0.2.1"].answers = false;
    start(two_uplinks);
    run_cycles(20);
    EXPECT_FALSE(lb->data.health.at("gi1_1").active);
    const int asked_in_vain = sim.solicitations_sent;
    EXPECT_GT(asked_in_vain, 2);
    sim.in_force().links["gi1_1"].next_hops["192.0.2.1"].answers = true;
    run_cycles(20);
    EXPECT_TRUE(lb->data.health.at("gi1_1").active);
}

TEST_F(TwoUplinks, answer_after_the_time_out_does_not_count) {
    sim.in_force().targets["203.0.113.1"].delay_ms = 5000;
    start(two_uplinks);
    run_cycles(60);
    EXPECT_FALSE(lb->data.health.at("gi1_1").active);
}

TEST_F(TwoUplinks, address_that_goes_stops_the_probes_with_a_message) {
    start(two_uplinks);
    lb->data.health.at("gi1_1").source_address = "192.0.2.10";
    run_cycles(20);
    sim.in_force().links["gi1_1"].addresses.clear();
    sim.announce_change();
    run_cycles(20);
    EXPECT_FALSE(lb->data.health.at("gi1_1").active);
    EXPECT_TRUE(std::any_of(sim.log.begin(), sim.log.end(), [](const auto& line) {
        return line.text == "%WAN-W-ERR: address '192.0.2.10' not present on any interface";
    }));
}

TEST_F(TwoUplinks, three_hours_pass_without_a_change_or_a_new_route) {
    start(two_uplinks);
    run_cycles(60);
    const int reloads = routing->reloads;
    const auto before = changes();
    run_cycles(10'800);
    EXPECT_EQ(routing->reloads, reloads);
    EXPECT_EQ(changes(), before);
    EXPECT_EQ(sim.keep_alives, 10'860);
}

TEST_F(TwoUplinks, report_and_dumps_are_written_and_go_with_the_engine) {
    start(two_uplinks);
    run_cycles(10);
    EXPECT_TRUE(sim.files["/var/run/load-balance/wlb_ipv4.out"].starts_with(
        "Interface:  gi1_1\n  Status:  active\n"));
    EXPECT_EQ(sim.files["/var/run/load-balance/wlb_dump/wlb_ipv4_outbounds.bin"].size(), 2 * 4312U);
    workers.clear();
    lb.reset();
    EXPECT_FALSE(sim.files.contains("/var/run/load-balance/wlb_ipv4.out"));
}

/// What a run over a bad line leaves: every change with its second. Within one they come in the
/// order of the records' places in memory (B90), which here is an accident.
std::vector<std::string> run_with_losses(TwoUplinks& router, std::uint64_t seed) {
    router.sim.set_seed(seed);
    router.sim.in_force().targets["203.0.113.1"].loss_percent = 40;
    router.start(two_uplinks);
    router.run_cycles(1800);
    auto changes = router.changes();
    std::sort(changes.begin(), changes.end());
    return changes;
}

std::vector<std::string> changes_of_a_run(std::uint64_t seed) {
    struct Run : TwoUplinks {
        void TestBody() override {}
    };
    Run router;
    return run_with_losses(router, seed);
}

TEST(Simulation, gives_one_result_for_one_seed_and_another_for_another) {
    const auto first = changes_of_a_run(7);
    EXPECT_GT(first.size(), 10U);
    EXPECT_EQ(changes_of_a_run(7), first);
    EXPECT_NE(changes_of_a_run(8), first);
}

struct OneUplink : SimulatedRouter {};

TEST_F(OneUplink, lease_gives_the_next_hop_and_a_new_lease_another) {
    Simulation::Link& link = add_uplink("gi1_1", "192.0.2.10", "192.0.2.1");
    link.next_hops["192.0.2.2"].mac = {2, 0, 0, 0, 2, 99};
    add_target("203.0.113.1");
    const auto& routing = sim.add_routing_daemon(4711, false);
    sim.files["/var/db/dhclient_gi1_1.leases"] = "  option routers 192.0.2.1;\n";
    start(
        "health {\n interface gi1_1 {\n success-ct 1\n failure-ct 1\n nexthop dhcp\n rule 1 {\n"
        " type ping {\n target 203.0.113.1\n resp-time 2000\n }\n }\n }\n}\n"
        "rule 1_ipv4 {\n interface gi1_1 {\n weight 1\n }\n target {\n address 0.0.0.0/0\n }\n}\n");
    run_cycles(20);
    EXPECT_NE(routing.routes_in_force.find("via 192.0.2.1 weight 1"), std::string::npos);
    sim.files["/var/db/dhclient_gi1_1.leases"] = "  option routers 192.0.2.2;\n";
    run_cycles(20);
    EXPECT_NE(routing.routes_in_force.find("via 192.0.2.2 weight 1"), std::string::npos);
}

TEST_F(OneUplink, ipv6_next_hop_is_solicited_and_its_uplink_routed) {
    Simulation::Link& link = add_uplink("gi1_1", "fe80::10", "fe80::1");
    link.addresses.push_back("2001:db8::10");
    add_target("2001:db8::53");
    const auto& routing = sim.add_routing_daemon(4712, true);
    start(
        "health {\n interface6 gi1_1 {\n success-ct 1\n failure-ct 1\n nexthop fe80::1\n rule 1 {\n"
        " type ping {\n target 2001:db8::53\n resp-time 2000\n }\n }\n }\n}\n"
        "rule 1_ipv6 {\n interface6 gi1_1 {\n weight 1\n }\n target {\n address ::/0\n }\n}\n");
    run_cycles(20);
    EXPECT_EQ(sim.solicitations_sent, 1);
    EXPECT_EQ(routing.routes_in_force,
              "protocol static {\nroute ::/0 multipath via fe80::1 weight 1;\n};\n");
    sim.in_force().targets["2001:db8::53"].answers = false;
    run_cycles(20);
    EXPECT_EQ(routing.routes_in_force, "protocol static {\n};\n");
}

TEST_F(OneUplink, tunnel_sends_through_its_own_interface) {
    sim.add_link("gre_1").peer = "10.255.0.2";
    add_target("203.0.113.1");
    const auto& routing = sim.add_routing_daemon(4711, false);
    start(
        "health {\n interface gre_1 {\n success-ct 1\n failure-ct 1\n nexthop tunnel\n rule 1 {\n"
        " type ping {\n target 203.0.113.1\n resp-time 2000\n }\n }\n }\n}\n"
        "rule 1_ipv4 {\n interface gre_1 {\n weight 1\n }\n target {\n address 0.0.0.0/0\n }\n}\n");
    run_cycles(20);
    EXPECT_NE(routing.routes_in_force.find("via 10.255.0.2 weight 1"), std::string::npos);
    sim.in_force().targets["203.0.113.1"].cut_links.insert("gre_1");
    EXPECT_GT(cycles_until("gre_1", false), 0);
}

/// An uplink judged by an extended ping of five echoes in every cycle from the second run on.
struct Burst : SimulatedRouter {
    Burst() {
        add_uplink("gi1_1", "192.0.2.10", "192.0.2.1");
        target = &add_target("203.0.113.1");
        target->delay_ms = 100;
        sim.neighbours[{"", "gi1_1", "192.0.2.1"}] = {2, 0, 0, 0, 2, 1};
        start(
            "health {\n interface gi1_1 {\n success-ct 1\n failure-ct 1\n nexthop 192.0.2.1\n"
            " rule 1 {\n type ping_ext {\n target 203.0.113.1\n count 5\n period 1\n"
            " timeout 1000\n loss 50\n rtt 500\n jitter 1000\n }\n }\n }\n}\n"
            "rule 1_ipv4 {\n interface gi1_1 {\n weight 1\n }\n"
            " target {\n address 0.0.0.0/0\n }\n}\n");
    }
    const LBTestPING& ping() {
        return dynamic_cast<const LBTestPING&>(*lb->data.health.at("gi1_1").tests.at(1));
    }
    Simulation::Target* target = nullptr;
};

TEST_F(Burst, takes_the_virtual_time_of_its_answers) {
    const std::int64_t before_us = sim.now_us();
    work_once(&workers.front().ctx);
    EXPECT_EQ(sim.now_us() - before_us, 5 * 100'000);
    EXPECT_EQ(ping().last_rtt, 100);
    EXPECT_EQ(ping().last_jitter, 0);
    EXPECT_TRUE(lb->data.health.at("gi1_1").active);
}

TEST_F(Burst, that_is_not_answered_waits_for_its_first_echo_only) {
    target->answers = false;
    const std::int64_t before_us = sim.now_us();
    work_once(&workers.front().ctx);
    EXPECT_EQ(sim.now_us() - before_us, 1'000'000);
    EXPECT_EQ(ping().last_result, 2);
}

TEST_F(Burst, slower_than_its_limit_takes_the_uplink_out) {
    run_cycles(3);
    ASSERT_TRUE(lb->data.health.at("gi1_1").active);
    target->delay_ms = 600;
    run_cycles(1);
    EXPECT_EQ(ping().last_rtt, 600);
    EXPECT_FALSE(lb->data.health.at("gi1_1").active);
}

TEST_F(SimulatedRouter, workers_of_two_namespaces_share_one_clock) {
    const std::string conf_of_blue =
        "health {\n interface gi1_1 {\n success-ct 1\n failure-ct 1\n nexthop 192.0.2.1\n"
        " resp-time 1000\n }\n interface gi1_2 {\n success-ct 1\n failure-ct 1\n"
        " nexthop 192.0.2.1\n namespace blue\n }\n}\n"
        "rule 1_ipv4 {\n interface gi1_1 {\n weight 1\n }\n target {\n address 0.0.0.0/0\n }\n}\n"
        "rule 2_ipv4 {\n namespace blue\n interface gi1_2 {\n weight 1\n }\n"
        " target {\n address 0.0.0.0/0\n }\n}\n";
    add_uplink("gi1_1", "192.0.2.10", "192.0.2.1");
    add_target("192.0.2.1");
    sim.namespaces["blue"];
    sim.namespace_in_force = "blue";
    add_uplink("gi1_2", "192.0.2.10", "192.0.2.1");
    add_target("192.0.2.1");
    const auto& of_default = sim.add_routing_daemon(1, false);
    const auto& of_blue = sim.add_routing_daemon(2, false, "blue");
    start(conf_of_blue);
    ASSERT_EQ(workers.size(), 2U);
    run_cycles(30);
    EXPECT_NE(of_default.routes_in_force.find("via 192.0.2.1"), std::string::npos);
    EXPECT_NE(of_blue.routes_in_force.find("via 192.0.2.1"), std::string::npos);
    sim.namespaces["blue"].targets["192.0.2.1"].answers = false;
    run_cycles(30);
    EXPECT_TRUE(lb->data.health.at("gi1_1").active);
    EXPECT_FALSE(lb->data.health.at("gi1_2").active);
}

}  // namespace

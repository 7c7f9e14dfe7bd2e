#include <gtest/gtest.h>

#include "dumps/in_force.h"

namespace {

dumps::Interface uplink(const std::string& name, const std::string& nexthop, int family = 4) {
    dumps::Interface one;
    one.name = name;
    one.family = family;
    one.nexthop = nexthop;
    one.is_active = true;
    return one;
}

/// eth0 and eth1, both up, of weights 3 and 1 behind one rule with one destination.
dumps::State two_uplinks(bool is_failover = false, const std::string& chosen = "") {
    return {
        .interfaces = {uplink("eth0", "192.0.2.1"), uplink("eth1", "198.51.100.1")},
        .rules = {{.number = 1,
                   .is_failover = is_failover,
                   .members = {{.interface = "eth0", .weight = 3},
                               {.interface = "eth1", .weight = 1}}}},
        .routes = {{.rule_number = 1, .position = 1, .prefix = "0.0.0.0/0", .nexthop = chosen}}};
}

/// The next hops of the only route, one behind the other, and behind a bar the routed interfaces.
std::string in_force(dumps::State state) {
    dumps::resolve_next_hops(state);
    std::string text;
    for (const dumps::NextHop& hop : state.routes.at(0).in_force) {
        text += hop.address + " " + hop.interface + " " + std::to_string(hop.weight) + ";";
    }
    text += "|";
    for (const dumps::Interface& one : state.interfaces) {
        text += one.is_routed ? one.name + ";" : "";
    }
    return text;
}

TEST(InForce, are_all_healthy_members_of_a_shared_rule) {
    EXPECT_EQ(in_force(two_uplinks()), "192.0.2.1 eth0 3;198.51.100.1 eth1 1;|eth0;eth1;");
}

TEST(InForce, is_no_member_that_is_down) {
    dumps::State state = two_uplinks();
    state.interfaces[0].is_active = false;
    EXPECT_EQ(in_force(state), "198.51.100.1 eth1 1;|eth1;");
}

TEST(InForce, is_no_member_without_a_weight_or_a_next_hop) {
    dumps::State state = two_uplinks();
    state.rules[0].members[0].weight = 0;
    state.interfaces[1].nexthop = "";
    EXPECT_EQ(in_force(state), "|");
}

TEST(InForce, is_no_member_of_another_namespace) {
    dumps::State state = two_uplinks();
    state.interfaces[1].namespace_name = "blue";
    EXPECT_EQ(in_force(state), "192.0.2.1 eth0 3;|eth0;");
}

TEST(InForce, is_the_recorded_choice_of_a_failover_rule) {
    EXPECT_EQ(in_force(two_uplinks(true, "198.51.100.1")), "198.51.100.1 eth1 1;|eth1;")
        << "the record knows whole weights";
}

TEST(InForce, is_nothing_where_a_failover_rule_has_chosen_none) {
    EXPECT_EQ(in_force(two_uplinks(true)), "|");
}

TEST(InForce, is_the_heaviest_where_two_uplinks_share_the_chosen_next_hop) {
    dumps::State state = two_uplinks(true, "192.0.2.1");
    state.interfaces[1].nexthop = "192.0.2.1";
    state.rules[0].members[1].weight = 9;
    EXPECT_EQ(in_force(state), "192.0.2.1 eth1 9;|eth1;");
}

TEST(InForce, are_the_members_of_the_other_family_too) {
    dumps::State state = two_uplinks();
    state.interfaces.push_back(uplink("eth0", "2001:db8::1", 6));
    state.rules[0].members.push_back({.interface = "eth0", .family = 6, .weight = 2});
    EXPECT_EQ(in_force(state),
              "192.0.2.1 eth0 3;198.51.100.1 eth1 1;2001:db8::1 eth0 2;|eth0;eth1;eth0;");
}

TEST(InForce, is_nothing_for_a_route_whose_rule_is_not_there) {
    dumps::State state = two_uplinks();
    state.rules[0].family = 6;
    EXPECT_EQ(in_force(state), "|");
}

}  // namespace

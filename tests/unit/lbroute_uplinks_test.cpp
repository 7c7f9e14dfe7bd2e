#include <gmock/gmock.h>

#include "config/lb_data_factory.h"
#include "lbroute/commands.h"
#include "lbroute/daemon_record.h"
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
    name = "gi1_4";
    LBHealth four(name, false);
    four.nexthop = "tunnel";
    four.namespace_name = "blue";
    data.health.emplace(name, four);
    LBRule rule;
    rule.targets = {{"10.0.0.0/8", -1}, {"nonsense", 3}};
    rule.interfaces = {{{"gi1_1", false}, 2}, {{"gi1_3", false}, 0}, {{"gi1_1", true}, 1}};
    data.rules.emplace("1_ipv4", rule);
    return data;
}

TEST(Uplinks, are_those_of_the_configuration) {
    const Uplinks uplinks = uplinks_of(configuration());
    ASSERT_EQ(uplinks.uplinks.size(), 3U);
    EXPECT_EQ(uplinks.uplinks[0].next_hop, address("192.0.2.1"));
    EXPECT_FALSE(uplinks.uplinks[0].is_learning);
    EXPECT_EQ(uplinks.uplinks[1].next_hop, std::nullopt);
    EXPECT_TRUE(uplinks.uplinks[1].is_learning) << "from a lease";
    EXPECT_TRUE(uplinks.uplinks[2].is_learning) << "from a tunnel";
    EXPECT_THAT(uplinks.namespaces, ElementsAre("", "blue"));
}

TEST(Uplinks, rules_have_members_of_one_family_and_none_of_weight_0) {
    const Uplinks uplinks = uplinks_of(configuration());
    ASSERT_EQ(uplinks.rules.size(), 2U);
    EXPECT_THAT(uplinks.rules[0].members, ElementsAre(Member{"gi1_1", 2}));
    EXPECT_THAT(uplinks.rules[0].targets, ElementsAre(prefix("10.0.0.0/8")));
    EXPECT_EQ(uplinks.rules[1].family, Family::ipv6);
}

TEST(Uplinks, dumps_tell_the_next_hop_in_force_and_who_is_active) {
    dumps::Interface dumped;
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

TEST(Uplinks, dumps_tell_who_learns_its_next_hop) {
    dumps::Interface dumped;
    dumped.name = "gi1_5";
    dumped.family = 4;
    dumped.nexthop = "203.0.113.1";
    for (const auto& [from, is_learning] :
         {std::pair("static", false), {"dhcp", true}, {"tunnel", true}}) {
        dumped.nexthop_from = from;
        const Uplinks uplinks = with_dumps({}, {dumped});
        EXPECT_EQ(uplinks.find("", Family::ipv4, "gi1_5")->is_learning, is_learning) << from;
    }
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

}  // namespace

}  // namespace lbroute

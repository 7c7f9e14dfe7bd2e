#include <gtest/gtest.h>

#include <cerrno>

#include "config/lb_data.h"
#include "unit/support/captured_log.h"
#include "unit/support/faults.h"
#include "unit/support/given_router.h"
#include "unit/support/loaded.h"

namespace {

using Lines = std::vector<LogLine>;
using Deeds = std::vector<std::string>;

const std::string lease_path = "/var/db/dhclient_gi1_1.leases";
const LogLine no_router{4,
                        "%WAN-W-WARN: Failed to get routers option from DHCP on interface "
                        "gigabitethernet 1/0/1"};

std::string lease_of(const std::string& routers) {
    return "lease {\n  interface \"gi1_1\";\n  option routers " + routers + ";\n}\n";
}

struct NextHops : testing::Test {
    LBHealth& interface(const std::string& name, const std::string& nexthop, bool ipv6 = false) {
        LBHealth& made = data.family(ipv6).try_emplace(name, name, ipv6).first->second;
        made.nexthop = nexthop;
        return made;
    }

    LBData data;
    TestContext ctx;
    TestContext ctx6{true};
    GivenRouter router;
    CapturedLog log;
};

TEST_F(NextHops, router_of_the_lease_is_learnt) {
    const LBHealth& health = interface("gi1_1", "dhcp");
    router.write(lease_path, lease_of("192.0.2.1,192.0.2.2"));
    data.update_dhcp_nexthop(ctx);
    EXPECT_EQ(health.nexthop_addr, "192.0.2.1");
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(NextHops, ipv6_router_of_the_lease_is_learnt) {
    const LBHealth& health = interface("eth0", "dhcp", true);
    router.write("/var/db/dhcp6_clienteth0.leases", "reason='BOUND6'\nnew_routers='fe80::1'\n");
    data.update_dhcp_nexthop(ctx6);
    EXPECT_EQ(health.nexthop_addr, "fe80::1");
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(NextHops, renewed_lease_replaces_the_router) {
    LBHealth& health = interface("gi1_1", "dhcp");
    health.nexthop_addr = "192.0.2.1";
    router.write(lease_path, lease_of("192.0.2.9"));
    data.update_dhcp_nexthop(ctx);
    EXPECT_EQ(health.nexthop_addr, "192.0.2.9");
}

TEST_F(NextHops, half_written_lease_keeps_the_learnt_router) {
    LBHealth& health = interface("gi1_1", "dhcp");
    health.nexthop_addr = "192.0.2.1";
    for (const char* half : {"", "lease {\n  option rou", "lease {\n  option routers", "\n\n"}) {
        router.write(lease_path, half);
        data.update_dhcp_nexthop(ctx);
        EXPECT_EQ(health.nexthop_addr, "192.0.2.1") << "after " << half;
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(NextHops, short_ipv6_value_keeps_the_learnt_router) {
    LBHealth& health = interface("eth0", "dhcp", true);
    health.nexthop_addr = "fe80::1";
    router.write("/var/db/dhcp6_clienteth0.leases", "new_routers='\n");
    data.update_dhcp_nexthop(ctx6);
    EXPECT_EQ(health.nexthop_addr, "fe80::1");
}

TEST_F(NextHops, lease_without_a_router_warns_while_nothing_was_learnt) {
    interface("gi1_1", "dhcp");
    router.write(lease_path, "lease {\n  option subnet-mask 255.255.255.0;\n}\n");
    data.update_dhcp_nexthop(ctx);
    EXPECT_EQ(log.lines(), Lines{no_router});
}

TEST_F(NextHops, missing_lease_warns_only_while_nothing_was_learnt) {
    LBHealth& health = interface("gi1_1", "dhcp");
    data.update_dhcp_nexthop(ctx);
    EXPECT_EQ(log.lines(), Lines{no_router});
    health.nexthop_addr = "192.0.2.1";
    data.update_dhcp_nexthop(ctx);
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(health.nexthop_addr, "192.0.2.1");
}

TEST_F(NextHops, lease_of_each_family_is_looked_for_in_its_own_place) {
    interface("gi1_1", "dhcp");
    interface("eth0", "dhcp", true);
    interface("eth1", "192.0.2.1");
    interface("gre_1", "tunnel");
    data.update_dhcp_nexthop(ctx);
    data.update_dhcp_nexthop(ctx6);
    EXPECT_EQ(router.deeds, (Deeds{"open /var/db/dhclient_gi1_1.leases re",
                                   "open /var/db/dhcp6_clienteth0.leases re"}));
}

TEST_F(NextHops, interface_without_a_router_name_is_an_unknown_interface) {
    interface("eth0", "dhcp", true);
    data.update_dhcp_nexthop(ctx6);
    EXPECT_EQ(log.lines(), (Lines{{4,
                                   "%WAN-W-WARN: Failed to get routers option from DHCP on "
                                   "interface unknown interface"}}));
}

TEST_F(NextHops, other_namespaces_are_left_to_their_workers) {
    interface("gi1_1", "dhcp").namespace_name = "blue";
    interface("gre_1", "tunnel").namespace_name = "blue";
    data.update_dhcp_nexthop(ctx);
    data.update_tunnel_nexthop(ctx);
    EXPECT_EQ(router.deeds, Deeds{});
    EXPECT_TRUE(log.lines().empty());

    TestContext blue(false, "blue");
    data.update_dhcp_nexthop(blue);
    data.update_tunnel_nexthop(blue);
    EXPECT_EQ(router.deeds,
              (Deeds{"open /var/db/dhclient_gi1_1.leases re", "ask peer of gre_1 in family 2"}));
}

TEST_F(NextHops, peer_of_a_tunnel_is_learnt) {
    const LBHealth& health = interface("gre_1", "tunnel");
    interface("gi1_1", "dhcp");
    interface("eth1", "192.0.2.1");
    router.peers["gre_1"] = "198.51.100.7";
    data.update_tunnel_nexthop(ctx);
    EXPECT_EQ(health.nexthop_addr, "198.51.100.7");
    EXPECT_EQ(router.deeds, (Deeds{"ask peer of gre_1 in family 2"}));
}

TEST_F(NextHops, ipv6_tunnel_has_an_ipv4_peer_too) {
    const LBHealth& health = interface("gre_1", "tunnel", true);
    router.peers["gre_1"] = "198.51.100.7";
    data.update_tunnel_nexthop(ctx6);
    EXPECT_EQ(health.nexthop_addr, "198.51.100.7");
    EXPECT_EQ(router.deeds, (Deeds{"ask peer of gre_1 in family 10"}));
}

TEST_F(NextHops, each_tunnel_gets_its_own_peer) {
    const LBHealth& first = interface("gre_1", "tunnel");
    const LBHealth& last = interface("gre_3", "tunnel");
    router.peers = {{"gre_1", "198.51.100.7"}, {"gre_3", "203.0.113.3"}};
    data.update_tunnel_nexthop(ctx);
    EXPECT_EQ(first.nexthop_addr, "198.51.100.7");
    EXPECT_EQ(last.nexthop_addr, "203.0.113.3");
}

TEST_F(NextHops, tunnel_that_is_missing_gets_the_peer_answered_before) {
    const LBHealth& missing = interface("gre_2", "tunnel");
    interface("gre_1", "tunnel");
    router.peers = {{"gre_1", "198.51.100.7"}};
    data.update_tunnel_nexthop(ctx);
    EXPECT_EQ(missing.nexthop_addr, "198.51.100.7");
}

TEST_F(NextHops, missing_tunnel_that_is_asked_first_gets_zero_in_every_call) {
    const LBHealth& missing = interface("gre_1", "tunnel");
    interface("gre_2", "tunnel");
    router.peers = {{"gre_2", "198.51.100.7"}};
    data.update_tunnel_nexthop(ctx);
    data.update_tunnel_nexthop(ctx);  // a request of its own, zero at first
    EXPECT_EQ(missing.nexthop_addr, "0.0.0.0");
}

TEST_F(NextHops, long_names_are_cut_as_the_kernel_cuts_them) {
    interface("a23456789012345678", "tunnel");
    data.update_tunnel_nexthop(ctx);
    EXPECT_EQ(router.deeds, (Deeds{"ask peer of a23456789012345 in family 2"}));
}

TEST_F(NextHops, peer_that_cannot_be_printed_is_a_debug_line) {
    const LBHealth& health = interface("gre_9", "tunnel");
    interface("tun0", "tunnel");
    const faults::FailCall no_text(faults::Call::inet_ntop, ENOSPC);
    data.update_tunnel_nexthop(ctx);
    EXPECT_EQ(health.nexthop_addr, "");
    EXPECT_EQ(
        log.lines(),
        (Lines{{7, "Failed to get P-t-P destination from tunnel interface gre 9"},
               {7, "Failed to get P-t-P destination from tunnel interface unknown interface"}}));
}

TEST_F(NextHops, no_lock_is_held_while_the_disk_or_the_kernel_is_asked) {
    interface("gi1_1", "dhcp");
    interface("gre_1", "tunnel");
    router.write(lease_path, lease_of("192.0.2.1"));
    router.peers["gre_1"] = "198.51.100.7";
    const Deeds& under_lock = router.note_deeds_under_lock();
    data.update_dhcp_nexthop(ctx);
    data.update_tunnel_nexthop(ctx);
    EXPECT_EQ(router.deeds.size(), 2U);
    EXPECT_EQ(under_lock, Deeds{});
}

}  // namespace

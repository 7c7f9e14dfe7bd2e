// What is looked up of a router, in a network of the test's own. Skipped without the right to make
// one.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "lbcheck/live_facts.h"
#include "lbcheck/live_machine.h"
#include "support/captured_log.h"
#include "support/loaded.h"
#include "support/temporary_folder.h"
#include "unit/support/own_network.h"

namespace {

using lbcheck::LiveFacts;
using lbcheck::UplinkFacts;
using testing::ElementsAre;
using testing::IsEmpty;

std::string interface(const std::string& name, const std::string& next_hop,
                      const std::string& more = "") {
    return " interface " + name + " {\n  success-ct 1\n  failure-ct 1\n  nexthop " + next_hop +
           "\n" + more + "  rule 1 {\n   type ping {\n    target 203.0.113.1\n   }\n  }\n }\n";
}

constexpr const char* rule =
    "rule 1_ipv4 {\n interface wan1 {\n  weight 1\n }\n target {\n  address 0.0.0.0/0\n }\n}\n";

/// The facts of a configuration with these uplinks, in a network with wan1 and wan2.
class LbcheckCollect : public testing::Test {
  protected:
    struct Network {
        TestLink one{"wan1", "192.0.2.10"};
        TestLink two{"wan2", "198.51.100.10"};
    };

    void collect(
        const std::string& uplinks,
        const std::function<void(Network&)>& prepare = [](Network&) {}) {
        const CapturedLog log;
        const Loaded loaded("health {\n" + uplinks + "}\n" + rule);
        ASSERT_TRUE(loaded.is_complete);
        const bool is_possible = in_own_network([&] {
            Network network;
            prepare(network);
            facts = lbcheck::collect_facts(folder.file("lb.conf"), loaded.data(), folder.path());
        });
        if (!is_possible) {
            GTEST_SKIP() << "needs the right to make a network namespace with links";
        }
        ASSERT_EQ(facts.namespaces.size(), 1U);
        EXPECT_EQ(facts.namespaces[0].problem, "");
        EXPECT_THAT(log.lines(), IsEmpty()) << "what the daemon's code would log is told otherwise";
    }
    const UplinkFacts& uplink(std::size_t number) const {
        return facts.namespaces.at(0).uplinks.at(number);
    }

    const TemporaryFolder folder;
    LiveFacts facts;
};

/// Writes a number below /proc/sys of the thread's network.
void put_setting(const std::string& path, int value) {
    std::ofstream("/proc/sys/" + path) << value << std::endl;
}

TEST_F(LbcheckCollect, uplink_has_its_link_addresses_and_settings) {
    // Without a next hop in force nothing is sent.
    collect(interface("wan1", "dhcp"), [](Network&) {
        put_setting("net/ipv4/conf/all/rp_filter", 1);
        put_setting("net/ipv4/conf/wan1/rp_filter", 2);
    });
    if (IsSkipped() || HasFatalFailure()) {
        return;
    }
    EXPECT_EQ(facts.configured, (std::map<int, int>{{4, 1}}));
    ASSERT_EQ(facts.namespaces[0].uplinks.size(), 1U);
    EXPECT_EQ(uplink(0).interface, "wan1");
    EXPECT_FALSE(uplink(0).is_ipv6);
    EXPECT_FALSE(uplink(0).is_tunnel);
    EXPECT_EQ(uplink(0).configured_next_hop, "dhcp");
    EXPECT_EQ(uplink(0).next_hop, "");
    EXPECT_TRUE(uplink(0).exists);
    EXPECT_TRUE(uplink(0).is_up);
    EXPECT_TRUE(uplink(0).has_carrier);
    EXPECT_THAT(uplink(0).addresses, ElementsAre("192.0.2.10"));
    EXPECT_FALSE(uplink(0).is_next_hop_on_link);
    EXPECT_EQ(uplink(0).reverse_path_all, 1);
    EXPECT_EQ(uplink(0).reverse_path_own, 2);
    EXPECT_FALSE(uplink(0).echo);
    ASSERT_TRUE(uplink(0).lease);
    EXPECT_EQ(uplink(0).lease->path, "/var/db/dhclient_wan1.leases");
    EXPECT_NE(uplink(0).lease->error, "");
    EXPECT_FALSE(uplink(0).lease->ended_for_s);
}

TEST_F(LbcheckCollect, uplink_that_is_down_is_not_asked) {
    collect(interface("wan1", "192.0.2.1") + interface("wan2", "192.0.2.1"), [](Network& network) {
        network.one.set_up(false);
        network.two.set_up(false);
    });
    if (IsSkipped() || HasFatalFailure()) {
        return;
    }
    EXPECT_EQ(facts.configured, (std::map<int, int>{{4, 2}}));
    EXPECT_FALSE(uplink(0).is_up);
    EXPECT_FALSE(uplink(0).echo);
    EXPECT_FALSE(uplink(0).lease);
    EXPECT_EQ(uplink(0).next_hop, "192.0.2.1");
    EXPECT_TRUE(uplink(0).is_next_hop_on_link);
    EXPECT_FALSE(uplink(1).is_next_hop_on_link) << "it is of the other link's network";
    EXPECT_THAT(uplink(1).addresses, ElementsAre("198.51.100.10"));
}

TEST_F(LbcheckCollect, uplink_that_is_not_there_has_those_that_are) {
    collect(interface("wan9", "192.0.2.1"));
    if (IsSkipped() || HasFatalFailure()) {
        return;
    }
    EXPECT_FALSE(uplink(0).exists);
    EXPECT_THAT(uplink(0).similar_interfaces, testing::IsSupersetOf({"wan1", "wan2"}));
    EXPECT_THAT(uplink(0).similar_interfaces, testing::Not(testing::Contains("lo")));
    EXPECT_FALSE(uplink(0).echo);
    EXPECT_THAT(uplink(0).addresses, IsEmpty());
}

TEST_F(LbcheckCollect, uplink_of_ipv6_is_one) {
    collect(
        " interface6 wan1 {\n  rule 1 {\n   type ping {\n    target 2001:db8::1\n   }\n  }\n }\n",
        [](Network&) {});
    if (IsSkipped() || HasFatalFailure()) {
        return;
    }
    EXPECT_TRUE(uplink(0).is_ipv6);
}

TEST_F(LbcheckCollect, routes_of_others_to_what_is_balanced_are_listed) {
    const Loaded loaded("health {\n" + interface("wan1", "dhcp") + "}\n" + rule);
    const bool is_possible = in_own_network({"/usr", "/run"}, [&] {
        const TestLink one("wan1", "192.0.2.10");
        const TestLink two("wan2", "198.51.100.10");
        std::filesystem::create_directories("/usr/etc");
        // The kernel has made routes to the networks of both links.
        std::ofstream("/usr/etc/routing-wlb.conf")
            << "protocol static {\nroute 198.51.100.0/24 multipath via 192.0.2.1 weight 1;\n};\n";
        facts = lbcheck::collect_facts(folder.file("lb.conf"), loaded.data(), folder.path());
    });
    if (!is_possible) {
        GTEST_SKIP() << "needs the right to make a network and mounts of its own";
    }
    ASSERT_EQ(facts.namespaces.size(), 1U);
    EXPECT_EQ(facts.namespaces[0].routes_problem, "");
    ASSERT_EQ(facts.namespaces[0].routes.size(), 1U);
    EXPECT_EQ(facts.namespaces[0].routes[0].prefix.text(), "198.51.100.0/24");
}

TEST_F(LbcheckCollect, namespace_that_is_not_there_is_told) {
    const Loaded loaded("health {\n" +
                        interface("wan1", "192.0.2.1", "  namespace no-such-namespace\n") + "}\n");
    facts = lbcheck::collect_facts(folder.file("lb.conf"), loaded.data(), folder.path());
    ASSERT_EQ(facts.namespaces.size(), 1U);
    EXPECT_EQ(facts.namespaces[0].name, "no-such-namespace");
    EXPECT_EQ(facts.namespaces[0].problem, "there is no such namespace");
    EXPECT_THAT(facts.namespaces[0].uplinks, IsEmpty());
    EXPECT_THAT(facts.configured, IsEmpty()) << "no rule, no worker";
    EXPECT_NE(facts.dumps_problem, "") << "no dump is below the folder";
}

TEST_F(LbcheckCollect, rights_are_those_of_what_is_there) {
    folder.put("lb.conf", "");
    chmod(folder.file("lb.conf").c_str(), 0640);
    facts = lbcheck::collect_facts(folder.file("lb.conf"), LBData(), folder.path());
    std::map<std::string, lbcheck::PathRights> rights;
    for (const auto& one : facts.rights) {
        EXPECT_TRUE(rights.emplace(one.path, one).second) << one.path << " twice";
    }
    const std::string real = std::filesystem::canonical(folder.path());
    ASSERT_TRUE(rights.contains(real + "/lb.conf"));
    EXPECT_EQ(rights.at(real + "/lb.conf").mode & 0777U, 0640U);
    EXPECT_EQ(rights.at(real + "/lb.conf").use, "configuration");
    EXPECT_FALSE(rights.at(real + "/lb.conf").is_above);
    EXPECT_EQ(rights.at(real + "/lb.conf").owner, geteuid());
    EXPECT_FALSE(rights.at(real).is_above) << "the output goes there";
    EXPECT_TRUE(rights.at("/").is_above);
    EXPECT_FALSE(rights.contains(real + "/wlb_dump"));
}

TEST(LbcheckMachine, setting_is_the_number_that_stands_there) {
    EXPECT_GT(lbcheck::setting_of("kernel/pid_max").value_or(0), 300);
    EXPECT_FALSE(lbcheck::setting_of("kernel/ostype")) << "a word";
    EXPECT_FALSE(lbcheck::setting_of("kernel/nothing_of_that_name"));
}

}  // namespace

#include <gtest/gtest.h>

#include "config/lb_data.h"
#include "probe/lb_test.h"
#include "unit/support/captured_log.h"
#include "unit/support/given_clock.h"
#include "unit/support/loaded.h"

namespace {

using Lines = std::vector<LogLine>;

struct State : testing::Test {
    LBHealth& interface(const std::string& name, bool ipv6 = false) {
        return data.family(ipv6).try_emplace(name, name, ipv6).first->second;
    }

    LBData data;
    TestContext ctx;
    TestContext ctx6{true};
    GivenClock clock{1'000'000, 1'700'000'000};
    CapturedLog log;
};

TEST_F(State, unknown_interface_is_inactive_and_lies_nowhere) {
    EXPECT_FALSE(data.is_active("eth0", ctx));
    EXPECT_EQ(data.get_interface_namespace("eth0", ctx), "");
}

TEST_F(State, families_are_asked_apart) {
    interface("eth0").active = true;
    interface("eth0", true).namespace_name = "blue";
    EXPECT_TRUE(data.is_active("eth0", ctx));
    EXPECT_FALSE(data.is_active("eth0", ctx6));
    EXPECT_EQ(data.get_interface_namespace("eth0", ctx), "");
    EXPECT_EQ(data.get_interface_namespace("eth0", ctx6), "blue");
}

TEST_F(State, a_cycle_starts_without_changes_in_the_workers_own_interfaces) {
    LBHealth& own = interface("eth0");
    LBHealth& foreign = interface("eth1");
    foreign.namespace_name = "blue";
    LBHealth& sibling = interface("eth0", true);
    data.reset_state_changed(ctx);
    EXPECT_FALSE(own.state_changed);
    EXPECT_TRUE(foreign.state_changed);
    EXPECT_TRUE(sibling.state_changed);
}

TEST_F(State, changes_are_told_logged_and_dated) {
    interface("gi1_1").active = true;
    interface("eth9");
    interface("po1").state_changed = false;
    EXPECT_EQ(data.state_changed(ctx), (LBData::Changes{{"eth9", "FAILED"}, {"gi1_1", "ACTIVE"}}));
    EXPECT_EQ(data.health.at("gi1_1").last_change, 1'700'000'000);
    EXPECT_EQ(data.health.at("po1").last_change, 0);
    EXPECT_EQ(log.lines(),
              (Lines{{7, "Interface unknown interface has changed state to FAILED"},
                     {7, "Interface gigabitethernet 1/0/1 has changed state to ACTIVE"}}));
}

TEST_F(State, known_change_is_kept) {
    interface("gi1_1").active = true;
    LBData::Changes changes{{"gi1_1", "FAILED"}};
    data.check_state(&changes, data.health.begin(), ctx);
    EXPECT_EQ(changes.at("gi1_1"), "FAILED");
}

TEST_F(State, dump_prints_interfaces_probes_and_rules) {
    Loaded loaded(
        "health {\n interface eth0 {\n nexthop 192.0.2.1\n success-ct 3\n rule 4 {\n"
        " type ping {\n target a\n }\n }\n }\n interface6 eth1 {\n }\n}\n"
        "rule 1_ipv4 {\n interface eth0 {\n weight 2\n }\n}\n");
    testing::internal::CaptureStdout();
    loaded.factory.data.dump(ctx);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "health:\n"
              "  interface: eth0\n    nexthop: 192.0.2.1\n    success ct: 3\n    failure ct: 0\n"
              "    test: 4\n      target: a, resp_time: 5000\n"
              "  interface: eth1\n    nexthop: \n    success ct: 0\n    failure ct: 0\n"
              "    test: 1\n      target: , resp_time: 5000\n"
              "\nwan:\n  rule: 1_ipv4\n      interface: eth0\n      weight: 2\nend dump\n");
}

}  // namespace

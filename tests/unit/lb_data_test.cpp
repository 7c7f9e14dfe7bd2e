#include "config/lb_data.h"

#include <gtest/gtest.h>

#include "probe/lb_test.h"
#include "unit/support/loaded.h"

namespace {

TEST(Health, new_record_has_its_defaults) {
    const LBHealth health("eth0", true);
    EXPECT_TRUE(health.ipv6);
    EXPECT_FALSE(health.active);
    EXPECT_TRUE(health.state_changed);
    EXPECT_FALSE(health.check_all);
    EXPECT_EQ(health.spare, 5);
    EXPECT_EQ(health.success_ct + health.failure_ct + health.last_change, 0);
    EXPECT_TRUE(health.tests.empty() && health.tests6.empty());
    EXPECT_TRUE(health.success_count.empty() && health.failure_count.empty());
}

TEST(Health, copy_shares_the_probes) {
    Loaded loaded(
        "health {\n interface eth0 {\n rule 1 {\n type ping {\n }\n}\n"
        " rule 2 {\n type ping_ext {\n }\n }\n }\n}\n");
    const LBHealth& original = loaded.health("eth0");
    const LBHealth copy(original);
    EXPECT_EQ(copy.tests, original.tests);
}

TEST(Health, run_of_an_unknown_target_is_zero_and_not_entered) {
    LBHealth health("eth0", false);
    health.success_count["a"] = 2;
    health.failure_count["a"] = 3;
    EXPECT_EQ(health.get_success_ct_by_str("a"), 2);
    EXPECT_EQ(health.get_failure_ct_by_str("a"), 3);
    EXPECT_EQ(health.get_success_ct_by_str("b"), 0);
    EXPECT_EQ(health.get_failure_ct_by_str("b"), 0);
    EXPECT_EQ(health.success_count.size(), 1U);
    EXPECT_EQ(health.failure_count.size(), 1U);
}

TEST(Health, learnt_next_hop_is_used_for_dhcp_and_tunnel_only) {
    LBHealth health("eth0", false);
    health.nexthop_addr = "192.0.2.9";
    health.nexthop = "192.0.2.1";
    EXPECT_EQ(health.effective_nexthop(), "192.0.2.1");
    health.nexthop = "dhcp";
    EXPECT_EQ(health.effective_nexthop(), "192.0.2.9");
    health.nexthop = "tunnel";
    EXPECT_EQ(health.effective_nexthop(), "192.0.2.9");
}

TEST(History, pushes_a_result_and_gives_one_back) {
    LBHealthHistory history;
    EXPECT_EQ(history.get_last_resp(nullptr), -1);
    history.push(0, nullptr, "a");
    EXPECT_EQ(history.last_resp.at("a"), 0);
    EXPECT_EQ(history.get_last_resp(nullptr), 0);
}

TEST(RuleName, ipv4_in_it_makes_an_ipv4_rule) {
    EXPECT_TRUE(is_ipv4_rule("3_ipv4"));
    EXPECT_FALSE(is_ipv4_rule("2_ipv6"));
    EXPECT_FALSE(is_ipv4_rule("2"));
}

TEST(Choice, is_kept_by_the_rules_family_where_it_has_members) {
    LBRule rule;
    rule.interfaces[{"eth0", false}] = 1;
    rule.interfaces[{"eth0", true}] = 1;
    EXPECT_TRUE(chooses_for("1_ipv4", rule, false));
    EXPECT_FALSE(chooses_for("1_ipv4", rule, true));
    EXPECT_TRUE(chooses_for("1_ipv6", rule, true));
}

TEST(Choice, is_kept_by_the_other_family_where_only_that_has_members) {
    LBRule rule;
    rule.interfaces[{"eth0", true}] = 1;
    EXPECT_TRUE(chooses_for("1_ipv4", rule, true));
    EXPECT_FALSE(chooses_for("1_ipv4", rule, false));
}

TEST(Data, copy_is_deep_but_for_the_probes) {
    Loaded loaded("health {\n interface eth0 {\n }\n}\nrule 1_ipv4 {\n}\n");
    LBData copy(loaded.data());
    copy.health.at("eth0").nexthop = "x";
    copy.rules.at("1_ipv4").failover = 1;
    EXPECT_EQ(loaded.health("eth0").nexthop, "");
    EXPECT_EQ(loaded.data().rules.at("1_ipv4").failover, 0);
    EXPECT_EQ(copy.health.at("eth0").tests.at(1), loaded.health("eth0").tests.at(1));
}

TEST(Work, is_counted_by_namespace_and_family) {
    const Loaded loaded(
        "health {\n interface a {\n }\n interface6 b {\n namespace blue\n }\n}\n"
        "rule 1_ipv4 {\n}\nrule 2_ipv4 {\n}\nrule 2 {\n namespace red\n}\n");
    WorkByNamespace work = work_by_namespace(loaded.data());
    EXPECT_EQ(work.size(), 3U);
    EXPECT_EQ((work[{"", false}].interfaces), 1);
    EXPECT_EQ((work[{"", false}].rules), 2);
    EXPECT_EQ((work[{"blue", true}].interfaces), 1);
    EXPECT_EQ((work[{"red", true}].rules), 1);
}

TEST(Work, needs_a_worker_where_interfaces_meet_rules) {
    EXPECT_TRUE((NamespaceWork{.interfaces = 1, .rules = 1}.needs_worker()));
    EXPECT_FALSE((NamespaceWork{.interfaces = 1, .rules = 0}.needs_worker()));
    EXPECT_FALSE((NamespaceWork{.interfaces = 0, .rules = 1}.needs_worker()));
}

}  // namespace

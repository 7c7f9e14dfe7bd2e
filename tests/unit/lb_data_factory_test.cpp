#include "config/lb_data_factory.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "config/namespaces.h"
#include "probe/lb_test_icmp.h"
#include "probe/lb_test_icmp6.h"
#include "probe/lb_test_ping.h"
#include "unit/support/captured_log.h"
#include "unit/support/faults.h"
#include "unit/support/loaded.h"

namespace {

const std::string malformed = "%WAN-W-WARN: Malformed configuration file: brackets";
const std::string mismatched = "%WAN-W-WARN: Configuration error due to mismatched brackets";

std::string repeated(const std::string& text, int times) {
    std::string all;
    for (int i = 0; i < times; ++i) {
        all += text;
    }
    return all;
}

TEST(Syntax, empty_file_loads_and_holds_nothing) {
    const Loaded loaded("");
    EXPECT_TRUE(loaded.is_complete);
    EXPECT_TRUE(loaded.data().health.empty());
    EXPECT_TRUE(loaded.data().rules.empty());
}

TEST(Syntax, missing_file_is_reported) {
    const CapturedLog log;
    LBDataFactory factory;
    EXPECT_FALSE(factory.load("/nonexistent/lb.conf"));
    EXPECT_EQ(log.lines(),
              (std::vector<LogLine>{
                  {4, "%WAN-W-ERR: wan_lb: configuration file not found: /nonexistent/lb.conf"}}));
}

TEST(Syntax, comment_behind_an_opening_bracket_is_cut) {
    const Loaded loaded("health { # uplinks }\n interface eth0 { # one\n }\n}\n");
    EXPECT_TRUE(loaded.is_complete);
    EXPECT_TRUE(loaded.data().health.contains("eth0"));
}

TEST(Syntax, line_with_a_comment_only_does_nothing) {
    const Loaded loaded("health {\n# interface eth0 {\n}\n");
    EXPECT_TRUE(loaded.is_complete);
    EXPECT_TRUE(loaded.data().health.empty());
}

TEST(Syntax, tabs_indent_like_blanks) {
    Loaded loaded("health {\n\tinterface\teth0\t{\n\t\tnexthop\t192.0.2.1\n\t}\n}\n");
    EXPECT_EQ(loaded.health("eth0").nexthop, "192.0.2.1");
}

TEST(Syntax, quoted_value_holds_blanks) {
    Loaded loaded("health {\n interface eth0 {\n nexthop \"a b\tc\"\n }\n}\n");
    EXPECT_EQ(loaded.health("eth0").nexthop, "a b\tc");
}

TEST(Syntax, value_reaches_from_the_first_quote_to_the_last) {
    Loaded loaded("health {\n interface eth0 {\n nexthop \"a\" \"b\"\n }\n}\n");
    EXPECT_EQ(loaded.health("eth0").nexthop, "a\" \"b");
}

TEST(Syntax, with_one_quote_the_rest_of_the_line_is_the_value) {
    Loaded loaded("health {\n interface eth0 {\n nexthop \"a b\n }\n}\n");
    EXPECT_EQ(loaded.health("eth0").nexthop, "a b");
}

TEST(Syntax, bracket_inside_quotes_opens_a_block_all_the_same) {
    const CapturedLog log;
    const Loaded loaded("health {\n interface eth0 {\n nexthop \"a { b\"\n }\n}\n");
    EXPECT_FALSE(loaded.is_complete);
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{{4, mismatched}}));
}

TEST(Syntax, empty_quotes_give_an_empty_value) {
    Loaded loaded("health {\n interface eth0 {\n nexthop x\n nexthop \"\"\n }\n}\n");
    EXPECT_EQ(loaded.health("eth0").nexthop, "");
}

TEST(Syntax, quote_anywhere_in_the_line_gives_the_value) {
    Loaded loaded("health {\n interface eth0 {\n nexthop first \"second\"\n }\n}\n");
    EXPECT_EQ(loaded.health("eth0").nexthop, "second");
}

TEST(Syntax, comment_sign_inside_quotes_starts_a_comment_all_the_same) {
    Loaded loaded("health {\n interface eth0 {\n nexthop \"a#b\"\n }\n}\n");
    EXPECT_EQ(loaded.health("eth0").nexthop, "a");
}

TEST(Syntax, tilde_ends_a_word) {
    Loaded loaded("health {\n interface eth0 {\n nexthop~192.0.2.1~ignored\n }\n}\n");
    EXPECT_EQ(loaded.health("eth0").nexthop, "192.0.2.1");
}

TEST(Syntax, bracket_that_touches_a_word_is_part_of_it) {
    const CapturedLog log;
    const Loaded loaded("health{\n interface eth0{\n");
    EXPECT_TRUE(loaded.is_complete);
    EXPECT_TRUE(loaded.data().health.empty());
}

TEST(Syntax, last_line_needs_no_line_feed) {
    const Loaded loaded("health {\n interface eth0 {\n }\n}");
    EXPECT_TRUE(loaded.is_complete);
    EXPECT_TRUE(loaded.data().health.contains("eth0"));
}

TEST(Syntax, carriage_return_stays_on_the_value) {
    Loaded loaded("health {\n interface eth0 {\n nexthop 192.0.2.1\r\n }\n}\n");
    EXPECT_EQ(loaded.health("eth0").nexthop, "192.0.2.1\r");
}

TEST(Syntax, second_file_adds_to_what_was_loaded) {
    Loaded loaded("health {\n interface eth0 {\n }\n}\n");
    const TemporaryFile more("health {\n interface eth1 {\n }\n}\n");
    EXPECT_TRUE(loaded.factory.load(more.path()));
    EXPECT_TRUE(loaded.data().health.contains("eth0"));
    EXPECT_TRUE(loaded.data().health.contains("eth1"));
}

TEST(Syntax, third_word_is_ignored) {
    Loaded loaded("health {\n interface eth0 {\n nexthop 192.0.2.1 192.0.2.2\n }\n}\n");
    EXPECT_EQ(loaded.health("eth0").nexthop, "192.0.2.1");
}

TEST(Syntax, carriage_return_hides_the_brackets) {
    const Loaded loaded("health {\r\ninterface eth0 {\r\n}\r\n}\r\n");
    EXPECT_TRUE(loaded.is_complete);
    EXPECT_TRUE(loaded.data().health.empty());
}

TEST(Syntax, long_line_is_read_as_several) {
    // 1,023 characters are one read; what follows starts a line of its own.
    const std::string filled = " nexthop 192.0.2.1" + std::string(1023 - 18, ' ');
    Loaded loaded("health {\n interface eth0 {\n" + filled + "nexthop 192.0.2.2\n }\n}\n");
    EXPECT_EQ(loaded.health("eth0").nexthop, "192.0.2.2");
}

TEST(Syntax, thirty_one_nested_openings_are_accepted) {
    const CapturedLog log;
    const Loaded loaded(repeated("a {\n", 31) + repeated("}\n", 31));
    EXPECT_TRUE(loaded.is_complete);
    EXPECT_TRUE(log.lines().empty());
}

TEST(Syntax, thirty_two_nested_openings_are_refused) {
    const CapturedLog log;
    const Loaded loaded(repeated("a {\n", 32) + repeated("}\n", 32));
    EXPECT_FALSE(loaded.is_complete);
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{{4, malformed}}));
}

TEST(Syntax, depth_may_leave_the_stack_within_a_line_and_acts_on_nothing) {
    const CapturedLog log;
    const Loaded deep(repeated("{ ", 200) + "word " + repeated("} ", 200) + "\n");
    EXPECT_TRUE(deep.is_complete);
    const Loaded below(repeated("} ", 200) + "word " + repeated("{ ", 200) + "\n");
    EXPECT_TRUE(below.is_complete);
    EXPECT_TRUE(log.lines().empty());
}

TEST(Syntax, depth_is_judged_after_the_whole_line) {
    EXPECT_TRUE(Loaded("} {\n").is_complete);
}

TEST(Syntax, closing_bracket_too_many_ends_the_load_there) {
    const CapturedLog log;
    const Loaded loaded("}\nhealth {\n interface eth0 {\n }\n}\n");
    EXPECT_FALSE(loaded.is_complete);
    EXPECT_TRUE(loaded.data().health.empty());
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{{4, malformed}}));
}

TEST(Syntax, missing_closing_bracket_keeps_what_was_read_without_default_probes) {
    const CapturedLog log;
    Loaded loaded("health {\n interface eth0 {\n }\n");
    EXPECT_FALSE(loaded.is_complete);
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{{4, mismatched}}));
    EXPECT_TRUE(loaded.health("eth0").tests.empty());
}

TEST(Syntax, interface_without_a_probe_gets_one_without_a_target) {
    Loaded loaded("health {\n interface eth0 {\n }\n interface6 eth0 {\n }\n}\n");
    auto& tests = loaded.health("eth0").tests;
    ASSERT_EQ(tests.size(), 1U);
    ASSERT_TRUE(tests.contains(1));
    EXPECT_NE(dynamic_cast<LBTestICMP*>(tests.at(1)), nullptr);
    EXPECT_EQ(tests.at(1)->target, "");
    auto& tests6 = loaded.health6("eth0").tests6;
    ASSERT_EQ(tests6.size(), 1U);
    EXPECT_NE(dynamic_cast<LBTestICMP6*>(tests6.at(1)), nullptr);
    EXPECT_TRUE(loaded.health("eth0").history.last_resp.empty());
}

const char* const sample = R"(health {
    interface eth0 {
        success-ct 3
        failure-ct 2
        nexthop 192.0.2.1
        source_address 192.0.2.10
        check_all
        namespace blue
        rule 1 {
            type ping {
                target 198.51.100.1
                resp-time 1000
            }
        }
        rule 2 {
            type ping_ext {
                target 198.51.100.2
                period 240
                timeout 1500
                count 11
                loss 2
                rtt 201
                jitter 51
            }
        }
    }
    interface eth1 {
        nexthop dhcp
    }
    interface6 eth0 {
        nexthop 2001:db8::1
        rule 1 {
            type ping {
                target 2001:db8::53
            }
        }
    }
}
rule 1_ipv4 {
    namespace blue
    failover
    interface eth0 {
        weight 3
    }
    interface eth1 {
        weight 1
    }
    target {
        address 203.0.113.0/24
        metric 10
    }
}
rule 1_ipv6 {
    interface6 eth0 {
        weight 1
    }
}
)";

TEST(Sample, interface_has_every_field) {
    Loaded loaded(sample);
    ASSERT_TRUE(loaded.is_complete);
    const LBHealth& eth0 = loaded.health("eth0");
    EXPECT_EQ(eth0.success_ct, 3);
    EXPECT_EQ(eth0.failure_ct, 2);
    EXPECT_EQ(eth0.nexthop, "192.0.2.1");
    EXPECT_EQ(eth0.source_address, "192.0.2.10");
    EXPECT_TRUE(eth0.check_all);
    EXPECT_EQ(eth0.namespace_name, "blue");
    EXPECT_EQ(eth0.history.last_resp,
              (std::map<std::string, int>{{"198.51.100.1", -1}, {"198.51.100.2", -1}}));
    ASSERT_EQ(eth0.tests.size(), 2U);
    EXPECT_EQ(eth0.tests.at(1)->target, "198.51.100.1");
    EXPECT_EQ(eth0.tests.at(1)->timeout, 1000);
    const auto* ping = dynamic_cast<LBTestPING*>(eth0.tests.at(2));
    ASSERT_NE(ping, nullptr);
    EXPECT_EQ(ping->target, "198.51.100.2");
    EXPECT_EQ(ping->timeout, 5000);
    EXPECT_EQ(ping->period, 240);
    EXPECT_EQ(ping->ping_timeout.tv_sec, 1);
    EXPECT_EQ(ping->ping_timeout.tv_nsec, 500'000'000);
    EXPECT_EQ(ping->count, 11);
    EXPECT_EQ(ping->loss, 2);
    EXPECT_EQ(ping->rtt, 201);
    EXPECT_EQ(ping->jitter, 51);
}

TEST(Sample, families_have_interfaces_of_the_same_name) {
    Loaded loaded(sample);
    EXPECT_EQ(loaded.data().health.size(), 2U);
    EXPECT_EQ(loaded.health("eth1").nexthop, "dhcp");
    EXPECT_EQ(loaded.data().health6.size(), 1U);
    EXPECT_EQ(loaded.health6("eth0").nexthop, "2001:db8::1");
    EXPECT_EQ(loaded.health6("eth0").tests6.at(1)->target, "2001:db8::53");
    EXPECT_TRUE(loaded.health6("eth0").ipv6);
}

TEST(Sample, rules_have_members_and_targets) {
    const Loaded loaded(sample);
    const LBRule& rule = loaded.data().rules.at("1_ipv4");
    EXPECT_EQ(rule.failover, 1);
    EXPECT_EQ(rule.namespace_name, "blue");
    EXPECT_EQ(rule.interfaces, (std::map<std::pair<std::string, bool>, int>{{{"eth0", false}, 3},
                                                                            {{"eth1", false}, 1}}));
    EXPECT_EQ(rule.targets, (std::map<std::string, int>{{"203.0.113.0/24", 10}}));
    const LBRule& rule6 = loaded.data().rules.at("1_ipv6");
    EXPECT_EQ(rule6.failover, 0);
    EXPECT_EQ(rule6.interfaces, (std::map<std::pair<std::string, bool>, int>{{{"eth0", true}, 1}}));
    EXPECT_TRUE(namespaces.contains("blue"));
}

}  // namespace

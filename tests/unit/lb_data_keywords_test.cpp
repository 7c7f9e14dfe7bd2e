#include <gtest/gtest.h>

#include "config/namespaces.h"
#include "probe/lb_test_icmp.h"
#include "probe/lb_test_icmp6.h"
#include "probe/lb_test_ping.h"
#include "unit/support/captured_log.h"
#include "unit/support/loaded.h"

namespace {

std::string interface_block(const std::string& lines, const std::string& keyword = "interface") {
    return "health {\n " + keyword + " eth0 {\n" + lines + "\n }\n}\n";
}

std::string probe_block(const std::string& type, const std::string& lines = "",
                        const std::string& keyword = "interface") {
    return interface_block("rule 1 {\n type " + type + " {\n" + lines + "\n }\n}", keyword);
}

std::string rule_block(const std::string& lines, const std::string& name = "1_ipv4") {
    return "rule " + name + " {\n" + lines + "\n}\n";
}

std::vector<LogLine> error(const std::string& text) {
    return {{4, "%WAN-W-ERR: wan_lb: illegal " + text}};
}

TEST(SuccessCount, zero_is_refused_and_the_value_before_stays) {
    const CapturedLog log;
    Loaded loaded(interface_block("success-ct 3\nsuccess-ct 0"));
    EXPECT_EQ(loaded.health("eth0").success_ct, 3);
    EXPECT_EQ(log.lines(), error("success-ct specified in configuration file: 0"));
}

TEST(SuccessCount, letters_are_refused) {
    const CapturedLog log;
    Loaded loaded(interface_block("success-ct many"));
    EXPECT_EQ(loaded.health("eth0").success_ct, 0);
    EXPECT_EQ(log.lines(), error("success-ct specified in configuration file: many"));
}

TEST(SuccessCount, digits_before_letters_count) {
    EXPECT_EQ(Loaded(interface_block("success-ct 12x")).health("eth0").success_ct, 12);
}

TEST(SuccessCount, number_beyond_31_bits_is_negative_and_refused) {
    const CapturedLog log;
    Loaded loaded(interface_block("success-ct 4294967295"));
    EXPECT_EQ(loaded.health("eth0").success_ct, 0);
    EXPECT_EQ(log.lines(), error("success-ct specified in configuration file: 4294967295"));
}

TEST(FailureCount, zero_is_refused) {
    const CapturedLog log;
    Loaded loaded(interface_block("failure-ct 2\nfailure-ct 0"));
    EXPECT_EQ(loaded.health("eth0").failure_ct, 2);
    EXPECT_EQ(log.lines(), error("failure-ct specified in configuration file: 0"));
}

TEST(Weight, zero_is_refused) {
    const CapturedLog log;
    const Loaded loaded(rule_block("interface eth0 {\n weight 0\n}"));
    EXPECT_EQ(loaded.data().rules.at("1_ipv4").interfaces.at({"eth0", false}), 0);
    EXPECT_EQ(log.lines(), error("interface weight specified in configuration file: 0"));
}

TEST(Keywords, unknown_and_wrongly_spelt_ones_are_ignored_silently) {
    const CapturedLog log;
    Loaded loaded(interface_block("Nexthop 192.0.2.1\nspeed 100") + "other {\n interface x\n}\n");
    EXPECT_EQ(loaded.health("eth0").nexthop, "");
    EXPECT_TRUE(loaded.is_complete);
    EXPECT_TRUE(log.lines().empty());
}

TEST(Interface, empty_name_is_ignored) {
    const Loaded loaded("health {\n interface {\n }\n}\n");
    EXPECT_TRUE(loaded.data().health.empty());
}

TEST(Interface, second_block_changes_the_first_further) {
    Loaded loaded(interface_block("nexthop 192.0.2.1") + interface_block("success-ct 3"));
    EXPECT_EQ(loaded.data().health.size(), 1U);
    EXPECT_EQ(loaded.health("eth0").nexthop, "192.0.2.1");
    EXPECT_EQ(loaded.health("eth0").success_ct, 3);
}

TEST(Interface, namespaces_of_interfaces_and_rules_are_collected) {
    const Loaded loaded(interface_block("namespace collected_a") +
                        rule_block("namespace collected_b"));
    EXPECT_TRUE(namespaces.contains("collected_a"));
    EXPECT_TRUE(namespaces.contains("collected_b"));
}

TEST(Type, ping_has_its_defaults) {
    Loaded loaded(probe_block("ping"));
    const auto* probe = dynamic_cast<LBTestICMP*>(loaded.health("eth0").tests.at(1));
    ASSERT_NE(probe, nullptr);
    EXPECT_EQ(probe->timeout, 5000);
    EXPECT_FALSE(probe->spare_flag);
    EXPECT_EQ(probe->last_result, 0);
}

TEST(Type, ping_ext_has_its_defaults) {
    Loaded loaded(probe_block("ping_ext"));
    const auto* probe = dynamic_cast<LBTestPING*>(loaded.health("eth0").tests.at(1));
    ASSERT_NE(probe, nullptr);
    EXPECT_EQ(probe->timeout, 5000);
    EXPECT_TRUE(probe->spare_flag);
    EXPECT_EQ(probe->ping_timeout.tv_sec, 1);
    EXPECT_EQ(probe->ping_timeout.tv_nsec, 0);
    EXPECT_EQ(probe->period, 240);
    EXPECT_EQ(probe->jitter, 50);
    EXPECT_EQ(probe->count, 10);
    EXPECT_EQ(probe->loss, 1);
    EXPECT_EQ(probe->rtt, 200);
    EXPECT_EQ(probe->last_jitter + probe->last_loss + probe->last_rtt, 0);
}

TEST(Type, first_probe_of_a_number_stays) {
    Loaded loaded(
        interface_block("rule 1 {\n type ping {\n target a\n }\n}\n"
                        "rule 1 {\n type ping_ext {\n target b\n }\n}"));
    const auto& tests = loaded.health("eth0").tests;
    ASSERT_EQ(tests.size(), 1U);
    EXPECT_NE(dynamic_cast<LBTestICMP*>(tests.at(1)), nullptr);
    EXPECT_EQ(tests.at(1)->target, "b");  // the second block's lines act on the probe that stayed
}

TEST(Type, second_type_block_in_a_rule_gets_the_number_zero) {
    Loaded loaded(interface_block("rule 7 {\n type ping {\n }\n type ping {\n }\n}"));
    const auto& tests = loaded.health("eth0").tests;
    EXPECT_EQ(tests.size(), 2U);
    EXPECT_TRUE(tests.contains(0));
    EXPECT_TRUE(tests.contains(7));
}

TEST(Type, unknown_word_creates_nothing_and_its_target_is_skipped) {
    Loaded loaded(probe_block("tcp", "target 198.51.100.1"));
    EXPECT_TRUE(loaded.health("eth0").history.last_resp.empty());
    EXPECT_EQ(loaded.health("eth0").tests.at(1)->target, "");  // the default probe
}

TEST(Type, ping_ext_of_an_ipv6_interface_leaves_the_current_probe) {
    Loaded loaded(
        interface_block("rule 1 {\n type ping {\n target 2001:db8::1\n }\n}\n"
                        "rule 2 {\n type ping_ext {\n target 2001:db8::2\n }\n}",
                        "interface6"));
    const auto& tests = loaded.health6("eth0").tests6;
    ASSERT_EQ(tests.size(), 1U);
    EXPECT_EQ(tests.at(1)->target, "2001:db8::2");
}

TEST(Type, extended_settings_do_nothing_to_an_echo_probe_or_without_one) {
    Loaded echo(probe_block("ping", "count 3\nloss 4\nperiod 5\ntimeout 6\nrtt 7\njitter 8"));
    EXPECT_NE(dynamic_cast<LBTestICMP*>(echo.health("eth0").tests.at(1)), nullptr);
    EXPECT_EQ(echo.health("eth0").tests.at(1)->timeout, 5000);
    Loaded none(interface_block("rule 1 {\n a {\n count 3\n loss 4\n }\n}"));
    EXPECT_EQ(none.health("eth0").tests.size(), 1U);
}

TEST(Type, wait_of_an_extended_ping_is_split_into_seconds_and_nanoseconds) {
    Loaded loaded(probe_block("ping_ext", "timeout 2750"));
    const auto* probe = dynamic_cast<LBTestPING*>(loaded.health("eth0").tests.at(1));
    EXPECT_EQ(probe->ping_timeout.tv_sec, 2);
    EXPECT_EQ(probe->ping_timeout.tv_nsec, 750'000'000);
}

TEST(Target, empty_value_is_skipped) {
    Loaded loaded(probe_block("ping", "target"));
    EXPECT_TRUE(loaded.health("eth0").history.last_resp.empty());
}

TEST(Target, response_time_is_the_probes_timeout) {
    EXPECT_EQ(Loaded(probe_block("ping", "resp-time 70")).health("eth0").tests.at(1)->timeout, 70);
    EXPECT_EQ(Loaded(probe_block("ping", "resp-time 80", "interface6"))
                  .health6("eth0")
                  .tests6.at(1)
                  ->timeout,
              80);
}

TEST(Rule, number_below_one_is_refused_and_lines_act_on_the_rule_before) {
    const CapturedLog log;
    const Loaded loaded(rule_block("", "2_ipv4") + rule_block("failover", "0_ipv4"));
    EXPECT_EQ(loaded.data().rules.size(), 1U);
    EXPECT_EQ(loaded.data().rules.at("2_ipv4").failover, 1);
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{{4, "%WAN-W-WARN: Illegal rule number: 0_ipv4"}}));
}

TEST(Rule, lines_without_any_rule_are_skipped) {
    const CapturedLog log;
    const Loaded loaded(
        rule_block("failover\nnamespace lost\ninterface eth0 {\n weight 1\n}\n"
                   "target {\n address 10.0.0.0/8\n metric 1\n}",
                   "x"));
    EXPECT_TRUE(loaded.data().rules.empty());
    EXPECT_FALSE(namespaces.contains("lost"));
}

TEST(Rule, target_with_a_value_and_no_block_makes_a_rule) {
    const Loaded loaded(rule_block("target 10.0.0.0/8"));
    EXPECT_TRUE(loaded.data().rules.contains("10.0.0.0/8"));
}

TEST(Rule, interface_without_a_block_is_an_illegal_rule_number) {
    const CapturedLog log;
    const Loaded loaded(rule_block("interface eth0"));
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{{4, "%WAN-W-WARN: Illegal rule number: eth0"}}));
}

TEST(Rule, existing_rule_is_kept) {
    const Loaded loaded(rule_block("failover") + rule_block("target {\n address 10.0.0.0/8\n}"));
    EXPECT_EQ(loaded.data().rules.at("1_ipv4").failover, 1);
    EXPECT_EQ(loaded.data().rules.at("1_ipv4").targets.size(), 1U);
}

TEST(Rule, destination_has_no_metric_unless_told) {
    const Loaded loaded(
        rule_block("target {\n address 10.0.0.0/8\n}\ntarget {\n metric 7\n"
                   "address 10.1.0.0/16\n metric 9\n}"));
    EXPECT_EQ(loaded.data().rules.at("1_ipv4").targets,
              (std::map<std::string, int>{{"10.0.0.0/8", 7}, {"10.1.0.0/16", 9}}));
}

TEST(Rule, new_rule_starts_without_a_member_or_destination) {
    const Loaded loaded(
        rule_block("interface eth0 {\n weight 2\n}\ntarget {\n address 10.0.0.0/8\n}") +
        rule_block("interface {\n weight 5\n}\ntarget {\n metric 5\n}", "2_ipv4"));
    EXPECT_EQ(loaded.data().rules.at("1_ipv4").interfaces.at({"eth0", false}), 2);
    EXPECT_EQ(loaded.data().rules.at("1_ipv4").targets.at("10.0.0.0/8"), -1);
}

TEST(Rule, members_carry_the_family_of_their_keyword) {
    const Loaded loaded(
        rule_block("interface eth0 {\n weight 1\n}\ninterface6 eth0 {\n weight 2\n}"));
    const auto& members = loaded.data().rules.at("1_ipv4").interfaces;
    EXPECT_EQ(members.at({"eth0", false}), 1);
    EXPECT_EQ(members.at({"eth0", true}), 2);
}

TEST(FailureCount, letters_are_refused) {
    const CapturedLog log;
    Loaded loaded(interface_block("failure-ct few"));
    EXPECT_EQ(loaded.health("eth0").failure_ct, 0);
    EXPECT_EQ(log.lines(), error("failure-ct specified in configuration file: few"));
}

/// What the loader reads out of the text: a metric takes any number.
int number_read(const std::string& text) {
    const Loaded loaded(rule_block("target {\n address 10.0.0.0/8\n metric " + text + "\n}"));
    return loaded.data().rules.at("1_ipv4").targets.at("10.0.0.0/8");
}

TEST(Number, is_read_up_to_the_first_character_that_is_no_digit) {
    EXPECT_EQ(number_read("12letters"), 12);
    EXPECT_EQ(number_read("1.9"), 1);
    EXPECT_EQ(number_read("letters"), 0);
    EXPECT_EQ(number_read(""), 0);
}

TEST(Number, is_decimal) {
    EXPECT_EQ(number_read("010"), 10);
    EXPECT_EQ(number_read("0x10"), 0);
}

TEST(Number, may_have_a_sign_and_blanks_before_it) {
    EXPECT_EQ(number_read("+7"), 7);
    EXPECT_EQ(number_read("-7"), -7);
    EXPECT_EQ(number_read("\" 8\""), 8);
}

TEST(Number, is_cut_to_32_bits) {
    EXPECT_EQ(number_read("2147483647"), 2147483647);
    EXPECT_EQ(number_read("2147483648"), -2147483647 - 1);
    EXPECT_EQ(number_read("4294967297"), 1);
    EXPECT_EQ(number_read("99999999999999999999"), -1);
}

TEST(Weight, letters_and_negative_numbers_are_refused) {
    const CapturedLog log;
    const Loaded loaded(rule_block("interface eth0 {\n weight 3\n weight much\n weight -1\n}"));
    EXPECT_EQ(loaded.data().rules.at("1_ipv4").interfaces.at({"eth0", false}), 3);
    EXPECT_EQ(log.lines(),
              (std::vector<LogLine>{
                  {4,
                   "%WAN-W-ERR: wan_lb: illegal interface weight specified in configuration "
                   "file: much"},
                  {4,
                   "%WAN-W-ERR: wan_lb: illegal interface weight specified in configuration "
                   "file: -1"}}));
}

TEST(Interface, keywords_act_at_their_own_depth_only) {
    const CapturedLog log;
    Loaded loaded(
        "health {\n interface eth0 {\n }\n nexthop 192.0.2.1\n success-ct 0\n"
        " interface eth1\n}\n");
    EXPECT_EQ(loaded.health("eth0").nexthop, "");
    EXPECT_FALSE(loaded.data().health.contains("eth1"));
    EXPECT_TRUE(log.lines().empty());
}

TEST(Interface, flags_ignore_their_value) {
    EXPECT_TRUE(Loaded(interface_block("check_all no")).health("eth0").check_all);
    EXPECT_EQ(Loaded(rule_block("failover no")).data().rules.at("1_ipv4").failover, 1);
}

TEST(ProbeNumber, is_taken_from_a_line_of_any_keyword) {
    Loaded loaded(interface_block("anything 4 {\n type ping {\n }\n}"));
    EXPECT_TRUE(loaded.health("eth0").tests.contains(4));
}

TEST(ProbeNumber, is_zero_where_none_is_given) {
    Loaded loaded(interface_block("rule {\n type ping {\n }\n}"));
    EXPECT_TRUE(loaded.health("eth0").tests.contains(0));
}

TEST(ProbeNumber, of_an_ipv6_probe_declared_twice_keeps_the_first_and_the_lines_of_both) {
    Loaded loaded(
        interface_block("rule 1 {\n type ping {\n target a\n }\n}\n"
                        "rule 1 {\n type ping {\n resp-time 7\n }\n}",
                        "interface6"));
    ASSERT_EQ(loaded.health6("eth0").tests6.size(), 1U);
    EXPECT_EQ(loaded.health6("eth0").tests6.at(1)->target, "a");
    EXPECT_EQ(loaded.health6("eth0").tests6.at(1)->timeout, 7);
}

TEST(Type, unknown_word_makes_the_probe_of_the_number_current) {
    Loaded loaded(
        interface_block("rule 1 {\n type ping {\n target a\n }\n}\n"
                        "rule 2 {\n type ping {\n target b\n }\n}\n"
                        "rule 1 {\n type tcp {\n target c\n }\n}"));
    EXPECT_EQ(loaded.health("eth0").tests.at(1)->target, "c");
    EXPECT_EQ(loaded.health("eth0").tests.at(2)->target, "b");
}

TEST(Type, extended_settings_in_an_ipv6_interface_leave_the_ipv4_probe_before_it) {
    Loaded loaded(probe_block("ping_ext") + probe_block("ping", "count 3", "interface6"));
    const auto* probe = dynamic_cast<LBTestPING*>(loaded.health("eth0").tests.at(1));
    ASSERT_NE(probe, nullptr);
    EXPECT_EQ(probe->count, 10);
}

TEST(Target, of_an_ipv6_probe_is_entered_as_unanswered) {
    Loaded loaded(probe_block("ping", "target 2001:db8::53", "interface6"));
    EXPECT_EQ(loaded.health6("eth0").history.last_resp,
              (std::map<std::string, int>{{"2001:db8::53", -1}}));
}

TEST(Target, second_one_of_a_probe_replaces_the_first_and_both_are_remembered) {
    Loaded loaded(probe_block("ping", "target a\ntarget b"));
    EXPECT_EQ(loaded.health("eth0").tests.at(1)->target, "b");
    EXPECT_EQ(loaded.health("eth0").history.last_resp,
              (std::map<std::string, int>{{"a", -1}, {"b", -1}}));
}

TEST(Rule, any_keyword_inside_it_names_a_rule) {
    const Loaded loaded(rule_block("whatever 5_ipv6"));
    EXPECT_TRUE(loaded.data().rules.contains("5_ipv6"));
}

TEST(Rule, line_outside_of_any_block_names_a_rule) {
    LBDataFactory factory;
    std::vector<std::string> stack(32);
    stack[0] = "rule";
    factory.process(stack, 0, "rule", "4_ipv4");
    factory.process(stack, -1, "rule", "5_ipv4");
    EXPECT_TRUE(factory.data.rules.contains("4_ipv4"));
    EXPECT_TRUE(factory.data.rules.contains("5_ipv4"));
}

TEST(Rule, failover_block_counts_like_a_failover_line) {
    const Loaded loaded(rule_block("failover {\n whatever\n}"));
    EXPECT_EQ(loaded.data().rules.at("1_ipv4").failover, 1);
}

TEST(Rule, closing_bracket_of_a_namespace_block_keeps_the_name) {
    const Loaded loaded(rule_block("namespace blue {\n}"));
    EXPECT_EQ(loaded.data().rules.at("1_ipv4").namespace_name, "blue");
}

TEST(Rule, member_declared_twice_keeps_its_weight) {
    const Loaded loaded(rule_block("interface eth0 {\n weight 3\n}\ninterface eth0 {\n}"));
    EXPECT_EQ(loaded.data().rules.at("1_ipv4").interfaces.at({"eth0", false}), 3);
}

TEST(Rule, destination_declared_twice_keeps_its_metric) {
    const Loaded loaded(
        rule_block("target {\n address 10.0.0.0/8\n metric 3\n address 10.0.0.0/8\n}"));
    EXPECT_EQ(loaded.data().rules.at("1_ipv4").targets.at("10.0.0.0/8"), 3);
}

}  // namespace

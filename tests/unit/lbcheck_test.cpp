#include <gtest/gtest.h>

#include "lbcheck/findings.h"
#include "unit/support/loaded.h"

namespace {

using lbcheck::Finding;
using lbcheck::Severity;

std::vector<Finding> findings_in(const std::string& text) {
    const TemporaryFile file(text);
    return lbcheck::check(file.path()).findings;
}

/// A file that is clean but for what is put into its blocks.
std::string conf(const std::string& in_interface = "", const std::string& in_probe = "",
                 const std::string& in_rule = "", const std::string& behind = "") {
    return "health {\n"
           "interface eth0 {\n"
           "success-ct 3\nfailure-ct 2\nnexthop 192.0.2.1\n" +
           in_interface + "rule 1 {\ntype ping_ext {\ntarget 198.51.100.1\n" + in_probe +
           "}\n}\n"
           "}\n}\n"
           "rule 1_ipv4 {\ninterface eth0 {\nweight 1\n}\ntarget {\naddress 0.0.0.0/0\n}\n" +
           in_rule + "}\n" + behind;
}

/// The one finding of a file, as "line severity 'text' message".
std::string only_finding(const std::string& text) {
    const auto findings = findings_in(text);
    std::string all;
    for (const Finding& one : findings) {
        all += (all.empty() ? "" : "\n") + std::to_string(one.line) +
               (one.severity == Severity::error ? " error '" : " warning '") + one.text + "' " +
               one.message;
    }
    return all;
}

TEST(Check, clean_file_has_no_findings) {
    EXPECT_EQ(only_finding(conf()), "");
}

TEST(Check, missing_file_is_an_error) {
    const auto findings = lbcheck::check("/nonexistent").findings;
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].message, "wan_lb: configuration file not found: /nonexistent");
    EXPECT_EQ(lbcheck::exit_status(findings, false), 2);
}

TEST(Check, unknown_keyword_is_told_with_its_line) {
    EXPECT_EQ(only_finding(conf("nexthopp 192.0.2.2\n")),
              "6 warning 'nexthopp 192.0.2.2' unknown or misplaced keyword: ignored");
}

TEST(Check, value_that_is_cut_short_is_told) {
    EXPECT_EQ(only_finding(conf("", "resp-time 12s\n")),
              "9 warning 'resp-time 12s' no plain number: the digits before the first other "
              "character count");
}

TEST(Check, refused_value_is_told_in_the_loaders_words) {
    EXPECT_EQ(only_finding(conf("success-ct 0\n")),
              "6 warning '' wan_lb: illegal success-ct specified in configuration file: 0");
}

TEST(Check, carriage_returns_are_an_error) {
    const auto findings = findings_in("health {\r\n}\r\n");
    ASSERT_FALSE(findings.empty());
    EXPECT_EQ(findings[0].severity, Severity::error);
    EXPECT_NE(findings[0].message.find("carriage returns"), std::string::npos);
}

TEST(Check, brackets_are_an_error) {
    EXPECT_EQ(only_finding("}\n"), "1 error '' Malformed configuration file: brackets");
    EXPECT_EQ(only_finding("health {\n"),
              "1 error '' Configuration error due to mismatched brackets");
}

TEST(Check, comment_longer_than_a_read_is_told) {
    EXPECT_NE(only_finding("# " + std::string(1100, 'x') + "\n")
                  .find("1 warning '' the line is longer than a read of 1,023 characters: the rest "
                        "of its comment"),
              std::string::npos);
}

TEST(Check, block_declared_twice_is_told) {
    EXPECT_EQ(
        only_finding(conf("", "", "", "health {\ninterface eth0 {\n}\n}\n")),
        "22 warning 'interface eth0' declared before: the lines of both blocks act on one entry");
    EXPECT_EQ(
        only_finding(conf("", "", "", "rule 1_ipv4 {\n}\n")),
        "21 warning 'rule 1_ipv4' declared before: the lines of both blocks act on one entry");
}

TEST(Check, probe_dropped_by_a_repeated_number_is_told) {
    EXPECT_EQ(only_finding(conf("rule 1 {\ntype ping {\ntarget 198.51.100.9\n}\n}\n")),
              "12 warning 'type ping_ext' the number of this rule has a probe already: this one is "
              "dropped");
}

TEST(Check, rule_without_targets_or_members_is_told) {
    EXPECT_EQ(only_finding(conf("", "", "", "rule 2_ipv4 {\n}\n")),
              "21 warning 'rule 2_ipv4' has no target: it routes nothing\n"
              "21 warning 'rule 2_ipv4' has no interface: it routes nothing");
}

TEST(Check, rule_whose_namespace_has_no_interface_is_told) {
    EXPECT_EQ(only_finding(conf("", "", "namespace blue\n")),
              "13 warning 'rule 1_ipv4' no interface of its family lies in its namespace: no "
              "worker serves it\n"
              "13 warning 'interface eth0' lies in another namespace than the rule");
}

TEST(Check, member_that_is_not_under_health_is_told) {
    EXPECT_EQ(only_finding(conf("", "", "interface eth9 {\nweight 1\n}\n")),
              "13 warning 'interface eth9' is not under health: never active");
}

TEST(Check, interface_in_no_rule_is_told) {
    EXPECT_EQ(
        only_finding(conf(
            "", "", "",
            "health {\ninterface eth1 {\nsuccess-ct 1\nfailure-ct 1\nnexthop 192.0.2.9\n}\n}\n")),
        "22 warning 'interface eth1' is a member of no rule: probed, never routed");
}

TEST(Check, missing_counts_are_told) {
    EXPECT_EQ(only_finding(conf("", "", "interface eth1 {\nweight 1\n}\n",
                                "health {\ninterface eth1 {\nnexthop 192.0.2.9\n}\n}\n")),
              "25 warning 'interface eth1' without success-ct or failure-ct every single result "
              "counts at once");
}

TEST(Check, member_without_weight_is_told) {
    EXPECT_EQ(
        only_finding(conf(
            "", "", "interface eth1 {\n}\n",
            "health {\ninterface eth1 {\nsuccess-ct 1\nfailure-ct 1\nnexthop 192.0.2.9\n}\n}\n")),
        "13 warning 'interface eth1' has no weight: never routed");
}

TEST(Check, addresses_that_do_not_parse_are_errors) {
    EXPECT_EQ(only_finding(conf("nexthop 2001:db8::1\n")),
              "6 error 'nexthop 2001:db8::1' no address of the interface's family");
    EXPECT_EQ(only_finding(conf("source_address eth0\n")),
              "6 error 'source_address eth0' no address of the interface's family");
    EXPECT_EQ(only_finding(conf("", "target example.org\n")),
              "9 error 'target example.org' no address of the interface's family: the probe is "
              "never sent");
    EXPECT_EQ(only_finding(conf("", "", "target {\naddress 10.0.0.0\n}\n")),
              "21 error 'address 10.0.0.0' no prefix of the rule's family");
    EXPECT_EQ(only_finding(conf("", "", "target {\naddress 10.0.0.0/33\n}\n")),
              "21 error 'address 10.0.0.0/33' no prefix of the rule's family");
}

TEST(Check, extended_ping_for_ipv6_is_an_error) {
    const std::string found =
        only_finding("health {\ninterface6 eth0 {\nrule 1 {\ntype ping_ext {\n}\n}\n}\n}\n");
    EXPECT_NE(found.find(
                  "4 error 'type ping_ext' there is no extended ping for IPv6: nothing is created"),
              std::string::npos)
        << found;
}

TEST(Check, unknown_type_and_its_target_are_told) {
    const std::string found = only_finding(
        "health {\ninterface eth0 {\nrule 1 {\ntype tcp {\ntarget 192.0.2.1\n}\n}\n}\n}\n");
    EXPECT_NE(found.find("4 error 'type tcp' no such type of probe: nothing is created"),
              std::string::npos);
    EXPECT_NE(found.find("5 warning 'target 192.0.2.1' no probe is current: ignored"),
              std::string::npos);
}

TEST(Check, limits_that_fail_every_run_are_told) {
    EXPECT_EQ(only_finding(conf("", "loss 0\n")),
              "9 warning 'loss 0' a loss limit of 0 fails every run");
    EXPECT_EQ(only_finding(conf("", "count 0\n")),
              "9 warning 'count 0' a count of 0 fails every run");
}

TEST(Check, extended_settings_of_an_echo_probe_are_told) {
    EXPECT_EQ(only_finding(conf("rule 2 {\ntype ping {\ncount 3\n}\n}\n")),
              "8 warning 'count 3' acts on a probe of type ping_ext only");
}

TEST(Check, learnt_next_hop_for_ipv6_is_told) {
    const std::string found = only_finding("health {\ninterface6 eth0 {\nnexthop dhcp\n}\n}\n");
    EXPECT_NE(found.find("2 warning 'nexthop dhcp' an IPv6 probe needs a configured next hop"),
              std::string::npos);
}

TEST(ExitStatus, tells_errors_from_warnings) {
    const Finding warning{.line = 1, .severity = Severity::warning, .text = "", .message = ""};
    const Finding error{.line = 1, .severity = Severity::error, .text = "", .message = ""};
    EXPECT_EQ(lbcheck::exit_status({}, true), 0);
    EXPECT_EQ(lbcheck::exit_status({warning}, false), 0);
    EXPECT_EQ(lbcheck::exit_status({warning}, true), 1);
    EXPECT_EQ(lbcheck::exit_status({warning, error}, false), 2);
}

TEST(Texts, name_file_line_and_text) {
    const std::vector<Finding> one{
        {.line = 3, .severity = Severity::error, .text = "a b", .message = "bad"}};
    EXPECT_EQ(lbcheck::as_text("f.conf", one), "f.conf:3: error: 'a b': bad\n");
    EXPECT_EQ(lbcheck::as_json("f.conf", one),
              "{\n  \"file\": \"f.conf\",\n  \"findings\": [\n    {\n      \"line\": 3,\n"
              "      \"severity\": \"error\",\n      \"text\": \"a b\",\n      \"message\": "
              "\"bad\"\n    }\n  ]\n}\n");
}

TEST(Explanation, shows_workers_probes_and_routes) {
    const TemporaryFile file(conf("", "", "failover\n"));
    EXPECT_EQ(lbcheck::explain(lbcheck::check(file.path()).data),
              "Workers:\n  the default namespace, IPv4: 1 interfaces, 1 rules\n"
              "Interfaces:\n  eth0 (IPv4), the default namespace, next hop 192.0.2.1, up after 3, "
              "down after 2\n"
              "    probe 1: ping extended, target 198.51.100.1, 5000 ms; 10 echoes of 1000 ms, "
              "limits loss 1%, "
              "rtt 200 ms, jitter 50 ms\n"
              "Rules:\n  1_ipv4, the default namespace, failover\n"
              "    route 0.0.0.0/0 multipath via 192.0.2.1 weight 1;\n");
}

}  // namespace

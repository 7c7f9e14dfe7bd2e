#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <thread>

#include "lbcheck/findings.h"
#include "unit/support/captured_log.h"
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
                 const std::string& in_rule = "", const std::string& behind = "",
                 const std::string& nexthop = "nexthop 192.0.2.1\n") {
    return "health {\n"
           "interface eth0 {\n"
           "success-ct 3\nfailure-ct 2\n" +
           nexthop + in_interface + "rule 1 {\ntype ping_ext {\ntarget 198.51.100.1\n" + in_probe +
           "}\n}\n"
           "}\n}\n"
           "rule 1_ipv4 {\ninterface eth0 {\nweight 1\n}\ntarget {\naddress 0.0.0.0/0\n}\n" +
           in_rule + "}\n" + behind;
}

/// What is found in a file, as "line severity 'text' message".
std::string found_in(const std::string& text) {
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
    EXPECT_EQ(found_in(conf()), "");
}

TEST(Check, missing_file_is_an_error) {
    const auto findings = lbcheck::check("/nonexistent").findings;
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].message, "cannot be read: No such file or directory");
    EXPECT_EQ(lbcheck::exit_status(findings, false), 2);
}

TEST(Check, pipe_without_a_writer_is_an_error) {
    const TemporaryFile place("");
    const std::string pipe = place.path() + ".pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const auto findings = lbcheck::check(pipe).findings;
    unlink(pipe.c_str());
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].message, "cannot be read: it is a pipe, and nobody writes into it");
}

TEST(Check, pipe_is_read_to_its_end) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    std::thread writer([end = ends[1]] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const std::string text = conf("weight 2\n");
        EXPECT_EQ(write(end, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        close(end);
    });
    const auto findings = lbcheck::check("/proc/self/fd/" + std::to_string(ends[0])).findings;
    writer.join();
    close(ends[0]);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].text, "weight 2");
}

TEST(Check, unknown_keyword_is_told_with_its_line) {
    EXPECT_EQ(found_in(conf("failover-ct 2\n")),
              "6 warning 'failover-ct 2' unknown keyword: ignored");
    EXPECT_EQ(
        found_in(conf("weight 2\n")),
        "6 warning 'weight 2' acts on nothing here: it stands in rule NAME { interface NAME {");
}

TEST(Check, rule_without_targets_or_members_is_told) {
    EXPECT_EQ(found_in(conf("", "", "", "rule 2_ipv4 {\n}\n")),
              "21 warning 'rule 2_ipv4' has no target: it routes nothing\n"
              "21 warning 'rule 2_ipv4' has no interface: it routes nothing");
}

TEST(Check, rule_whose_name_ends_the_dumps_is_told) {
    const std::string found = found_in(
        conf("", "", "",
             "rule 2ipv4 {\ninterface eth0 {\nweight 1\n}\ntarget {\naddress 10.0.0.0/8\n}\n}\n"));
    EXPECT_EQ(found,
              "21 warning 'rule 2ipv4' is not called NUMBER_ipv4 or NUMBER_ipv6: the dump of "
              "the rules ends here");
}

TEST(Check, destination_of_two_rules_is_told) {
    const std::string found = found_in(
        conf("", "", "",
             "rule 2_ipv4 {\ninterface eth0 {\nweight 1\n}\ntarget {\naddress 0.0.0.0/0\n}\n}\n"));
    EXPECT_EQ(found,
              "21 warning 'rule 2_ipv4' routes 0.0.0.0/0 as rule 1_ipv4 does: the routing "
              "daemon is given both");
}

/// An IPv6 uplink with one probe, and a rule for it.
std::string conf6(const std::string& source, const std::string& target) {
    return "health {\ninterface6 eth0 {\nsuccess-ct 1\nfailure-ct 1\nnexthop 2001:db8::1\n" +
           source + "rule 1 {\ntype ping {\n" + target +
           "}\n}\n}\n}\n"
           "rule 1_ipv6 {\ninterface6 eth0 {\nweight 1\n}\ntarget {\naddress ::/0\n}\n}\n";
}

TEST(Check, ipv6_target_behind_the_next_hop_wants_a_source) {
    EXPECT_EQ(
        found_in(conf6("", "target 2001:db8::53\n")),
        "2 warning 'interface6 eth0' without source_address its probes leave from the link-local "
        "address, which a target behind the next hop cannot answer");
    EXPECT_EQ(found_in(conf6("source_address 2001:db8::2\n", "target 2001:db8::53\n")), "");
    EXPECT_EQ(found_in(conf6("", "")).find("source_address"), std::string::npos);
    EXPECT_EQ(found_in(conf6("", "target 2001:db8::1\n")).find("source_address"),
              std::string::npos);
}

TEST(Check, interface_in_no_rule_is_told) {
    EXPECT_EQ(
        found_in(conf("", "", "",
                      "health {\ninterface eth1 {\nsuccess-ct 1\nfailure-ct 1\nnexthop 192.0.2.9\n"
                      "rule 1 {\ntype ping {\ntarget 198.51.100.2\n}\n}\n}\n}\n")),
        "22 warning 'interface eth1' is a member of no rule: probed, never routed");
}

TEST(Check, addresses_that_do_not_parse_are_errors) {
    EXPECT_EQ(found_in(conf("", "", "", "", "nexthop 2001:db8::1\n")),
              "5 error 'nexthop 2001:db8::1' not an address of the interface's family");
    EXPECT_EQ(found_in(conf("source_address eth0\n")),
              "6 error 'source_address eth0' not an address of the interface's family");
    EXPECT_EQ(
        found_in(conf("", "target example.org\n")),
        "8 warning 'target 198.51.100.1' never asked, as a later target of its probe replaces "
        "it: give it a rule with a number of its own\n"
        "9 error 'target example.org' not an address of the interface's family: the probe is "
        "never sent");
    EXPECT_EQ(found_in(conf("", "", "target {\naddress 10.0.0.0\n}\n")),
              "21 error 'address 10.0.0.0' not a prefix of the rule's family");
    EXPECT_EQ(found_in(conf("", "", "target {\naddress 10.0.0.0/33\n}\n")),
              "21 error 'address 10.0.0.0/33' not a prefix of the rule's family");
}

TEST(Check, extended_ping_for_ipv6_is_an_error) {
    const std::string found =
        found_in("health {\ninterface6 eth0 {\nrule 1 {\ntype ping_ext {\n}\n}\n}\n}\n");
    EXPECT_NE(found.find(
                  "4 error 'type ping_ext' there is no extended ping for IPv6: nothing is created"),
              std::string::npos)
        << found;
}

TEST(Check, unknown_type_and_its_target_are_told) {
    const std::string found = found_in(
        "health {\ninterface eth0 {\nrule 1 {\ntype tcp {\ntarget 192.0.2.1\n}\n}\n}\n}\n");
    EXPECT_NE(found.find("4 error 'type tcp' no such type of probe: nothing is created"),
              std::string::npos);
    EXPECT_NE(found.find("5 warning 'target 192.0.2.1' no probe is current: ignored"),
              std::string::npos);
}

/// A second interface under health, with what it needs.
const char* const eth1 =
    "health {\ninterface eth1 {\nsuccess-ct 1\nfailure-ct 1\nnexthop 192.0.2.9\n"
    "rule 1 {\ntype ping {\ntarget 198.51.100.2\n}\n}\n}\n}\n";

TEST(Check, nothing_of_it_reaches_the_system_log) {
    const CapturedLog log;
    found_in(conf("success-ct 0\n"));
    EXPECT_TRUE(log.lines().empty());
}

TEST(Check, value_that_is_cut_short_is_told) {
    EXPECT_EQ(found_in(conf("", "rtt 12ms\n")),
              "9 warning 'rtt 12ms' not a plain number: read as 12");
    EXPECT_EQ(found_in(conf("", "rtt fast\n")), "9 warning 'rtt fast' not a number: read as 0");
    EXPECT_EQ(found_in(conf("", "rtt 4294967297\n")),
              "9 warning 'rtt 4294967297' not a 32-bit number: read as 1");
}

TEST(Check, number_of_a_probe_that_is_cut_short_is_told) {
    EXPECT_EQ(found_in(conf("rule 2nd {\ntype ping {\ntarget 198.51.100.2\n}\n}\n")),
              "6 warning 'rule 2nd' not a plain number: read as 2");
}

TEST(Check, refused_value_is_told_in_the_loaders_words) {
    EXPECT_EQ(found_in(conf("success-ct 0\n")),
              "6 error 'success-ct 0' wan_lb: illegal success-ct specified in configuration file: "
              "0");
    EXPECT_EQ(found_in(conf("", "", "", "rule ipv4 {\n}\n")),
              "21 error 'rule ipv4' Illegal rule number: ipv4");
}

TEST(Check, words_behind_the_value_are_told) {
    EXPECT_EQ(found_in(conf("", "rtt 100 ms\n")),
              "9 warning 'ms' one word and one value a line: from here on the line is ignored");
}

TEST(Check, quoted_value_has_no_words_behind_it) {
    EXPECT_EQ(found_in(conf("", "", "", "remark \"a b c\"\n")),
              "21 warning 'remark a b c' unknown keyword: ignored");
}

TEST(Check, value_of_a_word_that_has_none_is_told) {
    EXPECT_EQ(found_in(conf("", "", "failover no\n")),
              "20 warning 'failover no' has no value: it acts whatever stands behind it");
    EXPECT_EQ(found_in(conf("check_all off\n")),
              "6 warning 'check_all off' has no value: it acts whatever stands behind it");
}

TEST(Check, line_that_makes_a_rule_for_want_of_a_block_is_an_error) {
    const std::string found = found_in(conf("", "", "target 10.0.0.0/8\n"));
    EXPECT_TRUE(found.starts_with(
        "20 error 'target 10.0.0.0/8' lacks a block of its own: it makes a rule of this name\n"))
        << found;
}

TEST(Check, target_block_with_a_value_is_told) {
    EXPECT_EQ(found_in(conf("", "", "target 10.0.0.0/8 {\naddress 10.0.0.0/8\n}\n")),
              "20 warning 'target 10.0.0.0/8' a target block has no value: the prefix is its "
              "address line");
}

TEST(Check, bracket_too_many_is_an_error) {
    EXPECT_EQ(found_in(conf("", "", "", "}\n")),
              "21 error '}' closes no block: one bracket too many");
}

TEST(Check, block_that_does_not_end_is_an_error_at_its_line) {
    EXPECT_EQ(
        found_in(conf("", "", "interface eth0 {\n")),
        "13 error 'rule 1_ipv4 {' this block does not end: '}' is missing before the end of the "
        "file\n"
        "20 warning 'interface eth0' declared before: the lines of both blocks act on one "
        "entry");
}

TEST(Check, line_longer_than_a_read_is_told) {
    const std::string rest = "the line is longer than a read of 1,023 characters: the rest ";
    EXPECT_EQ(found_in(conf("", "", "", "# " + std::string(1021, 'x') + "{ }\n")),
              "21 warning '' " + rest + "of its comment is read as a line of its own");
    EXPECT_EQ(found_in(conf("", "", "", "}" + std::string(1022, ' ') + "}\n")),
              "21 error '}' closes no block: one bracket too many\n"
              "21 error '}' closes no block: one bracket too many");
    EXPECT_EQ(found_in(conf("", "", "", std::string(1023, ' ') + "health\n")),
              "21 warning '' " + rest + "is read as a line of its own");
}

TEST(Check, blanks_behind_a_read_are_not_told) {
    EXPECT_EQ(found_in(conf("", "", "", "#" + std::string(1100, ' ') + "\n")), "");
}

TEST(Check, zero_byte_is_an_error) {
    EXPECT_EQ(found_in(std::string("#a\0b\n", 5) + conf()),
              "1 error '' holds a zero byte: the rest of the line is not read");
}

TEST(Check, block_declared_twice_is_told) {
    const std::string twice = "declared before: the lines of both blocks act on one entry";
    EXPECT_EQ(found_in(conf("", "", "", "health {\ninterface eth0 {\n}\n}\n")),
              "22 warning 'interface eth0' " + twice);
    EXPECT_EQ(found_in(conf("", "", "", "rule 1_ipv4 {\n}\n")),
              "21 warning 'rule 1_ipv4' " + twice);
}

TEST(Check, member_or_destination_declared_twice_is_told) {
    const std::string twice = "declared before: the lines of both blocks act on one entry";
    EXPECT_EQ(found_in(conf("", "", "interface eth0 {\n}\n")),
              "20 warning 'interface eth0' " + twice);
    EXPECT_EQ(found_in(conf("", "", "target {\naddress 0.0.0.0/0\n}\n")),
              "21 warning 'address 0.0.0.0/0' " + twice);
}

TEST(Check, probe_dropped_by_a_repeated_number_is_told) {
    EXPECT_EQ(
        found_in(conf("rule 1 {\ntype ping_ext {\ntarget 198.51.100.9\n}\n}\n")),
        "8 warning 'target 198.51.100.9' never asked, as a later target of its probe replaces "
        "it: give it a rule with a number of its own\n"
        "12 warning 'type ping_ext' the number of this rule has a probe already: this one is "
        "dropped, its lines act on the first");
}

TEST(Check, probes_of_one_target_are_told) {
    EXPECT_EQ(found_in(conf("rule 2 {\ntype ping {\ntarget 198.51.100.1\n}\n}\n")),
              "2 warning 'interface eth0' probe 2 has the target of another one: both count in "
              "one run of results, and where one succeeds and the other fails, the uplink may "
              "reach neither count and stay as it is");
}

TEST(Check, rule_whose_namespace_has_no_interface_is_told) {
    EXPECT_EQ(found_in(conf("", "", "",
                            "rule 2_ipv4 {\nnamespace blue\ninterface eth0 {\nweight "
                            "1\n}\ntarget {\naddress 10.0.0.0/8\n}\n}\n")),
              "21 warning 'rule 2_ipv4' no interface of its family lies in its namespace: no "
              "worker serves it\n"
              "23 warning 'interface eth0' lies in another namespace than the rule");
}

TEST(Check, interface_whose_namespace_has_no_rule_is_told) {
    EXPECT_EQ(
        found_in(conf("", "", "", eth1) + "health {\ninterface eth1 {\nnamespace blue\n}\n}\n"),
        "22 warning 'interface eth1' no rule of its family lies in its namespace: no worker "
        "probes it\n"
        "34 warning 'interface eth1' declared before: the lines of both blocks act on one "
        "entry");
}

TEST(Check, configuration_without_work_is_an_error) {
    EXPECT_EQ(found_in(""),
              "0 error '' nothing to do: no namespace has both an interface and a rule of one "
              "family");
}

TEST(Check, member_that_is_not_under_health_is_told) {
    EXPECT_EQ(found_in(conf("", "", "interface eth9 {\nweight 1\n}\n")),
              "20 warning 'interface eth9' is not under health: never active");
}

TEST(Check, member_of_the_other_family_is_told) {
    EXPECT_NE(found_in(conf("", "", "interface6 eth0 {\nweight 1\n}\n"))
                  .find("20 warning 'interface6 eth0' the rule's name makes it an IPv4 rule"),
              std::string::npos);
}

TEST(Check, missing_counts_are_told) {
    EXPECT_EQ(found_in(conf("", "", "interface eth1 {\nweight 1\n}\n",
                            "health {\ninterface eth1 {\nfailure-ct 1\nnexthop 192.0.2.9\n"
                            "rule 1 {\ntype ping {\ntarget 198.51.100.2\n}\n}\n}\n}\n")),
              "25 warning 'interface eth1' without success-ct every single outcome counts at once, "
              "also with failure-ct");
    EXPECT_EQ(found_in(conf("", "", "interface eth1 {\nweight 1\n}\n",
                            "health {\ninterface eth1 {\nsuccess-ct 1\nnexthop 192.0.2.9\n"
                            "rule 1 {\ntype ping {\ntarget 198.51.100.2\n}\n}\n}\n}\n")),
              "25 warning 'interface eth1' without failure-ct every single outcome counts at once, "
              "also with success-ct");
}

TEST(Check, missing_next_hop_is_an_error) {
    EXPECT_EQ(found_in(conf("", "", "interface eth1 {\nweight 1\n}\n",
                            "health {\ninterface eth1 {\nsuccess-ct 1\nfailure-ct 1\n"
                            "rule 1 {\ntype ping {\ntarget 198.51.100.2\n}\n}\n}\n}\n")),
              "25 error 'interface eth1' has no nexthop to send frames and routes to");
}

TEST(Check, member_without_weight_is_told) {
    EXPECT_EQ(found_in(conf("", "", "interface eth1 {\n}\n", eth1)),
              "20 warning 'interface eth1' has no weight: never routed");
}

TEST(Check, weight_that_the_routing_daemon_refuses_is_told) {
    EXPECT_EQ(found_in(conf("", "", "interface eth1 {\nweight 257\n}\n", eth1)),
              "21 warning 'weight 257' the routing daemon takes weights up to 256");
}

TEST(Check, name_that_no_interface_can_have_is_an_error) {
    EXPECT_NE(found_in(conf("", "", "interface eth1.23456789012 {\nweight 1\n}\n"))
                  .find("20 error 'interface eth1.23456789012' no interface has a name longer than "
                        "15 characters"),
              std::string::npos);
}

TEST(Check, limits_that_fail_every_run_are_told) {
    EXPECT_EQ(found_in(conf("", "loss 0\n")),
              "9 warning 'loss 0' a loss limit of 0 fails every run");
    EXPECT_EQ(found_in(conf("", "rtt 0\n")), "9 warning 'rtt 0' a rtt limit of 0 fails every run");
    EXPECT_EQ(found_in(conf("", "jitter 0\n")),
              "9 warning 'jitter 0' a jitter limit of 0 fails every run");
    EXPECT_EQ(found_in(conf("", "count 0\n")), "9 warning 'count 0' a count of 0 fails every run");
}

TEST(Check, times_that_leave_no_answer_are_told) {
    EXPECT_EQ(found_in(conf("", "timeout 0\n")),
              "9 warning 'timeout 0' leaves no time for an answer");
    EXPECT_EQ(found_in(conf("rule 2 {\ntype ping {\ntarget 198.51.100.2\nresp-time 0\n}\n}\n")),
              "9 warning 'resp-time 0' leaves no time for an answer");
}

TEST(Check, broken_seconds_on_a_tunnel_are_an_error) {
    EXPECT_EQ(
        found_in(conf(
            "", "", "interface gre_1 {\nweight 1\n}\n",
            "health {\ninterface gre_1 {\nsuccess-ct 1\nfailure-ct 1\nnexthop "
            "tunnel\nrule 1 {\ntype ping_ext {\ntimeout 1500\ntarget 198.51.100.2\n}\n}\n}\n}\n")),
        "31 error 'timeout 1500' on a tunnel only whole seconds work: every run fails");
}

TEST(Check, extended_settings_of_an_echo_probe_are_told) {
    EXPECT_EQ(found_in(conf("rule 2 {\ntype ping {\ncount 3\n}\n}\n")),
              "8 warning 'count 3' acts on a probe of type ping_ext only: ignored");
}

TEST(Check, settings_without_a_probe_are_told) {
    const std::string found = found_in(conf("rule 2 {\ntype tcp {\nresp-time 3\ntarget\n}\n}\n"));
    EXPECT_NE(found.find("8 warning 'resp-time 3' no probe is current: ignored"),
              std::string::npos);
    EXPECT_NE(found.find("9 warning 'target' has no value: ignored"), std::string::npos);
}

TEST(Check, learnt_next_hop_for_ipv6_is_an_error) {
    const std::string found = found_in("health {\ninterface6 eth0 {\nnexthop dhcp\n}\n}\n");
    EXPECT_NE(found.find("3 error 'nexthop dhcp' an IPv6 probe needs a configured next hop"),
              std::string::npos)
        << found;
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
    EXPECT_EQ(lbcheck::as_text("f.conf", one),
              "f.conf:3: error: 'a b': bad\nf.conf: 1 error, 0 warnings\n");
    EXPECT_EQ(lbcheck::as_json("f.conf", one),
              "{\n  \"file\": \"f.conf\",\n  \"findings\": [\n    {\n      \"line\": 3,\n"
              "      \"severity\": \"error\",\n      \"text\": \"a b\",\n      \"message\": "
              "\"bad\",\n      \"more_lines\": []\n    }\n  ],\n  \"errors\": 1,\n"
              "  \"warnings\": 0\n}\n");
}

TEST(Explanation, shows_workers_probes_and_routes) {
    const TemporaryFile file(conf("rule 2 {\ntype ping {\n}\n}\n", "", "failover\n"));
    EXPECT_EQ(
        lbcheck::explain(lbcheck::check(file.path()).data),
        "Workers:\n  the default namespace, IPv4: 1 interfaces, 1 rules\n"
        "Interfaces:\n  eth0 (IPv4), the default namespace, next hop 192.0.2.1\n"
        "    down after about 12 s without answers (2 in a row), up after about 3 s of answers "
        "(3 in a row)\n"
        "    probe 1: ping extended, target 198.51.100.1, 10 echoes of 1000 ms, period 240 s, "
        "limits loss 1%, rtt 200 ms, jitter 50 ms\n"
        "    probe 2: ping, target the next hop, answer within 5000 ms\n"
        "Rules:\n  1_ipv4, the default namespace, failover\n"
        "    route 0.0.0.0/0 multipath via 192.0.2.1 weight 1;\n"
        "When one uplink fails:\n  eth0 (IPv4)\n    1_ipv4\n      no route\n");
}

TEST(Explanation, one_count_alone_makes_every_outcome_count) {
    const TemporaryFile file(conf("", "", "interface eth1 {\nweight 1\n}\n",
                                  "health {\ninterface eth1 {\nfailure-ct 3\nnexthop 192.0.2.9\n"
                                  "rule 1 {\ntype ping {\ntarget 198.51.100.2\n}\n}\n}\n}\n"));
    EXPECT_THAT(
        lbcheck::explain(lbcheck::check(file.path()).data),
        testing::HasSubstr("down after about 6 s without answers (1 in a row), up after about "
                           "1 s of answers (1 in a row)\n"));
}

TEST(Explanation, shows_no_route_where_no_worker_makes_one) {
    // Without "ipv4" in its name it is an IPv6 rule: nothing starts an IPv4 worker.
    const TemporaryFile file(
        "health {\ninterface eth0 {\nnexthop 192.0.2.1\n}\n}\n"
        "rule 1 {\ninterface eth0 {\nweight 1\n}\ntarget {\naddress 0.0.0.0/0\n}\n}\n");
    const std::string text = lbcheck::explain(lbcheck::check(file.path()).data);
    EXPECT_NE(text.find("  1, the default namespace, shared by weight\n    no route\n"),
              std::string::npos)
        << text;
}

}  // namespace

// Values that the loader takes and nothing works with.
#include <gtest/gtest.h>

#include "lbcheck/findings.h"
#include "lbcheck/spelling.h"
#include "lbcheck/values.h"
#include "unit/support/loaded.h"

namespace {

/// An uplink and a rule for it; each line of the uplink can be chosen.
struct Uplink {
    std::string family{};  ///< "" or "6"
    std::string name = "gi1_1";
    std::string nexthop = "192.0.2.1";
    std::string in_interface{};
    std::string probe = "type ping {\ntarget 198.51.100.1\n}\n";
    std::string counts = "success-ct 2\nfailure-ct 2\n";
    std::string prefix = "0.0.0.0/0";
    std::string in_target{};

    std::string health() const {
        return "health {\ninterface" + family + " " + name + " {\n" + counts + "nexthop " +
               nexthop + "\n" + in_interface + "rule 1 {\n" + probe + "}\n}\n}\n";
    }
    std::string rule(const std::string& number = "1") const {
        return "rule " + number + (family.empty() ? "_ipv4" : "_ipv6") + " {\ninterface" + family +
               " " + name + " {\nweight 1\n}\ntarget {\naddress " + prefix + "\n" + in_target +
               "}\n}\n";
    }
};

/// "severity: 'text': message" of each finding.
std::string found_in(const std::string& text) {
    const TemporaryFile file(text);
    std::string all;
    for (const lbcheck::Finding& one : lbcheck::check(file.path()).findings) {
        all += std::string(one.severity == lbcheck::Severity::error ? "error: " : "warning: ") +
               "'" + one.text + "': " + one.message + "\n";
    }
    return all;
}

std::string found_in(const Uplink& uplink) {
    return found_in(uplink.health() + uplink.rule());
}

const std::string probe6 = "type ping {\ntarget 2001:db8:53::1\n}\n";
const std::string source6 = "source_address 2001:db8::2\n";

TEST(Mistakes, good_uplinks_have_none) {
    EXPECT_EQ(found_in(Uplink{}), "");
    EXPECT_EQ(found_in(Uplink{.family = "6",
                              .nexthop = "2001:db8::1",
                              .in_interface = source6,
                              .probe = probe6,
                              .prefix = "::/0"}),
              "");
}

TEST(Mistakes, host_bits_in_a_prefix) {
    EXPECT_EQ(found_in(Uplink{.prefix = "10.1.2.3/8"}),
              "error: 'address 10.1.2.3/8': has bits set behind its length, for which a routing "
              "daemon refuses the whole fragment; write 10.0.0.0/8\n");
    EXPECT_EQ(lbcheck::problem_of_prefix(AF_INET6, "2001:db8::1/32"),
              "has bits set behind its length, for which a routing daemon refuses the whole "
              "fragment; write 2001:db8::/32");
    EXPECT_EQ(lbcheck::problem_of_prefix(AF_INET, "192.0.2.128/25"), "");
    EXPECT_NE(lbcheck::problem_of_prefix(AF_INET, "192.0.2.128/24"), "");
    EXPECT_EQ(lbcheck::problem_of_prefix(AF_INET, "192.0.2.1/32"), "");
    EXPECT_NE(lbcheck::problem_of_prefix(AF_INET, "0.0.0.1/0"), "");
    EXPECT_EQ(lbcheck::problem_of_prefix(AF_INET6, "2001:db8::1/128"), "");
}

TEST(Mistakes, destination_in_two_spellings) {
    Uplink uplink{.in_target = "address 0.0.0.0/00\n"};
    EXPECT_EQ(found_in(uplink),
              "warning: 'rule 1_ipv4': routes 0.0.0.0/0 also as 0.0.0.0/00: the routing daemon is "
              "given both\n");
    uplink = {.family = "6",
              .nexthop = "2001:db8::1",
              .in_interface = source6,
              .probe = probe6,
              .prefix = "2001:DB8:5::/48"};
    const std::string once = uplink.health() + uplink.rule("1");
    uplink.prefix = "2001:db8:5::/48";
    EXPECT_EQ(found_in(once + uplink.rule("2")),
              "warning: 'rule 2_ipv6': routes 2001:db8:5::/48 as rule 1_ipv6 does, written "
              "2001:DB8:5::/48: the routing daemon is given both\n");
    uplink.prefix = "2001:db8:5::/49";
    EXPECT_EQ(found_in(once + uplink.rule("2")), "");
    EXPECT_EQ(lbcheck::canonical_prefix(AF_INET, "here"), "here");
}

TEST(Mistakes, next_hop_that_the_kernel_prints_otherwise) {
    EXPECT_EQ(found_in(Uplink{.family = "6",
                              .nexthop = "2001:DB8:1:0::1",
                              .in_interface = source6,
                              .probe = probe6,
                              .prefix = "::/0"}),
              "error: 'nexthop 2001:DB8:1:0::1': the kernel prints it otherwise, so it is never "
              "found among the neighbours; write 2001:db8:1::1\n");
}

TEST(Mistakes, next_hop_that_no_neighbour_has) {
    for (const char* address : {"0.0.0.0", "127.0.0.1", "224.0.0.1", "255.255.255.255"}) {
        EXPECT_EQ(found_in(Uplink{.nexthop = address}),
                  std::string("error: 'nexthop ") + address +
                      "': no neighbour has this address: nothing is ever sent there\n");
    }
    for (const char* address : {"::", "::1", "ff02::1"}) {
        EXPECT_EQ(lbcheck::problem_of_next_hop(AF_INET6, address),
                  "no neighbour has this address: nothing is ever sent there");
    }
    EXPECT_EQ(lbcheck::problem_of_next_hop(AF_INET, "223.255.255.1"), "");
}

TEST(Mistakes, names_that_no_interface_has) {
    for (const char* name : {"a/b", "a:b", "..", "\"gi 1\"", "abcdefghijklmnop"}) {
        EXPECT_NE(found_in(Uplink{.name = name}).find("error: 'interface"), std::string::npos)
            << name;
    }
    EXPECT_NE(lbcheck::problem_of_interface_name("gi1{"), "");
    EXPECT_EQ(lbcheck::problem_of_interface_name("gi1_1.100"), "");
    EXPECT_EQ(lbcheck::problem_of_interface_name("abcdefghijklmno"), "");
}

TEST(Mistakes, namespace_that_is_no_plain_file_name) {
    for (const char* name : {"../x", "a/b", "..", "-x", "a;reboot", "$(id)"}) {
        EXPECT_NE(lbcheck::problem_of_namespace_name(name), "") << name;
    }
    EXPECT_EQ(lbcheck::problem_of_namespace_name("vrf-blue_1.2"), "");
    EXPECT_NE(found_in(Uplink{.in_interface = "namespace a;reboot\n"})
                  .find("error: 'namespace a;reboot': not a plain file name"),
              std::string::npos);
}

TEST(Mistakes, two_next_hops_in_a_block) {
    EXPECT_EQ(found_in(Uplink{.in_interface = "nexthop 192.0.2.2\n"}),
              "warning: 'nexthop 192.0.2.2': a second nexthop in one block: this one counts, not "
              "that of line 5\n");
}

TEST(Mistakes, what_stands_twice_in_a_block_but_has_one_value) {
    EXPECT_EQ(found_in(Uplink{.counts = "success-ct 2\nfailure-ct 3\nsuccess-ct 4\n"}),
              "warning: 'success-ct 4': a second success-ct in one block: this one counts, not "
              "that of line 3\n");
    EXPECT_EQ(found_in(Uplink{.probe = "type ping {\ntarget 198.51.100.1\nresp-time 5\n"
                                       "resp-time 6\n}\n"}),
              "warning: 'resp-time 6': a second resp-time in one block: this one counts, not that "
              "of line 9\n");
    EXPECT_EQ(found_in(Uplink{}.health() +
                       "rule 1_ipv4 {\ninterface gi1_1 {\nweight 1\nweight 2\n}\ntarget {\n"
                       "address 0.0.0.0/0\n}\n}\n"),
              "warning: 'weight 2': a second weight in one block: this one counts, not that of "
              "line 15\n");
}

TEST(Mistakes, what_stands_once_in_each_of_two_blocks) {
    const Uplink first{.probe =
                           "type ping {\ntarget 198.51.100.1\nresp-time 5\n}\n}\nrule 2 {\n"
                           "type ping {\ntarget 198.51.100.2\nresp-time 5\n}\n"};
    const Uplink second{.name = "gi1_2", .nexthop = "203.0.113.1"};
    EXPECT_EQ(found_in(first.health() + second.health() +
                       "rule 1_ipv4 {\ninterface gi1_1 {\nweight 1\n}\ninterface gi1_2 {\n"
                       "weight 1\n}\ntarget {\naddress 0.0.0.0/0\n}\n}\n"),
              "");
}

TEST(Mistakes, namespace_without_a_name) {
    EXPECT_EQ(found_in(Uplink{.in_interface = "namespace\n"}),
              "warning: 'namespace': has no value: the default namespace is meant\n");
}

TEST(Mistakes, two_targets_of_a_probe) {
    Uplink uplink{.probe = "type ping {\ntarget 198.51.100.1\ntarget 198.51.100.2\n}\n"};
    EXPECT_EQ(found_in(uplink),
              "warning: 'target 198.51.100.1': never asked, as a later target of its probe "
              "replaces it: give it a rule with a number of its own\n");
    uplink.in_interface = "check_all\n";
    EXPECT_EQ(found_in(uplink),
              "error: 'target 198.51.100.1': never asked, as a later target of its probe replaces "
              "it, and with check_all the uplink stays down: give it a rule with a number of its "
              "own\n");
    uplink.probe = "type ping {\ntarget 198.51.100.1\ntarget 198.51.100.1\n}\n";
    EXPECT_EQ(found_in(uplink), "") << "one and the same";
}

TEST(Mistakes, two_uplinks_with_one_next_hop) {
    const Uplink first;
    const Uplink second{.name = "gi1_2", .prefix = "10.0.0.0/8"};
    EXPECT_EQ(found_in(first.health() + second.health() + first.rule("1") + second.rule("2")),
              "warning: 'interface gi1_2': has the next hop of interface gi1_1: a route through "
              "it does not tell which of them is meant\n");
    const Uplink learnt{.nexthop = "dhcp"};
    const Uplink also_learnt{.name = "gi1_2", .nexthop = "dhcp", .prefix = "10.0.0.0/8"};
    EXPECT_EQ(
        found_in(learnt.health() + also_learnt.health() + learnt.rule("1") + also_learnt.rule("2")),
        "");
}

TEST(Mistakes, tunnel_that_is_none_by_name) {
    EXPECT_EQ(found_in(Uplink{.nexthop = "tunnel"}),
              "warning: 'nexthop tunnel': probes of gi1_1 leave as Ethernet frames, as it is no "
              "tunnel by name: only names with 'gre', 'ip4ip4' or 'modem' in them are\n");
    EXPECT_EQ(found_in(Uplink{.name = "gre_1", .nexthop = "tunnel"}), "");
}

TEST(Mistakes, probes_that_a_tunnel_or_modem_cannot_send) {
    for (const char* name : {"gre1", "ip4ip4_1", "modem0"}) {
        EXPECT_EQ(found_in(Uplink{.family = "6",
                                  .name = name,
                                  .nexthop = "2001:db8::1",
                                  .in_interface = source6,
                                  .probe = probe6,
                                  .prefix = "::/0"}),
                  std::string("warning: 'interface6 ") + name +
                      "': a tunnel or modem by its name: its IPv6 probes leave as Ethernet frames, "
                      "which neither can send; use an Ethernet interface for IPv6\n");
    }
    const std::string ping =
        "type ping_ext {\ntarget 198.51.100.1\ncount 5\ntimeout 1000\nloss 50\nperiod 10\n}\n";
    EXPECT_EQ(found_in(Uplink{.name = "modem0", .probe = ping}),
              "warning: 'type ping_ext': a modem by its name: extended pings leave as Ethernet "
              "frames, which it cannot send; write type ping\n");
    EXPECT_EQ(found_in(Uplink{.name = "modem0"}), "");
    EXPECT_EQ(found_in(Uplink{.name = "gre1", .probe = ping}), "");
}

TEST(Mistakes, target_or_source_that_no_host_has) {
    for (const char* address : {"0.0.0.0", "127.0.0.1", "224.0.0.1", "255.255.255.255"}) {
        EXPECT_EQ(
            found_in(Uplink{.probe = std::string("type ping {\ntarget ") + address + "\n}\n"}),
            std::string("warning: 'target ") + address +
                "': no host has this address: nothing ever answers\n");
        EXPECT_EQ(found_in(Uplink{.in_interface = std::string("source_address ") + address + "\n"}),
                  std::string("warning: 'source_address ") + address +
                      "': no host has this address: nothing can be answered to it\n");
    }
    for (const char* address : {"::", "::1", "ff02::1"}) {
        EXPECT_FALSE(lbcheck::is_of_a_host(AF_INET6, address));
    }
    for (const char* address : {"fe80::1", "2001:DB8:0::1", "::ffff:192.0.2.1"}) {
        EXPECT_TRUE(lbcheck::is_of_a_host(AF_INET6, address));
    }
    for (const char* address : {"1.0.0.1", "126.0.0.1", "128.0.0.1", "223.255.255.255"}) {
        EXPECT_TRUE(lbcheck::is_of_a_host(AF_INET, address));
    }
}

TEST(Mistakes, source_that_is_the_next_hop) {
    EXPECT_EQ(found_in(Uplink{.in_interface = "source_address 192.0.2.1\n"}),
              "warning: 'interface gi1_1': its source_address is its next hop: the answers go "
              "there\n");
    EXPECT_EQ(found_in(Uplink{.in_interface = "source_address 192.0.2.2\n"}), "");
}

TEST(Mistakes, links_without_ethernet_by_their_usual_names) {
    for (const char* name : {"ppp0", "wg0", "wg-office", "tun0", "tun1.5", "wg"}) {
        const std::string found = std::string(name) +
                                  "': by its name a link without Ethernet addresses, into which "
                                  "frames are sent in vain; ";
        EXPECT_EQ(found_in(Uplink{.name = name}),
                  "warning: 'interface " + found +
                      "give it a name with 'gre' or 'ip4ip4' in it, or for type ping 'modem'\n");
        EXPECT_EQ(found_in(Uplink{.name = name, .nexthop = "tunnel"}),
                  found_in(Uplink{.name = name}));
        EXPECT_EQ(found_in(Uplink{.family = "6",
                                  .name = name,
                                  .nexthop = "2001:db8::1",
                                  .in_interface = source6,
                                  .probe = probe6,
                                  .prefix = "::/0"}),
                  "warning: 'interface6 " + found + "use an Ethernet interface for IPv6\n");
    }
    for (const char* name :
         {"wwan0", "tunnel0", "pppoe", "wgreat", "wg_modem", "tap0", "eth0.tun"}) {
        EXPECT_EQ(found_in(Uplink{.name = name}), "") << name;
    }
}

TEST(Mistakes, resp_time_of_an_extended_ping) {
    const std::string extended =
        "type ping_ext {\ntarget 198.51.100.1\nresp-time 500\ncount 5\ntimeout 1000\n}\n";
    EXPECT_EQ(found_in(Uplink{.probe = extended}),
              "warning: 'resp-time 500': acts on nothing in a ping_ext: how long each echo is "
              "waited for is its timeout\n");
    EXPECT_EQ(found_in(Uplink{.probe = "type ping {\ntarget 198.51.100.1\nresp-time 500\n}\n"}),
              "");
    const std::string other = "}\nrule 2 {\ntype ping {\nresp-time 500\ntarget 198.51.100.2\n}\n";
    EXPECT_EQ(found_in(Uplink{.probe = "type ping_ext {\ntarget 198.51.100.1\n}\n" + other}), "");
}

TEST(Mistakes, uplink_that_comes_up_late) {
    EXPECT_EQ(found_in(Uplink{.counts = "success-ct 151\nfailure-ct 2\n"}),
              "warning: 'interface gi1_1': answers bring it up after about 301 s only: lower "
              "success-ct\n");
    EXPECT_EQ(found_in(Uplink{.counts = "success-ct 150\nfailure-ct 2\n"}), "");
}

TEST(Mistakes, two_rules_of_one_number) {
    Uplink uplink;
    const std::string once = uplink.health() + uplink.rule("1");
    uplink.prefix = "198.51.100.0/24";
    EXPECT_EQ(found_in(once + uplink.rule("01")),
              "warning: 'rule 1_ipv4': has the number of rule 01_ipv4: the dumps, lbshow and "
              "lbwatch cannot tell them apart; give it another number\n");
    EXPECT_EQ(found_in(once + uplink.rule("2")), "");
    uplink = {.family = "6",
              .nexthop = "2001:db8::1",
              .in_interface = source6,
              .probe = probe6,
              .prefix = "::/0"};
    EXPECT_EQ(found_in(once + uplink.health() + uplink.rule("1")), "");
}

TEST(Mistakes, rule_whose_number_does_not_fit) {
    const Uplink uplink;
    EXPECT_EQ(found_in(uplink.health() + uplink.rule("99999999999")),
              "warning: 'rule 99999999999_ipv4': its number has more than 32 bits: the dumps, "
              "lbshow and lbwatch show another one\n");
    EXPECT_EQ(found_in(uplink.health() + uplink.rule("2147483647")), "");
}

TEST(Mistakes, link_local_next_hop) {
    EXPECT_EQ(found_in(Uplink{.family = "6",
                              .nexthop = "fe80::1",
                              .in_interface = source6,
                              .probe = probe6,
                              .prefix = "::/0"}),
              "warning: 'nexthop fe80::1': a link-local next hop: only lbroute routes it (with "
              "--bird2 too), other routing daemons do not know its interface\n");
}

TEST(Mistakes, link_local_next_hop_of_two_uplinks) {
    Uplink uplink{.family = "6",
                  .nexthop = "fe80::1",
                  .in_interface = source6,
                  .probe = probe6,
                  .prefix = "2001:db8:1::/48"};
    const std::string first = uplink.health() + uplink.rule("1");
    uplink.name = "gi1_2";
    uplink.prefix = "2001:db8:2::/48";
    const std::string error =
        "error: 'interface6 gi1_2': has the next hop of interface6 gi1_1: "
        "the daemon finds one hardware address for both, so probes reach one "
        "gateway only unless both have that; give one of them a global next "
        "hop\n";
    EXPECT_NE(found_in(first + uplink.health() + uplink.rule("2")).find(error), std::string::npos);
    uplink.nexthop = "fe80::2";
    EXPECT_EQ(found_in(first + uplink.health() + uplink.rule("2")).find("error"),
              std::string::npos);
}

TEST(Mistakes, metric) {
    EXPECT_EQ(found_in(Uplink{.in_target = "metric 10\n"}),
              "warning: 'metric 10': bird 1.6 refuses the whole fragment for it; lbroute takes it, "
              "also with --bird2\n");
}

TEST(Mistakes, uplink_that_asks_nobody_behind_its_gateway) {
    EXPECT_EQ(found_in(Uplink{.probe = ""}),
              "warning: 'interface gi1_1': has no target: its next hop is asked, and an outage "
              "behind that goes unnoticed\n");
    EXPECT_EQ(found_in(Uplink{.probe = "type ping {\ntarget 192.0.2.1\n}\n"}),
              "warning: 'interface gi1_1': its only target is its next hop: an outage behind that "
              "goes unnoticed\n");
}

TEST(Mistakes, outage_that_is_noticed_late) {
    EXPECT_EQ(found_in(Uplink{.counts = "success-ct 2\nfailure-ct 6\n"}),
              "warning: 'interface gi1_1': an outage is noticed after about 36 s only: lower "
              "resp-time or failure-ct\n");
    EXPECT_EQ(found_in(Uplink{.counts = "success-ct 2\nfailure-ct 5\n"}), "");
}

TEST(Mistakes, extended_pings_that_hold_a_cycle) {
    const std::string ping = "type ping_ext {\ntarget 198.51.100.1\ntimeout 2000\ncount ";
    EXPECT_EQ(found_in(Uplink{.probe = ping + "31\n}\n"}),
              "warning: '': the extended pings of the default namespace may hold a cycle for 62 s "
              "(count x timeout of all of them): lbshow calls dumps stale after 60 s, and other "
              "uplinks are judged as late\n");
    EXPECT_EQ(found_in(Uplink{.probe = ping + "30\n}\n"}), "");
    EXPECT_NE(found_in(Uplink{.probe = ping + "2147483647\ntimeout 2147483647\n}\n"}), "");
}

TEST(Spelling, finds_what_was_meant_and_does_not_guess) {
    EXPECT_EQ(lbcheck::nearest("Health", {"health", "rule"}), "health");
    EXPECT_EQ(lbcheck::nearest("source-address", {"source_address"}), "source_address");
    EXPECT_EQ(lbcheck::nearest("rlue", {"health", "rule"}), "rule");
    EXPECT_EQ(lbcheck::nearest("options", {"health", "rule"}), "");
    EXPECT_EQ(lbcheck::nearest("interface5", {"interface", "interface6"}), "");
    EXPECT_EQ(lbcheck::nearest(std::string(10'000, 'x'), {"health"}), "");
}

TEST(Spelling, knows_what_stands_in_a_block) {
    EXPECT_EQ(lbcheck::keywords_inside({"rule", "interface6"}),
              std::vector<std::string_view>{"weight"});
    EXPECT_EQ(lbcheck::keywords_inside({"health", "interface", "rule"}),
              std::vector<std::string_view>{"type"});
    EXPECT_TRUE(lbcheck::keywords_inside({"other"}).empty());
    EXPECT_TRUE(lbcheck::keywords_inside({"health", "rule"}).empty());
}

}  // namespace

#include <gtest/gtest.h>

#include "decision/route_text.h"
#include "lbroute/fragment.h"

namespace {

using lbroute::Address;
using lbroute::Family;
using lbroute::FragmentHop;
using lbroute::FragmentReading;
using lbroute::FragmentRoute;
using lbroute::parse_fragment;
using lbroute::Prefix;
using lbroute::Wholeness;

Address ipv4(const char* text) {
    return Address::parse(text, Family::ipv4).value();
}
Address ipv6(const char* text) {
    return Address::parse(text, Family::ipv6).value();
}

FragmentReading routes4(const std::string& lines) {
    return parse_fragment("protocol static {\ncheck link 1;\n" + lines + "};\n", Family::ipv4);
}

/// The reason of the only fault.
std::string reason_of(const std::string& line) {
    const auto reading = routes4(line + "\n");
    EXPECT_EQ(reading.faults.size(), 1U);
    return reading.faults.empty() ? "" : reading.faults[0].reason;
}

constexpr const char* good_line = "route 10.9.0.0/16 multipath via 10.0.0.9 weight 9;\n";

TEST(LbrouteFragment, what_the_daemon_writes_is_read_as_it_stands) {
    const auto reading = parse_fragment(
        "protocol static {\n"
        "check link 1;\n"
        "route 0.0.0.0/0 multipath via 10.0.0.1 weight 1 via 192.168.1.1 weight 3;\n"
        "route 10.8.0.0/16 multipath via 10.0.0.1 weight 1 via 192.168.1.1 weight 3 metric 20;\n"
        "};\n",
        Family::ipv4);

    EXPECT_EQ(reading.wholeness, Wholeness::whole);
    EXPECT_TRUE(reading.faults.empty());
    EXPECT_TRUE(reading.fragment.check_link);
    const std::vector<FragmentHop> hops = {{ipv4("10.0.0.1"), 1}, {ipv4("192.168.1.1"), 3}};
    const std::vector<FragmentRoute> expected = {{{ipv4("0.0.0.0"), 0}, hops, std::nullopt},
                                                 {{ipv4("10.8.0.0"), 16}, hops, 20U}};
    EXPECT_EQ(reading.fragment.routes, expected);
}

TEST(LbrouteFragment, ipv6_has_no_link_line_and_may_name_a_link_local_gateway_twice) {
    const auto reading = parse_fragment(
        "protocol static {\nroute ::/0 multipath via fe80::1 weight 1 via fe80::1 weight "
        "300;\n};\n",
        Family::ipv6);

    EXPECT_TRUE(reading.faults.empty());
    EXPECT_FALSE(reading.fragment.check_link);
    const std::vector<FragmentHop> hops = {{ipv6("fe80::1"), 1}, {ipv6("fe80::1"), 300}};
    ASSERT_EQ(reading.fragment.routes.size(), 1U);
    EXPECT_EQ(reading.fragment.routes[0].hops, hops);
    EXPECT_TRUE(reading.fragment.routes[0].hops[0].gateway.is_link_local());
}

TEST(LbrouteFragment, every_text_of_the_daemons_own_functions_is_read_back) {
    const std::string line = route_line("10.0.0.0/8", via_clause("192.0.2.1", 2147483647), 0) +
                             route_line("198.51.100.7/32", via_clause("192.0.2.1", 1), 2147483647);
    const auto reading = parse_fragment(fragment_text(line, false), Family::ipv4);

    EXPECT_TRUE(reading.faults.empty());
    ASSERT_EQ(reading.fragment.routes.size(), 2U);
    EXPECT_EQ(reading.fragment.routes[0].metric, 0U);
    EXPECT_EQ(reading.fragment.routes[0].hops[0].weight, 2147483647);
    EXPECT_EQ(reading.fragment.routes[1].metric, 2147483647U);
}

TEST(LbrouteFragment, no_beginning_of_a_fragment_is_whole) {
    const std::string whole = fragment_text(
        route_line("0.0.0.0/0", via_clause("10.0.0.1", 1) + via_clause("10.0.1.1", 12), 20), false);
    // Without its last newline nothing is missing.
    for (std::size_t size = 1; size + 1 < whole.size(); ++size) {
        const auto reading = parse_fragment(whole.substr(0, size), Family::ipv4);
        EXPECT_EQ(reading.wholeness, Wholeness::incomplete) << size;
        EXPECT_TRUE(reading.fragment.routes.empty()) << size;
        EXPECT_EQ(reading.faults.size(), 1U) << size;
    }
    EXPECT_EQ(parse_fragment(whole.substr(0, whole.size() - 1), Family::ipv4).wholeness,
              Wholeness::whole);
}

TEST(LbrouteFragment, empty_text_is_told_apart_from_an_incomplete_one) {
    EXPECT_EQ(parse_fragment("", Family::ipv4).wholeness, Wholeness::empty);
    EXPECT_TRUE(parse_fragment("", Family::ipv4).faults.empty());
    EXPECT_EQ(parse_fragment("\n", Family::ipv4).wholeness, Wholeness::incomplete);
}

TEST(LbrouteFragment, incomplete_text_names_the_line_that_is_missing) {
    const auto reading =
        parse_fragment("protocol static {\ncheck link 1;\nroute 0.0.0.0/0 mul", Family::ipv4);
    ASSERT_EQ(reading.faults.size(), 1U);
    EXPECT_EQ(reading.faults[0].line, 4);
    EXPECT_EQ(reading.faults[0].reason, "the file ends before its closing '};' line");
}

TEST(LbrouteFragment, text_behind_the_closing_line_makes_it_incomplete) {
    const auto reading = parse_fragment(
        "protocol static {\n" + std::string(good_line) + "};\nht 3;\n};\n", Family::ipv4);
    EXPECT_EQ(reading.wholeness, Wholeness::incomplete);
    EXPECT_TRUE(reading.fragment.routes.empty());
    ASSERT_EQ(reading.faults.size(), 1U);
    EXPECT_EQ(reading.faults[0].line, 4);
}

TEST(LbrouteFragment, fragment_without_routes_is_whole) {
    const auto reading = parse_fragment("protocol static {\n};\n", Family::ipv6);
    EXPECT_EQ(reading.wholeness, Wholeness::whole);
    EXPECT_TRUE(reading.fragment.routes.empty());
}

TEST(LbrouteFragment, of_two_lines_for_one_prefix_the_later_counts) {
    const auto reading = routes4(
        "route 10.0.0.0/8 multipath via 10.0.0.1 weight 1 metric 5;\n"
        "route 10.0.0.0/8 multipath via 10.0.0.2 weight 2;\n");
    ASSERT_EQ(reading.fragment.routes.size(), 1U);
    EXPECT_EQ(reading.fragment.routes[0].hops[0].gateway, ipv4("10.0.0.2"));
    EXPECT_EQ(reading.fragment.routes[0].metric, std::nullopt);
}

TEST(LbrouteFragment, faulty_line_leaves_an_earlier_one_for_its_prefix_in_force) {
    const auto reading = routes4(
        "route 10.0.0.0/8 multipath via 10.0.0.1 weight 1;\n"
        "route 10.0.0.0/8 multipath via 10.0.0.2 weight 1 metric -5;\n");
    ASSERT_EQ(reading.fragment.routes.size(), 1U);
    EXPECT_EQ(reading.fragment.routes[0].hops[0].gateway, ipv4("10.0.0.1"));
}

TEST(LbrouteFragment, routes_come_in_the_order_of_their_prefixes) {
    const auto reading = routes4(
        "route 10.0.0.0/16 multipath via 10.0.0.1 weight 1;\n"
        "route 10.0.0.0/8 multipath via 10.0.0.1 weight 1;\n"
        "route 0.0.0.0/0 multipath via 10.0.0.1 weight 1;\n");
    ASSERT_EQ(reading.fragment.routes.size(), 3U);
    EXPECT_EQ(reading.fragment.routes[0].prefix.text(), "0.0.0.0/0");
    EXPECT_EQ(reading.fragment.routes[1].prefix.text(), "10.0.0.0/8");
    EXPECT_EQ(reading.fragment.routes[2].prefix.text(), "10.0.0.0/16");
}

TEST(LbrouteFragment, faulty_route_costs_no_other_route) {
    const auto reading = routes4("route 10.0.0.1/8 multipath via 10.0.0.1 weight 1;\n" +
                                 std::string(good_line) + "rubbish\n");
    EXPECT_EQ(reading.wholeness, Wholeness::whole);
    ASSERT_EQ(reading.fragment.routes.size(), 1U);
    EXPECT_EQ(reading.fragment.routes[0].prefix.text(), "10.9.0.0/16");
    ASSERT_EQ(reading.faults.size(), 2U);
    EXPECT_EQ(reading.faults[0].line, 3);
    EXPECT_EQ(reading.faults[1].line, 5);
    EXPECT_EQ(reading.faults[1].reason, "'rubbish' is not understood; the line is left out");
}

TEST(LbrouteFragment, bits_beyond_the_length_are_refused_with_both_ways_to_mend_them) {
    EXPECT_EQ(reason_of("route 10.0.0.1/8 multipath via 10.0.0.1 weight 1;"),
              "'10.0.0.1/8' has bits beyond its length; write 10.0.0.0/8 or 10.0.0.1/32; "
              "the route is left out");
}

TEST(LbrouteFragment, prefix_must_be_one_of_the_family) {
    EXPECT_EQ(reason_of("route 2001:db8::/32 multipath via 10.0.0.1 weight 1;"),
              "'2001:db8::/32' is no IPv4 prefix; the route is left out");
    EXPECT_EQ(reason_of("route 10.0.0.1 multipath via 10.0.0.1 weight 1;"),
              "'10.0.0.1' has no length; for this host alone write 10.0.0.1/32; "
              "the route is left out");
    EXPECT_EQ(reason_of("route 10.0.0.0/33 multipath via 10.0.0.1 weight 1;"),
              "'10.0.0.0/33' has no length of 0 to 32; the route is left out");
    EXPECT_EQ(reason_of("route 10.0.0.0/8x multipath via 10.0.0.1 weight 1;"),
              "'10.0.0.0/8x' has no length of 0 to 32; the route is left out");
}

TEST(LbrouteFragment, faulty_next_hop_costs_its_route_nothing_else) {
    const auto reading = routes4(
        "route 10.0.0.0/8 multipath via dhcp weight 1 via 10.0.0.2 weight 0 via 10.0.0.3 weight "
        "2147483648 via fe80::1 weight 1 via 10.0.0.5 weight 5;\n");
    ASSERT_EQ(reading.fragment.routes.size(), 1U);
    const std::vector<FragmentHop> hops = {{ipv4("10.0.0.5"), 5}};
    EXPECT_EQ(reading.fragment.routes[0].hops, hops);
    ASSERT_EQ(reading.faults.size(), 4U);
    EXPECT_EQ(reading.faults[0].reason,
              "route 10.0.0.0/8: next hop 'dhcp' is no IPv4 address; it is left out");
    EXPECT_EQ(reading.faults[1].reason,
              "route 10.0.0.0/8: weight '0' of next hop 10.0.0.2 is not within 1 to 2147483647; "
              "it is left out");
}

TEST(LbrouteFragment, route_without_a_next_hop_is_refused) {
    EXPECT_EQ(reason_of("route 10.0.0.0/8 multipath;"),
              "route 10.0.0.0/8: it has no next hop; the route is left out");
}

TEST(LbrouteFragment, metric_out_of_range_refuses_the_route) {
    EXPECT_EQ(reason_of("route 10.0.0.0/8 multipath via 10.0.0.1 weight 1 metric -5;"),
              "route 10.0.0.0/8: metric '-5' is not within 0 to 4294967295; "
              "the route is left out");
    EXPECT_TRUE(routes4("route 10.0.0.0/8 multipath via 10.0.0.1 weight 1 metric 4294967295;\n")
                    .faults.empty());
}

TEST(LbrouteFragment, words_out_of_place_refuse_the_route) {
    EXPECT_EQ(reason_of("route 10.0.0.0/8 via 10.0.0.1 weight 1;"),
              "route 10.0.0.0/8: 'multipath' expected, found 'via'; the route is left out");
    EXPECT_EQ(reason_of("route 10.0.0.0/8 multipath via 10.0.0.1 metric 1;"),
              "route 10.0.0.0/8: 'weight' expected, found 'metric'; the route is left out");
    EXPECT_EQ(reason_of("route 10.0.0.0/8 multipath via 10.0.0.1 weight 1 metric 1 dev eth0;"),
              "route 10.0.0.0/8: 'dev' is not understood; the route is left out");
    EXPECT_EQ(reason_of("route 10.0.0.0/8 multipath via 10.0.0.1 weight 1"),
              "the route's line does not end with a semicolon; the route is left out");
}

TEST(LbrouteFragment, hostile_bytes_are_not_shown) {
    EXPECT_EQ(reason_of("\x1b[2Jx\xff"), "'?[2Jx?' is not understood; the line is left out");
    EXPECT_EQ(reason_of(std::string(100, 'x')),
              "'" + std::string(60, 'x') + "...' is not understood; the line is left out");
    EXPECT_EQ(
        reason_of("route 10.0.0.0" + std::string(1, '\0') + "x/8 multipath via 10.0.0.1 weight 1;"),
        "'10.0.0.0?x/8' is no IPv4 prefix; the route is left out");
}

TEST(LbrouteFragment, many_faults_are_counted_not_listed) {
    std::string lines;
    for (int i = 0; i < 1000; ++i) {
        lines += "x\n";
    }
    const auto reading = routes4(lines + good_line);
    EXPECT_EQ(reading.fragment.routes.size(), 1U);
    ASSERT_EQ(reading.faults.size(), 21U);
    EXPECT_EQ(reading.faults.back().line, 23);
    EXPECT_EQ(reading.faults.back().reason, "and 980 more from here on");
}

TEST(LbrouteAddress, prefix_contains_its_own_addresses_only) {
    const Prefix prefix{ipv6("2001:db8::"), 33};
    EXPECT_TRUE(prefix.contains(ipv6("2001:db8:7fff::1")));
    EXPECT_FALSE(prefix.contains(ipv6("2001:db8:8000::1")));
    EXPECT_FALSE(prefix.contains(ipv4("10.0.0.1")));
    EXPECT_TRUE((Prefix{ipv4("0.0.0.0"), 0}.contains(ipv4("255.255.255.255"))));
    EXPECT_TRUE((Prefix{ipv4("10.0.0.1"), 32}.contains(ipv4("10.0.0.1"))));
    EXPECT_FALSE((Prefix{ipv4("10.0.0.1"), 32}.contains(ipv4("10.0.0.0"))));
}

TEST(LbrouteAddress, text_behind_an_address_is_no_address) {
    EXPECT_EQ(Address::parse("10.0.0.1 ", Family::ipv4), std::nullopt);
    EXPECT_EQ(Address::parse("fe80::1%eth0", Family::ipv6), std::nullopt);
    EXPECT_EQ(Address::parse("", Family::ipv4), std::nullopt);
    EXPECT_EQ(Address::parse("::ffff:10.0.0.1", Family::ipv4), std::nullopt);
}

}  // namespace

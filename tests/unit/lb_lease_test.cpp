#include <gtest/gtest.h>

#include "decision/lease_file.h"
#include "lb-lease/lease_text.h"

namespace {

using namespace lblease;

TEST(LeaseInterface, names_of_the_kernel_are_taken) {
    for (const char* name : {"gi1_1", "eth0.100", "fifteen_letters", "...", "wan-1"}) {
        EXPECT_EQ(problem_of_name(name), "") << name;
    }
}

TEST(LeaseInterface, names_that_no_interface_has_are_refused) {
    EXPECT_EQ(problem_of_name(""), "is empty");
    EXPECT_EQ(problem_of_name("sixteen_letters_"), "is longer than 15 characters");
    EXPECT_EQ(problem_of_name("."), "is a folder's name");
    EXPECT_EQ(problem_of_name(".."), "is a folder's name");
    EXPECT_EQ(problem_of_name("../etc"), "holds a '/' or ':'");
    EXPECT_EQ(problem_of_name("eth0:1"), "holds a '/' or ':'");
    for (const char* name : {"eth 0", "eth\t0", "eth0\n", "\x1b[m", "eth\x7f"}) {
        EXPECT_EQ(problem_of_name(name), "holds a blank or a character that cannot be printed");
    }
}

std::string router(const std::string& text) {
    return parse_router(text, false, "gi1_1").address;
}
std::string router6(const std::string& text) {
    return parse_router(text, true, "gi1_1").address;
}

TEST(LeaseRouter, address_is_written_as_the_kernel_prints_it) {
    EXPECT_EQ(router("192.0.2.1"), "192.0.2.1");
    EXPECT_EQ(router6("2001:DB8:0::0:1"), "2001:db8::1");
    EXPECT_EQ(router6("fe80::1"), "fe80::1");
}

TEST(LeaseRouter, what_is_no_address_of_the_family_is_refused) {
    for (const char* text : {"", "192.0.2", "192.0.2.1;", "192.0.2.1,192.0.2.2", "gw", "fe80::1"}) {
        EXPECT_EQ(parse_router(text, false, "gi1_1").problem, "is no IPv4 address") << text;
    }
    for (const char* text : {"", "192.0.2.1", "fe80::1'", "fe80::g", "fe80::1/64"}) {
        EXPECT_EQ(parse_router(text, true, "gi1_1").problem, "is no IPv6 address") << text;
    }
}

TEST(LeaseRouter, addresses_that_no_router_has_are_refused) {
    for (const char* text : {"0.0.0.0", "0.1.2.3", "127.0.0.1", "224.0.0.1", "255.255.255.255"}) {
        EXPECT_EQ(parse_router(text, false, "gi1_1").problem,
                  "is no address that a router can have")
            << text;
    }
    for (const char* text : {"::", "::1", "ff02::2", "::ffff:192.0.2.1"}) {
        EXPECT_EQ(parse_router(text, true, "gi1_1").problem, "is no address that a router can have")
            << text;
    }
}

TEST(LeaseRouter, scope_is_the_interface_itself) {
    EXPECT_EQ(router6("fe80::1%gi1_1"), "fe80::1");
    EXPECT_EQ(parse_router("fe80::1%gi1_2", true, "gi1_1").problem,
              "lies behind another interface than gi1_1");
    EXPECT_EQ(router("192.0.2.1%gi1_1"), "");
}

TEST(LeaseStaticRoutes, default_router_is_found_among_numbers) {
    EXPECT_EQ(default_router("0 192 0 2 1"), "192.0.2.1");
    EXPECT_EQ(default_router("24 10 0 0 192 0 2 9 0 192 0 2 1"), "192.0.2.1");
    EXPECT_EQ(default_router("25 10 0 0 128 192 0 2 9 9 10 128 192 0 2 8 0 192 0 2 1"),
              "192.0.2.1");
}

TEST(LeaseStaticRoutes, default_router_is_found_among_addresses) {
    EXPECT_EQ(default_router("0.0.0.0/0 192.0.2.1"), "192.0.2.1");
    EXPECT_EQ(default_router("10.0.0.0/8 192.0.2.9 0.0.0.0/0 192.0.2.1"), "192.0.2.1");
    EXPECT_EQ(default_router("10.0.0.0/8,192.0.2.9 0.0.0.0/0,192.0.2.1"), "192.0.2.1");
}

TEST(LeaseStaticRoutes, first_default_route_with_a_router_counts) {
    EXPECT_EQ(default_router("0 0 0 0 0 0 192 0 2 1 0 192 0 2 2"), "192.0.2.1");
    EXPECT_EQ(default_router("0.0.0.0/0 0.0.0.0"), "");
}

TEST(LeaseStaticRoutes, others_name_no_default_router) {
    EXPECT_EQ(default_router(""), "");
    EXPECT_EQ(default_router("24 10 0 0 192 0 2 9"), "");
    EXPECT_EQ(default_router("10.0.0.0/8 192.0.2.9 10.0.0.0/10 192.0.2.9"), "");
}

TEST(LeaseStaticRoutes, what_is_none_is_told_from_one_without_a_default) {
    for (const char* text :
         {"0", "0 192 0 2", "33 1 2 3 4 5 192 0 2 1", "0 192 0 2 256", "0 192 0 2 1 8",
          "-1 192 0 2 1", "gw", "0.0.0.0/0", "0.0.0.0 192.0.2.1", "0.0.0.0/33 192.0.2.1",
          "0.0.0.0/ 192.0.2.1", "0.0.0.0/0 192.0.2.1 x"}) {
        EXPECT_EQ(default_router(text), std::nullopt) << text;
    }
}

TEST(LeaseFile, is_where_the_daemon_looks) {
    EXPECT_EQ(lease_name("gi1_1", false), "dhclient_gi1_1.leases");
    EXPECT_EQ(lease_name("gi1_1", true), "dhcp6_clientgi1_1.leases");
}

TEST(LeaseFile, holds_the_line_that_the_daemon_takes) {
    EXPECT_EQ(lease_text({"gi1_1", false, "192.0.2.1", "0c4b"}),
              "# Written by lb-lease(8) for lb(8); changes are lost.\n"
              "# Since the machine's start 0c4b\n"
              "lease {\n  interface \"gi1_1\";\n  option routers 192.0.2.1;\n}\n");
    EXPECT_EQ(lease_text({"gi1_1", true, "fe80::1", ""}),
              "# Written by lb-lease(8) for lb(8); changes are lost.\n"
              "interface='gi1_1'\nnew_routers='fe80::1'\n");
}

TEST(LeaseFile, is_told_from_a_clients_own) {
    EXPECT_TRUE(is_own_text(lease_text({"gi1_1", false, "192.0.2.1", ""})));
    EXPECT_TRUE(is_own_text(lease_text({"gi1_1", true, "fe80::1", "0c4b"})));
    EXPECT_FALSE(is_own_text("lease {\n  option routers 192.0.2.1;\n}\n"));
    EXPECT_FALSE(is_own_text(""));
    EXPECT_FALSE(is_own_text("# Written by lb-lease"));
}

TEST(LeaseFile, of_another_start_of_the_machine_is_told_from_one_of_this) {
    for (const bool is_ipv6 : {false, true}) {
        const std::string text = lease_text({"gi1_1", is_ipv6, "fe80::1", "0c4b"});
        EXPECT_FALSE(is_of_other_boot(text, "0c4b"));
        EXPECT_TRUE(is_of_other_boot(text, "0c4"));
        EXPECT_TRUE(is_of_other_boot(text, "0c4b1"));
    }
}

TEST(LeaseFile, of_an_unknown_start_or_of_others_is_of_no_other_start) {
    EXPECT_FALSE(is_of_other_boot(lease_text({"gi1_1", false, "192.0.2.1", ""}), "0c4b"));
    EXPECT_FALSE(is_of_other_boot("lease {\n  option routers 192.0.2.1;\n}\n", "0c4b"));
    EXPECT_FALSE(is_of_other_boot("# Since the machine's start 77\n", "0c4b"));
    EXPECT_FALSE(is_of_other_boot("", "0c4b"));
}

}  // namespace

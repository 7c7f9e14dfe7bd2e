#include "decision/lease_file.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

std::string read_with(std::string (*reader)(FILE*, nanoseconds), std::string text,
                      nanoseconds unmodified_for) {
    const std::unique_ptr<FILE, int (*)(FILE*)> file(
        text.empty() ? fopen("/dev/null", "r") : fmemopen(text.data(), text.size(), "r"), fclose);
    return reader(file.get(), unmodified_for);
}

std::string ipv4(const std::string& text, nanoseconds unmodified_for = 0s) {
    return read_with(router_in_lease, text, unmodified_for);
}
std::string ipv6(const std::string& text, nanoseconds unmodified_for = 0s) {
    return read_with(router_in_lease6, text, unmodified_for);
}

TEST(Lease, first_of_several_routers_counts) {
    EXPECT_EQ(ipv4("lease {\n  option routers 10.0.0.1,10.0.0.2;\n}\n"), "10.0.0.1");
}

TEST(Lease, semicolon_is_dropped) {
    EXPECT_EQ(ipv4("  option routers 10.0.0.1;\n"), "10.0.0.1");
}

TEST(Lease, value_that_ends_in_a_digit_is_kept_whole) {
    for (const char digit : std::string("0123456789")) {
        const std::string router = std::string("10.0.0.1") + digit;
        EXPECT_EQ(ipv4("  option routers " + router + "\n"), router);
    }
}

TEST(Lease, first_line_with_routers_counts_however_many_leases_follow) {
    EXPECT_EQ(
        ipv4("lease {\n  option routers 10.0.0.1;\n}\nlease {\n  option routers 10.0.9.9;\n}\n"),
        "10.0.0.1");
}

TEST(Lease, routers_must_be_the_second_word) {
    EXPECT_EQ(ipv4("routers 10.0.0.1;\noption other routers 10.0.0.2;\n"), "");
}

TEST(Lease, half_written_file_tells_no_router) {
    EXPECT_EQ(ipv4(""), "");
    EXPECT_EQ(ipv4("lease {\n  option rou"), "");
    EXPECT_EQ(ipv4("lease {\n  option routers"), "");
    EXPECT_EQ(ipv4("lease {\n  option routers ;\n"), "");
    EXPECT_EQ(ipv4("lease {\n  option routers ,\n"), "");
}

TEST(Lease, value_that_is_not_ended_yet_tells_no_router) {
    EXPECT_EQ(ipv4("lease {\n  option routers 192.0.2"), "");
    EXPECT_EQ(ipv4("lease {\n  option routers 192.0.2.1"), "");
    EXPECT_EQ(ipv4("lease {\n  option routers 192.0.2.17,192"), "");
}

TEST(Lease, closed_value_needs_no_end_of_its_line) {
    EXPECT_EQ(ipv4("lease {\n  option routers 192.0.2.17;"), "192.0.2.17");
    EXPECT_EQ(ipv6("new_routers='fe80::1'"), "fe80::1");
}

TEST(Lease, last_line_counts_unended_once_the_file_rests_for_a_second) {
    const std::string unended = "lease {\n  option routers 192.0.2.17";
    EXPECT_EQ(ipv4(unended, 1s - 1ns), "");
    EXPECT_EQ(ipv4(unended, 1s), "192.0.2.17");
    EXPECT_EQ(ipv4("option routers 192.0.2.17, 192.0.2.18 ", 1s), "192.0.2.17");
}

TEST(Lease, file_that_rests_is_read_like_any_other_before_its_last_line) {
    EXPECT_EQ(ipv4("option routers 10.0.0.1;\noption routers 10.0.0.2", 1h), "10.0.0.1");
    EXPECT_EQ(ipv4("lease {\n  option rou", 1h), "");
    EXPECT_EQ(ipv4("", 1h), "");
}

TEST(Lease, line_longer_than_the_buffer_tells_its_first_router) {
    EXPECT_EQ(ipv4("  option routers 10.0.0.1," + std::string(2000, '2')), "10.0.0.1");
}

TEST(Lease, blank_after_the_comma_changes_nothing) {
    EXPECT_EQ(ipv4("  option routers 10.0.0.1, 10.0.0.2;\n"), "10.0.0.1");
}

TEST(Lease, tabs_separate_words) {
    EXPECT_EQ(ipv4("\toption\trouters\t10.0.0.1;\n"), "10.0.0.1");
}

TEST(Lease, only_the_last_character_is_dropped) {
    EXPECT_EQ(ipv4("  option routers 10.0.0.1;\r\n"), "10.0.0.1;");
}

TEST(Lease, line_is_cut_after_1023_characters) {
    const std::string cut = "option routers 10.0.0.1";
    EXPECT_EQ(ipv4(std::string(1023 - cut.size(), ' ') + cut + "23;\n"), "10.0.0.1");
}

TEST(Lease, rest_of_a_cut_line_is_a_line) {
    EXPECT_EQ(ipv4(std::string(1023, 'x') + "option routers 10.0.0.1;\n"), "10.0.0.1");
}

TEST(Lease6, value_that_is_not_ended_yet_tells_no_router) {
    EXPECT_EQ(ipv6("new_routers='fe80::1"), "");
    EXPECT_EQ(ipv6("new_routers='fe80::1 fe80:"), "");
}

TEST(Lease6, last_line_counts_unended_once_the_file_rests_for_a_second) {
    const std::string unended = "new_routers='fe80::1' interface";
    EXPECT_EQ(ipv6(unended, 1s - 1ns), "");
    EXPECT_EQ(ipv6(unended, 1s), "fe80::1");
}

TEST(Lease6, quotes_are_dropped) {
    EXPECT_EQ(ipv6("new_routers='fe80::1'\n"), "fe80::1");
}

TEST(Lease6, first_of_several_routers_loses_its_last_character) {
    EXPECT_EQ(ipv6("new_routers='fe80::1 fe80::2'\n"), "fe80::");
}

TEST(Lease6, first_line_with_routers_counts) {
    EXPECT_EQ(ipv6("new_routers='fe80::1'\nnew_routers='fe80::9'\n"), "fe80::1");
}

TEST(Lease6, other_names_do_not_count) {
    EXPECT_EQ(ipv6("old_routers='fe80::1'\nx=new_routers\n"), "");
}

TEST(Lease6, value_shorter_than_its_quotes_tells_no_router) {
    EXPECT_EQ(ipv6("new_routers=\n"), "");
    EXPECT_EQ(ipv6("new_routers='\n"), "");
    EXPECT_EQ(ipv6("new_routers=''\n"), "");
    EXPECT_EQ(ipv6("new_routers"), "");
}

}  // namespace

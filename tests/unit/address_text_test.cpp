#include "base/address_text.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "unit/support/faults.h"

namespace {

TEST(AddressText, ipv4_is_dotted_decimal) {
    EXPECT_EQ(to_text(Ipv4Bytes{192, 0, 2, 1}), "192.0.2.1");
}

TEST(AddressText, ipv6_is_canonical) {
    const auto address = parse_ipv6("2001:0DB8:0:0:0:0:0:00aB");
    ASSERT_TRUE(address);
    EXPECT_EQ(to_text(*address).text, "2001:db8::ab");
}

TEST(AddressText, ipv6_that_cannot_be_printed_tells_the_error) {
    const faults::FailCall no_text(faults::Call::inet_ntop, ENOSPC);
    EXPECT_EQ(to_text(Ipv6Bytes{}).error, ENOSPC);
}

TEST(ParsedAddress, ipv4_has_four_numbers_unless_any_form_will_do) {
    EXPECT_FALSE(parse_ipv4("127.1"));
    EXPECT_EQ(parse_ipv4_in_any_form("127.1"), (Ipv4Bytes{127, 0, 0, 1}));
    EXPECT_FALSE(parse_ipv4_in_any_form("dhcp"));
}

TEST(ParsedAddress, ipv4_that_is_none_becomes_all_ones_where_asked_so) {
    EXPECT_EQ(parse_ipv4_or_all_ones("192.0.2.1"), (Ipv4Bytes{192, 0, 2, 1}));
    EXPECT_EQ(parse_ipv4_or_all_ones("dhcp"), (Ipv4Bytes{255, 255, 255, 255}));
}

TEST(ParsedAddress, text_of_the_other_family_is_refused) {
    EXPECT_FALSE(parse_ipv4("2001:db8::1"));
    EXPECT_FALSE(parse_ipv6("192.0.2.1"));
}

}  // namespace

#include <gtest/gtest.h>

#include "host/addresses.h"

namespace {

TEST(Resolve, dotted_address_needs_no_name_server) {
    const host::Resolved resolved = host::resolve("192.0.2.1", false);
    EXPECT_EQ(resolved.status, 0);
    EXPECT_EQ(resolved.ipv4, (Ipv4Bytes{192, 0, 2, 1}));
}

TEST(Resolve, ipv6_address_needs_no_name_server) {
    const host::Resolved resolved = host::resolve("2001:db8::1", true);
    EXPECT_EQ(resolved.status, 0);
    EXPECT_EQ(resolved.ipv6,
              (Ipv6Bytes{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
}

TEST(Resolve, address_of_the_other_family_is_refused) {
    EXPECT_NE(host::resolve("192.0.2.1", true).status, 0);
    EXPECT_NE(host::resolve("2001:db8::1", false).status, 0);
}

}  // namespace

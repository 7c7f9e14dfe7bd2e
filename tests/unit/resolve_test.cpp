#include "net/resolve.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>

namespace {

TEST(Resolve, dotted_address_needs_no_name_server) {
    sockaddr_storage first{};
    ASSERT_EQ(resolve_host("192.0.2.1", AF_INET, first), 0);
    sockaddr_in address;
    std::memcpy(&address, &first, sizeof address);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(0xc0000201));
    EXPECT_EQ(address.sin_port, 0);
}

TEST(Resolve, ipv6_address_needs_no_name_server) {
    sockaddr_storage first{};
    ASSERT_EQ(resolve_host("2001:db8::1", AF_INET6, first), 0);
    sockaddr_in6 address;
    std::memcpy(&address, &first, sizeof address);
    EXPECT_EQ(address.sin6_family, AF_INET6);
    const in6_addr expected{{{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}};
    EXPECT_EQ(std::memcmp(&address.sin6_addr, &expected, sizeof expected), 0);
}

TEST(Resolve, address_of_the_other_family_is_refused) {
    sockaddr_storage first{};
    EXPECT_NE(resolve_host("192.0.2.1", AF_INET6, first), 0);
    EXPECT_NE(resolve_host("2001:db8::1", AF_INET, first), 0);
    EXPECT_EQ(first.ss_family, 0);  // untouched
}

}  // namespace

#include "wire/checksum.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(InternetChecksum, example_of_rfc_1071) {
    const Bytes data{0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7};
    EXPECT_EQ(internet_checksum(data), 0x220d);  // the complement of the sum 0xddf2
}

TEST(InternetChecksum, no_data_is_all_ones) {
    EXPECT_EQ(internet_checksum(Bytes{}), 0xffff);
}

TEST(InternetChecksum, odd_byte_counts_as_its_plain_value) {
    const Bytes data{0x12, 0x34, 0x56};
    EXPECT_EQ(internet_checksum(data), 0xed75);  // ~(0x1234 + 0x0056)
}

TEST(InternetChecksum, carries_are_folded_until_none_is_left) {
    const Bytes data{0xff, 0xff, 0x00, 0x01, 0xff, 0xff};
    EXPECT_EQ(internet_checksum(data), 0xfffe);
}

TEST(InternetChecksum, data_with_its_checksum_sums_to_zero) {
    const Bytes header{0x45, 0x00, 0x00, 0x20, 0x00, 0x00, 0x00, 0x00, 0xff, 0x01,
                       0xbd, 0xd4, 0xc0, 0x00, 0x02, 0x02, 0xcb, 0x00, 0x71, 0x05};
    EXPECT_EQ(internet_checksum(header), 0);
}

TEST(InternetChecksum, words_of_a_pointer_are_taken_in_network_order) {
    alignas(unsigned short) const std::array<std::uint8_t, 4> data{0x12, 0x34, 0x00, 0x01};
    const auto* words = reinterpret_cast<const unsigned short*>(data.data());
    EXPECT_EQ(internet_checksum(words, 4), 0xedca);
}

TEST(InternetChecksum, negative_length_reads_nothing) {
    EXPECT_EQ(internet_checksum(nullptr, -1), 0xffff);
}

Ipv6Header between_documentation_addresses() {
    Ipv6Header ip;
    ip.source = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
    ip.destination = {0x20, 0x01, 0x0d, 0xb8, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5};
    return ip;
}

TEST(Icmp6Checksum, covers_addresses_length_and_next_header) {
    // Addresses 0x2001+0x0db8+0x0002 and 0x2001+0x0db8+0x0001+0x0005, length 2, next header 58,
    // message 0x8000: the sum is 0xdbb6.
    const Bytes message{0x80, 0x00};
    EXPECT_EQ(icmp6_checksum(between_documentation_addresses(), message), 0x2449);
}

TEST(Icmp6Checksum, odd_message_is_padded_with_a_zero_byte) {
    // As above, with length 3 and the word 0x0100: the sum is 0xdcb7.
    const Bytes message{0x80, 0x00, 0x01};
    EXPECT_EQ(icmp6_checksum(between_documentation_addresses(), message), 0x2348);
}

TEST(Icmp6Checksum, next_header_comes_from_the_ip_header) {
    Ipv6Header ip = between_documentation_addresses();
    ip.next_header = 59;
    const Bytes message{0x80, 0x00};
    EXPECT_EQ(icmp6_checksum(ip, message), 0x2448);
}

}  // namespace

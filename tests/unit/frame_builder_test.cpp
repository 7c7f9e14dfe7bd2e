#include "wire/frame_builder.h"

#include <gtest/gtest.h>

#include <string>

#include "base/address_text.h"
#include "unit/support/hex.h"

namespace {

constexpr MacAddress own_mac{0x02, 0x00, 0x00, 0x00, 0x0a, 0x01};
constexpr MacAddress next_hop_mac{0x02, 0x00, 0x00, 0x00, 0x0b, 0x02};
constexpr std::uint16_t identifier = 0x1234;
constexpr std::uint32_t packet_id = 0x5a3c;

Ipv4Bytes ipv4(const char* text) {
    return parse_ipv4(text).value();
}

Ipv6Bytes ipv6(const char* text) {
    return parse_ipv6(text).value();
}

TEST(FrameBuilder, echo_request_on_ethernet) {
    const EchoFrame4 frame = echo_frame4(next_hop_mac, own_mac, ipv4("192.0.2.2"),
                                         ipv4("203.0.113.5"), identifier, packet_id);

    const std::string expected =
        "020000000b02"  // destination: the next hop
        "020000000a01"  // source: the interface
        "0800"          // IPv4
        "45"            // version 4, 5 words
        "00"            // type of service
        "0020"          // total length
        "0000"          // identification
        "0000"          // flags and fragment offset
        "ff"            // time to live
        "01"            // ICMP
        "bdd4"          // header checksum
        "c0000202"      // source address
        "cb007105"      // destination address
        "08"            // echo request
        "00"            // code
        "8b8f"          // checksum
        "1234"          // identifier
        "0000"          // sequence number
        "00005a3c";     // packet identifier
    EXPECT_EQ(to_hex(bytes_of(frame)), expected);
}

TEST(FrameBuilder, sequence_number_renews_the_checksum) {
    EchoFrame4 frame = echo_frame4(next_hop_mac, own_mac, ipv4("192.0.2.2"), ipv4("203.0.113.5"),
                                   identifier, packet_id);

    set_sequence(frame.icmp, 7);

    const std::string expected =
        "08"         // echo request
        "00"         // code
        "8b88"       // checksum: 7 less than with sequence number 0
        "1234"       // identifier
        "0007"       // sequence number
        "00005a3c";  // packet identifier
    EXPECT_EQ(to_hex(bytes_of(frame.icmp)), expected);
}

TEST(FrameBuilder, echo_request_on_a_tunnel) {
    const TunnelEcho4 message = tunnel_echo4(identifier, 1, packet_id);

    const std::string expected =
        "08"                         // echo request
        "00"                         // code
        "8b8e"                       // checksum of the first 12 bytes
        "1234"                       // identifier
        "0001"                       // sequence number
        "00005a3c"                   // packet identifier
        "000000000000000000000000";  // padding
    EXPECT_EQ(to_hex(bytes_of(message)), expected);
}

TEST(FrameBuilder, ipv6_echo_request_on_ethernet) {
    const EchoFrame6 frame = echo_frame6(next_hop_mac, own_mac, ipv6("2001:db8::2"),
                                         ipv6("2001:db8:1::5"), identifier, packet_id);

    const std::string expected =
        "020000000b02"                      // destination: the next hop
        "020000000a01"                      // source: the interface
        "86dd"                              // IPv6
        "60000000"                          // version 6, traffic class, flow label
        "000c"                              // payload length
        "3a"                                // ICMPv6
        "ff"                                // hop limit
        "20010db8000000000000000000000002"  // source address
        "20010db8000100000000000000000005"  // destination address
        "80"                                // echo request
        "00"                                // code
        "b7ce"                              // checksum
        "1234"                              // identifier
        "0000"                              // sequence number
        "00005a3c";                         // packet identifier
    EXPECT_EQ(to_hex(bytes_of(frame)), expected);
}

TEST(FrameBuilder, ipv6_echo_request_on_a_tunnel) {
    const TunnelEcho6 message = tunnel_echo6(identifier, 0x655f9c00, 0x0003d090, packet_id);

    const std::string expected =
        "80"        // echo request
        "00"        // code
        "419a"      // checksum of the first 20 bytes
        "1234"      // identifier
        "0001"      // sequence number
        "655f9c00"  // seconds
        "0003d090"  // microseconds
        "00005a3c"  // packet identifier
        "0000000000000000000000000000000000000000";
    EXPECT_EQ(to_hex(bytes_of(message)), expected);
}

TEST(FrameBuilder, arp_request) {
    const ArpFrame frame = arp_request_frame(own_mac, ipv4("192.0.2.2"), ipv4("192.0.2.1"));

    const std::string expected =
        "ffffffffffff"  // destination: everyone
        "020000000a01"  // source: the interface
        "0806"          // ARP
        "0001"          // Ethernet
        "0800"          // IPv4
        "06"            // hardware address length
        "04"            // protocol address length
        "0001"          // request
        "020000000a01"  // sender hardware address
        "c0000202"      // sender protocol address
        "000000000000"  // target hardware address
        "c0000201";     // target protocol address
    EXPECT_EQ(to_hex(bytes_of(frame)), expected);
}

TEST(FrameBuilder, neighbor_solicitation_to_the_group_of_its_target) {
    const NeighborSolicitation frame = neighbor_solicitation(
        own_mac, ipv6("2001:db8::2"), ipv6("ff02::1:ff00:2"), ipv6("2001:db8::1:2:3"));

    const std::string expected =
        "3333ff020003"                      // destination: the group's address
        "020000000a01"                      // source: the interface
        "86dd"                              // IPv6
        "60000000"                          // version 6, traffic class, flow label
        "0020"                              // payload length
        "3a"                                // ICMPv6
        "ff"                                // hop limit
        "20010db8000000000000000000000002"  // source address
        "ff0200000000000000000001ff020003"  // destination address
        "87"                                // neighbour solicitation
        "00"                                // code
        "0e37"                              // checksum
        "03e8"                              // reserved, first half: 1000
        "0000"                              // reserved, second half
        "20010db8000000000000000100020003"  // target address
        "01"                                // option: source link-layer address
        "01"                                // of 8 bytes
        "020000000a01";                     // the interface's address
    EXPECT_EQ(to_hex(bytes_of(frame)), expected);
}

}  // namespace

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "wire/bytes.h"

/// The frames and messages of this daemon, byte for byte. Every member is made of bytes, so no type
/// has padding or alignment and each can be held against its RFC; constant fields carry their
/// values as defaults.

inline constexpr std::uint8_t protocol_icmp = 1;
inline constexpr std::uint8_t protocol_icmp6 = 58;

/// Ethernet II.
struct EthernetHeader {
    MacAddress destination{};
    MacAddress source{};
    Be16 ethertype;
};
static_assert(sizeof(EthernetHeader) == 14);

/// RFC 791, without options.
struct Ipv4Header {
    std::uint8_t version_and_length = 0x45;
    std::uint8_t type_of_service = 0;
    Be16 total_length;
    Be16 identification;
    Be16 flags_and_fragment_offset;
    std::uint8_t time_to_live = 255;
    std::uint8_t protocol = protocol_icmp;
    Be16 checksum;
    Ipv4Bytes source{};
    Ipv4Bytes destination{};
};
static_assert(sizeof(Ipv4Header) == 20);

/// RFC 8200.
struct Ipv6Header {
    Be32 version_class_flow{0x60000000U};
    Be16 payload_length;
    std::uint8_t next_header = protocol_icmp6;
    std::uint8_t hop_limit = 255;
    Ipv6Bytes source{};
    Ipv6Bytes destination{};
};
static_assert(sizeof(Ipv6Header) == 40);

/// RFC 2460, section 8.1: what the ICMPv6 checksum covers besides the message.
struct Ipv6PseudoHeader {
    Ipv6Bytes source{};
    Ipv6Bytes destination{};
    Be32 upper_layer_length;
    std::array<std::uint8_t, 3> zero{};
    std::uint8_t next_header = 0;
};
static_assert(sizeof(Ipv6PseudoHeader) == 40);

/// RFC 792 (type 8) and RFC 4443 (type 128): an echo request that carries the packet identifier,
/// by which alone its reply is matched (B49), in the first word of its payload.
struct IcmpEcho {
    std::uint8_t type = 0;
    std::uint8_t code = 0;
    Be16 checksum;
    Be16 identifier;
    Be16 sequence;
    Be32 packet_id;
};
static_assert(sizeof(IcmpEcho) == 12);
static_assert(offsetof(IcmpEcho, packet_id) == 8);

/// IPv4 echo request on an Ethernet-like interface; its sequence number is 0 (B48).
struct EchoFrame4 {
    EthernetHeader ethernet;
    Ipv4Header ip;
    IcmpEcho icmp;
};
static_assert(sizeof(EchoFrame4) == 46);
static_assert(offsetof(EchoFrame4, ip) == 14 && offsetof(EchoFrame4, icmp) == 34);

/// IPv4 echo request on a tunnel: the kernel adds the IP header. Its sequence number is 1 (B48).
struct TunnelEcho4 {
    IcmpEcho icmp;
    std::array<std::uint8_t, 12> padding{};
};
static_assert(sizeof(TunnelEcho4) == 24);

/// IPv6 echo request on an Ethernet-like interface.
struct EchoFrame6 {
    EthernetHeader ethernet;
    Ipv6Header ip;
    IcmpEcho icmp;
};
static_assert(sizeof(EchoFrame6) == 66);
static_assert(offsetof(EchoFrame6, icmp) == 54);

/// IPv6 echo request on a tunnel. The time of sending stands before the packet identifier, so the
/// receiver, which reads the first payload word, does not match the reply. Never sent (B132).
struct TunnelEcho6 {
    std::uint8_t type = 128;
    std::uint8_t code = 0;
    Be16 checksum;
    Be16 identifier;
    Be16 sequence;
    Be32 seconds;
    Be32 microseconds;
    Be32 packet_id;
    std::array<std::uint8_t, 20> padding{};
};
static_assert(sizeof(TunnelEcho6) == 40);
static_assert(offsetof(TunnelEcho6, packet_id) == 16);

/// ARP for IPv4 over Ethernet, RFC 826.
struct ArpFrame {
    EthernetHeader ethernet;
    Be16 hardware_type{1};
    Be16 protocol_type{0x0800};
    std::uint8_t hardware_length = 6;
    std::uint8_t protocol_length = 4;
    Be16 operation;
    MacAddress sender_mac{};
    Ipv4Bytes sender_address{};
    MacAddress target_mac{};
    Ipv4Bytes target_address{};
};
static_assert(sizeof(ArpFrame) == 42);
static_assert(offsetof(ArpFrame, operation) == 20 && offsetof(ArpFrame, sender_mac) == 22);
static_assert(offsetof(ArpFrame, sender_address) == 28);

/// Neighbour solicitation with a source link-layer address option, RFC 4861, sections 4.3
/// and 4.6.1.
struct NeighborSolicitation {
    EthernetHeader ethernet;
    Ipv6Header ip;
    std::uint8_t type = 135;
    std::uint8_t code = 0;
    Be16 checksum;
    Be16 reserved_high{1000};  // B81: receivers ignore the field
    Be16 reserved_low;
    Ipv6Bytes target{};
    std::uint8_t option_type = 1;
    std::uint8_t option_length = 1;
    MacAddress option_mac{};
};
static_assert(sizeof(NeighborSolicitation) == 86);
static_assert(offsetof(NeighborSolicitation, type) == 54);
static_assert(offsetof(NeighborSolicitation, target) == 62);
static_assert(offsetof(NeighborSolicitation, option_mac) == 80);

/// Neighbour advertisement as the receiver looks at it, RFC 4861, section 4.4: the first option is
/// taken as the target's link-layer address without a look at its type (B82).
struct NeighborAdvertisement {
    EthernetHeader ethernet;
    Ipv6Header ip;
    std::uint8_t type = 0;
    std::uint8_t code = 0;
    Be16 checksum;
    Be32 flags;
    Ipv6Bytes target{};
    std::uint8_t option_type = 0;
    std::uint8_t option_length = 0;
    MacAddress option_mac{};
};
static_assert(sizeof(NeighborAdvertisement) == 86);
static_assert(offsetof(NeighborAdvertisement, target) == 62);
static_assert(offsetof(NeighborAdvertisement, option_mac) == 80);

inline constexpr std::uint16_t ethertype_ipv4 = 0x0800;
inline constexpr std::uint16_t ethertype_arp = 0x0806;
inline constexpr std::uint16_t ethertype_ipv6 = 0x86dd;
inline constexpr MacAddress broadcast_mac{0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
inline constexpr std::uint16_t arp_request = 1;
inline constexpr std::uint16_t arp_reply = 2;
inline constexpr std::uint8_t icmp_echo_reply = 0;
inline constexpr std::uint8_t icmp_echo_request = 8;
inline constexpr std::uint8_t icmp6_echo_request = 128;
inline constexpr std::uint8_t icmp6_echo_reply = 129;
inline constexpr std::uint8_t icmp6_neighbor_advertisement = 136;

static_assert(alignof(EchoFrame4) == 1 && alignof(EchoFrame6) == 1 && alignof(ArpFrame) == 1 &&
              alignof(NeighborSolicitation) == 1 && alignof(TunnelEcho6) == 1);

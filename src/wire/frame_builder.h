#pragma once

#include <cstdint>

#include "wire/frames.h"

/// Builders of complete, checksummed frames. They make no system call: addresses, identifiers and
/// numbers come as arguments. `identifier` is the ICMP identifier, `packet_id` the word that the
/// reply is matched by.

EchoFrame4 echo_frame4(const MacAddress& destination, const MacAddress& source_mac,
                       const Ipv4Bytes& source, const Ipv4Bytes& target, std::uint16_t identifier,
                       std::uint32_t packet_id);
EchoFrame6 echo_frame6(const MacAddress& destination, const MacAddress& source_mac,
                       const Ipv6Bytes& source, const Ipv6Bytes& target, std::uint16_t identifier,
                       std::uint32_t packet_id);
TunnelEcho4 tunnel_echo4(std::uint16_t identifier, std::uint16_t sequence, std::uint32_t packet_id);
TunnelEcho6 tunnel_echo6(std::uint16_t identifier, std::uint32_t seconds,
                         std::uint32_t microseconds, std::uint32_t packet_id);

/// Gives an echo request another sequence number (with its checksum): the extended ping sends one
/// frame many times.
void set_sequence(IcmpEcho& icmp, std::uint16_t sequence);

ArpFrame arp_request_frame(const MacAddress& source_mac, const Ipv4Bytes& source,
                           const Ipv4Bytes& target);

/// `destination` is the solicited-node multicast group whose last three bytes are filled in from
/// `target`.
NeighborSolicitation neighbor_solicitation(const MacAddress& source_mac, const Ipv6Bytes& source,
                                           const Ipv6Bytes& destination, const Ipv6Bytes& target);

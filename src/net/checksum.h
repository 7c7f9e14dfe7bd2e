#pragma once

#include <netinet/icmp6.h>
#include <netinet/ip6.h>
#include <netinet/ip_icmp.h>

#include <cstdint>
#include <span>

#include "net/frames.h"

/// The Internet checksum (RFC 1071) of `data` as a host number; store it through a `Be16`.
/// Words are read in network order; a byte left over is added as its plain value (every message of
/// this daemon has an even length, so that case never reaches the wire).
std::uint16_t internet_checksum(std::span<const std::uint8_t> data);

/// The same as the classes offer it: `length` bytes at `data`, which lie in network order whatever
/// the pointer's type says. A negative length counts as 0.
std::uint16_t internet_checksum(const unsigned short* data, int length);

/// The ICMPv6 checksum of `message`, whose checksum field is 0: the Internet checksum over the
/// pseudo-header of RFC 2460, section 8.1 (addresses and next header as in `ip`), and the message
/// padded to an even length.
std::uint16_t icmp6_checksum(const Ipv6Header& ip, std::span<const std::uint8_t> message);

/// The checksums as the classes offer them, on the system's own header types (in network order, the
/// checksum field counts as 0) and `length` bytes of data behind the header; a negative length
/// counts as 0.
std::uint16_t icmp4_checksum(icmphdr header, const unsigned char* data, int length);
std::uint16_t icmp6_checksum(const ip6_hdr& ip, icmp6_hdr header, const unsigned char* data,
                             int length);

#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "wire/frames.h"

/// The Internet checksum (RFC 1071) of `data` as a host number; store it through a `Be16`.
/// Words are read in network order; a byte left over is added as its plain value (B133; every
/// message of this daemon has an even length, so that case never reaches the wire).
std::uint16_t internet_checksum(std::span<const std::uint8_t> data);

/// The ICMPv6 checksum of `message`, whose checksum field is 0: the Internet checksum over the
/// pseudo-header of RFC 2460, section 8.1 (addresses and next header as in `ip`), and the message
/// padded to an even length.
std::uint16_t icmp6_checksum(const Ipv6Header& ip, std::span<const std::uint8_t> message);

/// The same as the probe classes offer them: on the 8 bytes of an ICMP header, whose checksum
/// counts as 0, and `length` bytes of data behind it; a negative length counts as 0.
using IcmpHeaderBytes = std::array<std::uint8_t, 8>;
std::uint16_t icmp4_checksum(IcmpHeaderBytes header, const unsigned char* data, int length);
std::uint16_t icmp6_checksum(const Ipv6Header& ip, IcmpHeaderBytes header,
                             const unsigned char* data, int length);
/// The Internet checksum of `length` bytes at `data`, which lie in network order whatever the
/// pointer's type says.
std::uint16_t internet_checksum(const unsigned short* data, int length);

#pragma once

#include <optional>
#include <string>

#include "wire/bytes.h"

/// Addresses and their texts, by the C library's conversions. Pure.

/// Dotted decimal with its four numbers, inet_pton(3).
std::optional<Ipv4Bytes> parse_ipv4(const std::string& text);
/// Every form that inet_aton(3) reads.
std::optional<Ipv4Bytes> parse_ipv4_in_any_form(const std::string& text);
/// What inet_addr(3) reads; 255.255.255.255 where that is no address.
Ipv4Bytes parse_ipv4_or_all_ones(const std::string& text);
std::optional<Ipv6Bytes> parse_ipv6(const std::string& text);

/// The address in dotted decimal.
std::string to_text(const Ipv4Bytes& address);
/// The address in the canonical form of RFC 5952; `error` is inet_ntop(3)'s, as in errno(3).
struct Ipv6Text {
    std::string text;
    int error = 0;
};
Ipv6Text to_text(const Ipv6Bytes& address);

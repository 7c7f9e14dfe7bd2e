#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

/// Addresses and prefixes of both families as plain values, without a system call.
namespace lbroute {

enum class Family : std::uint8_t { ipv4, ipv6 };

/// "IPv4" or "IPv6", as messages name it.
std::string_view name_of(Family family);

/// An address; ordered by family, then by its bytes.
struct Address {
    Family family = Family::ipv4;
    std::array<std::uint8_t, 16> bytes{};  ///< network order; IPv4 fills the first four

    auto operator<=>(const Address&) const = default;

    /// The usual text, RFC 5952 for IPv6.
    std::string text() const;
    /// The bytes that the family uses: 4 or 16.
    std::span<const std::uint8_t> used_bytes() const;
    /// fe80::/10: means something together with an interface only.
    bool is_link_local() const;

    /// The address in the family's usual text and nothing else; no zone behind it.
    static std::optional<Address> parse(std::string_view text, Family family);
};

/// How many bits an address of the family has.
constexpr int bits_of(Family family) {
    return family == Family::ipv4 ? 32 : 128;
}

/// A destination: the first `length` bits of the address, the others are 0.
struct Prefix {
    Address address;
    int length = 0;

    auto operator<=>(const Prefix&) const = default;

    std::string text() const;  ///< ADDRESS/LENGTH
    bool contains(const Address& other) const;
};

/// The address with every bit beyond the first `length` set to 0.
Address network_of(Address address, int length);

}  // namespace lbroute

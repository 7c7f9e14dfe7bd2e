#include "lbroute/address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>

namespace lbroute {

namespace {

int af_of(Family family) {
    return family == Family::ipv4 ? AF_INET : AF_INET6;
}

}  // namespace

std::string_view name_of(Family family) {
    return family == Family::ipv4 ? "IPv4" : "IPv6";
}

std::string Address::text() const {
    std::array<char, INET6_ADDRSTRLEN> text{};
    inet_ntop(af_of(family), bytes.data(), text.data(), text.size());
    return text.data();
}

std::span<const std::uint8_t> Address::used_bytes() const {
    return std::span(bytes).first(static_cast<std::size_t>(bits_of(family) / 8));
}

bool Address::is_link_local() const {
    return family == Family::ipv6 && bytes[0] == 0xfe && (bytes[1] & 0xc0U) == 0x80;
}

std::optional<Address> Address::parse(std::string_view text, Family family) {
    // A NUL inside would end the text early for inet_pton and hide what follows.
    if (text.size() >= INET6_ADDRSTRLEN || text.find('\0') != std::string_view::npos) {
        return std::nullopt;
    }
    Address address{.family = family};
    if (inet_pton(af_of(family), std::string(text).c_str(), address.bytes.data()) != 1) {
        return std::nullopt;
    }
    return address;
}

std::string Prefix::text() const {
    return address.text() + "/" + std::to_string(length);
}

bool Prefix::contains(const Address& other) const {
    return other.family == address.family && network_of(other, length) == address;
}

Address network_of(Address address, int length) {
    for (std::size_t i = 0; i < address.bytes.size(); ++i) {
        const int kept_bits = std::clamp(length - static_cast<int>(i) * 8, 0, 8);
        address.bytes[i] &= static_cast<std::uint8_t>(0xff00U >> static_cast<unsigned>(kept_bits));
    }
    return address;
}

}  // namespace lbroute

#include "base/address_text.h"

#include <arpa/inet.h>

#include <array>
#include <bit>
#include <cerrno>

std::optional<Ipv4Bytes> parse_ipv4(const std::string& text) {
    Ipv4Bytes address{};
    const bool is_address = inet_pton(AF_INET, text.c_str(), address.data()) == 1;
    return is_address ? std::make_optional(address) : std::nullopt;
}

std::optional<Ipv4Bytes> parse_ipv4_in_any_form(const std::string& text) {
    in_addr address{};
    const bool is_address = inet_aton(text.c_str(), &address) != 0;
    return is_address ? std::make_optional(std::bit_cast<Ipv4Bytes>(address)) : std::nullopt;
}

Ipv4Bytes parse_ipv4_or_all_ones(const std::string& text) {
    return std::bit_cast<Ipv4Bytes>(inet_addr(text.c_str()));
}

std::optional<Ipv6Bytes> parse_ipv6(const std::string& text) {
    Ipv6Bytes address{};
    const bool is_address = inet_pton(AF_INET6, text.c_str(), address.data()) == 1;
    return is_address ? std::make_optional(address) : std::nullopt;
}

std::string to_text(const Ipv4Bytes& address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, address.data(), text.data(), text.size());
    return text.data();
}

Ipv6Text to_text(const Ipv6Bytes& address) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (inet_ntop(AF_INET6, address.data(), text.data(), text.size()) == nullptr) {
        return {.text = "", .error = errno};
    }
    return {.text = text.data(), .error = 0};
}

#include "lbcheck/values.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>

#include "base/address_text.h"
#include "config/keywords.h"

namespace lbcheck {

namespace {

/// How many characters from `begin` on are digits.
std::size_t digits_at(const std::string& text, std::size_t begin) {
    std::size_t end = begin;
    while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end])) != 0) {
        ++end;
    }
    return end - begin;
}

}  // namespace

bool is_address(int family, const std::string& text) {
    in6_addr binary{};
    return inet_pton(family, text.c_str(), &binary) == 1;
}

bool is_prefix(int family, const std::string& text) {
    const std::size_t slash = text.find('/');
    if (slash == std::string::npos || !is_address(family, text.substr(0, slash))) {
        return false;
    }
    const std::string length = text.substr(slash + 1);
    constexpr std::size_t most_digits = 3;
    return !length.empty() && length.size() <= most_digits &&
           digits_at(length, 0) == length.size() &&
           std::stoi(length) <= (family == AF_INET ? 32 : 128);
}

namespace {

/// The address with everything behind the first `length` bits cleared.
template <std::size_t Size>
std::array<std::uint8_t, Size> network_of(std::array<std::uint8_t, Size> address, int length) {
    constexpr int byte_bits = 8;
    for (std::size_t i = 0; i < Size; ++i) {
        const int kept = std::clamp(length - static_cast<int>(i) * byte_bits, 0, byte_bits);
        address.at(i) &= static_cast<std::uint8_t>(0xff00U >> static_cast<unsigned>(kept));
    }
    return address;
}

std::string text_of(const Ipv4Bytes& address) {
    return to_text(address);
}

std::string text_of(const Ipv6Bytes& address) {
    return to_text(address).text;
}

template <class Address>
std::string problem_of_host_bits(const Address& address, int length) {
    const Address network = network_of(address, length);
    return network == address
               ? ""
               : "has bits set behind its length, for which a routing daemon refuses "
                 "the whole fragment; write " +
                     text_of(network) + "/" + std::to_string(length);
}

constexpr std::array usual_names{"ppp", "wg", "tun"};

constexpr const char* no_neighbour = "no neighbour has this address: nothing is ever sent there";

}  // namespace

std::string canonical_prefix(int family, const std::string& text) {
    if (!is_prefix(family, text)) {
        return text;
    }
    const std::size_t slash = text.find('/');
    const std::string address = text.substr(0, slash);
    return (family == AF_INET ? text_of(*parse_ipv4(address)) : text_of(*parse_ipv6(address))) +
           "/" + std::to_string(std::stoi(text.substr(slash + 1)));
}

std::string problem_of_prefix(int family, const std::string& text) {
    if (!is_prefix(family, text)) {
        return "not a prefix of the rule's family";
    }
    const std::size_t slash = text.find('/');
    const std::string address = text.substr(0, slash);
    const int length = std::stoi(text.substr(slash + 1));
    return family == AF_INET ? problem_of_host_bits(*parse_ipv4(address), length)
                             : problem_of_host_bits(*parse_ipv6(address), length);
}

bool is_of_a_host(int family, const std::string& text) {
    if (family == AF_INET) {
        const auto address = parse_ipv4(text);
        constexpr std::uint8_t loopback = 127;
        constexpr std::uint8_t first_multicast = 224;  // and reserved, and broadcast
        return !address ||
               ((*address)[0] != 0 && (*address)[0] != loopback && (*address)[0] < first_multicast);
    }
    const auto address = parse_ipv6(text);
    constexpr std::uint8_t multicast = 0xff;
    const Ipv6Bytes unspecified{};
    Ipv6Bytes loopback{};
    loopback.back() = 1;
    return !address ||
           ((*address)[0] != multicast && *address != unspecified && *address != loopback);
}

bool is_usually_without_ethernet(const std::string& ifname) {
    // wwan is not among them: some modems speak Ethernet.
    return std::any_of(usual_names.begin(), usual_names.end(), [&ifname](const char* begin) {
        const std::string rest = ifname.starts_with(begin) ? ifname.substr(strlen(begin)) : "x";
        return rest.empty() || std::isalpha(static_cast<unsigned char>(rest[0])) == 0;
    });
}

std::string problem_of_next_hop(int family, const std::string& text) {
    if (!is_of_a_host(family, text)) {
        return no_neighbour;
    }
    const auto address = family == AF_INET6 ? parse_ipv6(text) : std::nullopt;
    const std::string printed = address ? text_of(*address) : text;
    return printed == text ? ""
                           : "the kernel prints it otherwise, so it is never found among the "
                             "neighbours; write " +
                                 printed;
}

std::string problem_of_interface_name(const std::string& name) {
    constexpr std::size_t longest = 15;  // IFNAMSIZ without its zero
    if (name.size() > longest) {
        return "no interface has a name longer than 15 characters";
    }
    const bool is_possible = name != "." && name != ".." &&
                             name.find_first_of("/:{}\"") == std::string::npos &&
                             std::none_of(name.begin(), name.end(),
                                          [](unsigned char c) { return c <= ' ' || c == 127; });
    return is_possible ? ""
                       : "no interface has such a name: it is one word without '/', ':', quotes "
                         "and brackets";
}

std::string problem_of_namespace_name(const std::string& name) {
    const bool is_plain =
        name != "." && name != ".." && !name.starts_with('-') && name.size() < 256 &&
        std::all_of(name.begin(), name.end(), [](unsigned char c) {
            return std::isalnum(c) != 0 || c == '_' || c == '.' || c == '-' || c == '+';
        });
    return is_plain ? ""
                    : "not a plain file name: it becomes part of paths and of a shell command; "
                      "use letters, digits, '_', '.' and '-'";
}

bool is_link_local(const std::string& address) {
    const auto binary = parse_ipv6(address);
    return binary && (*binary)[0] == 0xfe && ((*binary)[1] & 0xc0U) == 0x80;
}

std::string problem_of_number(const std::string& text) {
    const std::size_t begin = text.starts_with('-') ? 1 : 0;
    const std::size_t digits = digits_at(text, begin);
    const std::string taken = "read as " + std::to_string(configured_number(text));
    if (digits == 0) {
        return "not a number: " + taken;
    }
    if (begin + digits != text.size()) {
        return "not a plain number: " + taken;
    }
    const unsigned long whole = strtoul(text.c_str() + begin, nullptr, 10);
    return whole > static_cast<unsigned long>(std::numeric_limits<std::int32_t>::max())
               ? "not a 32-bit number: " + taken
               : "";
}

}  // namespace lbcheck

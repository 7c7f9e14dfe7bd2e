#include "lb-lease/lease_text.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>
#include <span>
#include <sstream>
#include <system_error>
#include <vector>

namespace lblease {

namespace {

constexpr std::string_view mark = "# Written by lb-lease(8) for lb(8); changes are lost.\n";
constexpr std::string_view boot_mark = "# Since the machine's start ";

bool is_printable(char character) {
    return character > ' ' && character != '\x7f';
}

/// Whether a host can have it and be asked by it.
bool is_unicast(const in_addr& address) {
    const in_addr_t host_order = ntohl(address.s_addr);
    const in_addr_t network = host_order >> 24U;
    return network != 0 && network != IN_LOOPBACKNET && network < 224;
}

bool is_unicast(const in6_addr& address) {
    return !IN6_IS_ADDR_UNSPECIFIED(&address) && !IN6_IS_ADDR_LOOPBACK(&address) &&
           !IN6_IS_ADDR_MULTICAST(&address) && !IN6_IS_ADDR_V4MAPPED(&address);
}

template <class Address>
Router parse(int family, const std::string& text) {
    Address address;
    if (inet_pton(family, text.c_str(), &address) != 1) {
        return {"", family == AF_INET6 ? "is no IPv6 address" : "is no IPv4 address"};
    }
    if (!is_unicast(address)) {
        return {"", "is no address that a router can have"};
    }
    std::array<char, INET6_ADDRSTRLEN> buffer{};
    inet_ntop(family, &address, buffer.data(), buffer.size());
    return {buffer.data(), ""};
}

constexpr unsigned octets_of_address = 4;

struct StaticRoute {
    bool is_default = false;
    std::string router;
};

std::vector<std::string> words_of(std::string text) {
    std::ranges::replace(text, ',', ' ');
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

std::optional<unsigned> number_of(std::string_view word, unsigned most) {
    unsigned number = 0;
    const auto [end, error] = std::from_chars(word.begin(), word.end(), number);
    const bool is_number = error == std::errc() && end == word.end() && number <= most;
    return is_number ? std::optional(number) : std::nullopt;
}

/// One route as numbers, taken off the front of the words.
std::optional<StaticRoute> take_numbers(std::span<const std::string>& words) {
    const std::optional<unsigned> length = number_of(words.front(), 32);
    const unsigned covered = (length.value_or(0) + 7) / 8;
    if (!length || words.size() < 1 + covered + octets_of_address) {
        return std::nullopt;
    }
    StaticRoute route{*length == 0, ""};
    for (const std::string& octet : words.subspan(1 + covered, octets_of_address)) {
        if (!number_of(octet, 255)) {
            return std::nullopt;
        }
        route.router += (route.router.empty() ? "" : ".") + octet;
    }
    words = words.subspan(1 + covered + octets_of_address);
    return route;
}

/// One route as DESTINATION/LENGTH ROUTER, taken off the front of the words.
std::optional<StaticRoute> take_addresses(std::span<const std::string>& words) {
    const std::size_t slash = words.front().find('/');
    if (slash == std::string::npos || words.size() < 2 ||
        !number_of(std::string_view(words.front()).substr(slash + 1), 32)) {
        return std::nullopt;
    }
    StaticRoute route{words.front().ends_with("/0"), words[1]};
    words = words.subspan(2);
    return route;
}

}  // namespace

std::optional<std::string> default_router(const std::string& static_routes) {
    const std::vector<std::string> all = words_of(static_routes);
    const bool has_addresses = static_routes.find('.') != std::string::npos;
    std::string found;
    for (std::span<const std::string> rest = all; !rest.empty();) {
        const auto route = has_addresses ? take_addresses(rest) : take_numbers(rest);
        if (!route) {
            return std::nullopt;
        }
        // The router 0.0.0.0 stands for the link itself.
        if (found.empty() && route->is_default && route->router != "0.0.0.0") {
            found = route->router;
        }
    }
    return found;
}

std::string problem_of_name(const std::string& name) {
    if (name.empty()) {
        return "is empty";
    }
    if (name.size() >= IFNAMSIZ) {
        return "is longer than 15 characters";
    }
    if (name == "." || name == "..") {
        return "is a folder's name";
    }
    if (name.find_first_of("/:") != std::string::npos) {
        return "holds a '/' or ':'";
    }
    if (!std::ranges::all_of(name, is_printable)) {
        return "holds a blank or a character that cannot be printed";
    }
    return "";
}

Router parse_router(const std::string& text, bool is_ipv6, const std::string& interface) {
    if (!is_ipv6) {
        return parse<in_addr>(AF_INET, text);
    }
    const std::size_t scope = text.find('%');
    if (scope != std::string::npos && text.substr(scope + 1) != interface) {
        return {"", "lies behind another interface than " + interface};
    }
    return parse<in6_addr>(AF_INET6, text.substr(0, scope));
}

std::string lease_text(const Told& told) {
    const std::string since = told.boot.empty() ? "" : std::string(boot_mark) + told.boot + "\n";
    const std::string statements =
        told.is_ipv6 ? "interface='" + told.interface + "'\nnew_routers='" + told.router + "'\n"
                     : "lease {\n  interface \"" + told.interface + "\";\n  option routers " +
                           told.router + ";\n}\n";
    return std::string(mark) + since + statements;
}

bool is_own_text(std::string_view text) {
    return text.starts_with(mark);
}

bool is_of_other_boot(std::string_view text, std::string_view boot) {
    if (!is_own_text(text)) {
        return false;
    }
    text.remove_prefix(mark.size());
    if (!text.starts_with(boot_mark)) {
        return false;
    }
    text.remove_prefix(boot_mark.size());
    return text.substr(0, text.find('\n')) != boot;
}

}  // namespace lblease

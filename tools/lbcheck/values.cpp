#include "lbcheck/values.h"

#include <arpa/inet.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <limits>

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

#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

/// The bytes as lower-case hex digits, without separators.
inline std::string to_hex(std::span<const std::uint8_t> bytes) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += digits[byte >> 4U];
        text += digits[byte & 0xfU];
    }
    return text;
}

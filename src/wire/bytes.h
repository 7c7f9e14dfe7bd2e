#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

/// Integers as they lie on the wire: big-endian bytes, no alignment. They convert to and from host
/// numbers by themselves, so the code that fills a frame never swaps bytes by hand.
class Be16 {
  public:
    Be16() = default;
    constexpr Be16(std::uint16_t value)
        : bytes_{static_cast<std::uint8_t>(value >> 8U), static_cast<std::uint8_t>(value & 0xffU)} {
    }
    constexpr operator std::uint16_t() const {
        return static_cast<std::uint16_t>(bytes_[0] << 8U | bytes_[1]);
    }

  private:
    std::array<std::uint8_t, 2> bytes_{};
};

class Be32 {
  public:
    Be32() = default;
    constexpr Be32(std::uint32_t value)
        : high_(static_cast<std::uint16_t>(value >> 16U)),
          low_(static_cast<std::uint16_t>(value & 0xffffU)) {}
    constexpr operator std::uint32_t() const {
        return static_cast<std::uint32_t>(high_) << 16U | static_cast<std::uint32_t>(low_);
    }

  private:
    Be16 high_;
    Be16 low_;
};

using MacAddress = std::array<std::uint8_t, 6>;
using Ipv4Bytes = std::array<std::uint8_t, 4>;
using Ipv6Bytes = std::array<std::uint8_t, 16>;

/// The bytes of a packed wire type.
template <class Wire>
std::span<const std::uint8_t> bytes_of(const Wire& wire) {
    return {reinterpret_cast<const std::uint8_t*>(&wire), sizeof wire};
}

/// Reads a packed wire type at an offset that the caller has checked to be inside `bytes`.
template <class Wire>
Wire read_at(std::span<const std::uint8_t> bytes, std::size_t offset) {
    Wire wire;
    std::memcpy(&wire, bytes.data() + offset, sizeof wire);
    return wire;
}

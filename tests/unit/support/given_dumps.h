#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "dumps/state.h"

/// The daemon's dumps, byte for byte from the table of their fields, in either byte order.
namespace given {

using Dump = std::vector<std::uint8_t>;

class Bytes {
  public:
    Bytes(std::size_t size, bool is_big) : bytes_(size), is_big_(is_big) {}
    Bytes& text(std::size_t at, const std::string& value) {
        std::copy(value.begin(), value.end(), bytes_.begin() + static_cast<long>(at));
        return *this;
    }
    Bytes& byte(std::size_t at, int value) {
        bytes_[at] = static_cast<std::uint8_t>(value);
        return *this;
    }
    Bytes& number(std::size_t at, std::uint32_t value) {
        for (std::size_t i = 0; i < 4; ++i) {
            const std::size_t shift = 8 * (is_big_ ? 3 - i : i);
            bytes_[at + i] = static_cast<std::uint8_t>(value >> shift);
        }
        return *this;
    }
    operator Dump() const { return bytes_; }

  private:
    Dump bytes_;
    bool is_big_;
};

constexpr bool is_big_here = __BYTE_ORDER == __BIG_ENDIAN;

/// gi1_1 in namespace blue, active, with a ping that is answered and an extended one that is not.
Dump outbound(bool is_big = is_big_here);
/// Rule 12_ipv4 in namespace blue: failover over gi1_1 and, for IPv6, eth0.
Dump rule(bool is_big = is_big_here);
/// The one destination of that rule, with its chosen next hop.
Dump route(bool is_big = is_big_here);
/// When the files of `state` were written: 2026-11-21T14:10:05Z.
constexpr dumps::Time written{std::chrono::seconds(1795270205)};
/// What these three tell, not judged yet.
dumps::State state();
/// The same, judged so many seconds after it was written, with its next hops.
dumps::State judged(std::int64_t age_s = 1);

}  // namespace given

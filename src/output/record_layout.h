#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

/// The binary dumps, byte for byte, for their writer and for `lbshow`. Every member is made of
/// bytes, so no record has padding. Numbers lie in the byte order of the machine that wrote them
/// (B122); texts end with a NUL where they are shorter than their field, and unused bytes are 0.
namespace record {

/// A 32-bit number in the writer's byte order.
class Number {
  public:
    Number() = default;
    Number(std::int32_t value) { std::memcpy(bytes_.data(), &value, bytes_.size()); }

    /// As it stands, or with its bytes turned round: for a dump of a machine of the other order.
    std::int32_t read(bool is_swapped = false) const {
        std::uint32_t value = 0;
        std::memcpy(&value, bytes_.data(), bytes_.size());
        return static_cast<std::int32_t>(is_swapped ? __builtin_bswap32(value) : value);
    }

  private:
    std::array<std::uint8_t, 4> bytes_{};
};

template <std::size_t size>
using Text = std::array<char, size>;

inline constexpr std::size_t most_entries = 50;  ///< B120: probes, members or targets in a record

struct Probe {
    Text<46> target{};
    Number success_run;
    Number failure_run;
    std::uint8_t last_result = 0;  ///< 0 none collected, 1 answered, 2 timed out
    std::uint8_t is_extended = 0;  ///< the numbers below are set
    std::uint8_t timeout_low = 0;  ///< ms, the lowest byte alone
    std::uint8_t zero = 0;
    Number loss_percent;
    Number rtt_ms;
    Number jitter_ms;
    Number loss_limit;
    Number rtt_limit;
    Number jitter_limit;
};
static_assert(sizeof(Probe) == 82 && offsetof(Probe, success_run) == 46);
static_assert(offsetof(Probe, last_result) == 54 && offsetof(Probe, loss_percent) == 58);
static_assert(offsetof(Probe, jitter_limit) == 78);

/// "/wlb_ipv4_outbounds.bin" and "/wlb_ipv6_outbounds.bin": one per interface.
struct Outbound {
    Text<64> name{};
    Text<32> namespace_name{};  ///< without a NUL when 32 bytes long
    Text<46> nexthop{};
    Text<46> source_address{};
    std::array<Probe, most_entries> probes{};
    std::uint8_t probe_count = 0;
    Number since_success_s;  ///< 0 also when there was none (B125)
    Number since_failure_s;
    Number last_change_s;  ///< since the epoch: always 0 (B112)
    Number success_ct;
    Number failure_ct;
    std::uint8_t is_dhcp = 0;
    std::uint8_t is_tunnel = 0;
    std::uint8_t is_active = 0;
};
static_assert(sizeof(Outbound) == 4312 && offsetof(Outbound, namespace_name) == 64);
static_assert(offsetof(Outbound, nexthop) == 96 && offsetof(Outbound, source_address) == 142);
static_assert(offsetof(Outbound, probes) == 188 && offsetof(Outbound, probe_count) == 4288);
static_assert(offsetof(Outbound, since_success_s) == 4289 && offsetof(Outbound, is_dhcp) == 4309);
static_assert(offsetof(Outbound, is_active) == 4311);

struct Member {
    Text<64> name{};
    std::uint8_t weight_low = 0;  ///< the lowest byte of the weight
    std::uint8_t is_ipv6 = 0;
};
static_assert(sizeof(Member) == 66);

/// "/wlb_rules.bin": one per rule.
struct Rule {
    std::array<Member, most_entries> members{};
    std::uint8_t member_count = 0;
    Text<32> namespace_name{};
    Number zero;
    Number number;
    std::uint8_t failover_low = 0;
    std::uint8_t is_ipv6 = 0;
};
static_assert(sizeof(Rule) == 3343 && offsetof(Rule, member_count) == 3300);
static_assert(offsetof(Rule, namespace_name) == 3301 && offsetof(Rule, number) == 3337);
static_assert(offsetof(Rule, is_ipv6) == 3342);

/// "/wlb_routes.bin": one per target of each rule.
struct Route {
    Text<50> prefix{};
    Text<46> nexthop{};  ///< the one chosen by a failover rule, else empty (B124)
    Number metric;       ///< -1 for none
    Number position;     ///< of the target within its rule, from 1
    Number rule_number;
    std::uint8_t is_ipv6 = 0;
};
static_assert(sizeof(Route) == 109 && offsetof(Route, nexthop) == 50);
static_assert(offsetof(Route, metric) == 96 && offsetof(Route, is_ipv6) == 108);

static_assert(alignof(Outbound) == 1 && alignof(Rule) == 1 && alignof(Route) == 1);

}  // namespace record

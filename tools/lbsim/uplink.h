#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace lbsim {

/// What a simulation is told of one configured uplink of one address family. Plain values.
struct Uplink {
    std::string name{};  ///< kernel name
    bool is_ipv6 = false;
    std::string ns_name{};               ///< empty: the default namespace
    std::string nexthop{};               ///< as configured: an address, "dhcp" or "tunnel"
    std::string source{};                ///< of its probes; empty: the interface's own
    std::vector<std::string> targets{};  ///< of its probes, each once; without the next hop's own
    bool has_nexthop_as_target = false;  ///< a probe without a target takes the next hop
    /// The longest that a verdict takes after its cause, when every probe tells the same.
    std::int64_t settle_us = 0;
    /// The longest from the start to the first verdict.
    std::int64_t start_us = 0;
    /// From one unanswered echo's leaving to that of the next one; and of one that is answered at
    /// once.
    std::int64_t failure_us = 0;
    std::int64_t answer_us = 0;
};

inline const char* family_word(bool is_ipv6) {
    return is_ipv6 ? "ipv6" : "ipv4";
}

/// "gi1_1 ipv4", with the namespace behind where it is not the default one.
inline std::string shown(const Uplink& uplink) {
    return uplink.name + " " + family_word(uplink.is_ipv6) +
           (uplink.ns_name.empty() ? "" : " in " + uplink.ns_name);
}

}  // namespace lbsim

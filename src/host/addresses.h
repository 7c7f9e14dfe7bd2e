#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "wire/bytes.h"

/// The addresses of all interfaces of the calling thread's network namespace, and the resolver.
namespace host {

struct InterfaceAddress {
    std::string ifname;
    bool is_ipv6 = false;
    Ipv4Bytes ipv4{};
    Ipv6Bytes ipv6{};
    std::uint32_t scope = 0;  ///< of an IPv6 address: the interface's index, or 0
};
/// In the host's own order; nothing where the list cannot be read.
std::optional<std::vector<InterfaceAddress>> interface_addresses();

/// The first address of a host name or of an address in text, in one family. May ask name servers
/// and so block.
struct Resolved {
    int status = 0;  ///< 0, or the resolver's error for `resolver_text`
    Ipv4Bytes ipv4{};
    Ipv6Bytes ipv6{};
    std::uint32_t scope = 0;
};
Resolved resolve(const std::string& name, bool is_ipv6);
std::string resolver_text(int status);

}  // namespace host

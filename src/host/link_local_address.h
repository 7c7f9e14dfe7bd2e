#pragma once

#include <netinet/in.h>

#include <optional>
#include <string>

/// What the calling thread's namespace says of link-local addresses (getifaddrs(3)), asked once in
/// a pass of probes.
struct LinkLocalAnswer {
    bool is_list_readable = false;
    std::optional<sockaddr_in6> address;
};

/// The first IPv6 address, in the kernel's order, of an interface whose name begins with `ifname`,
/// whose first byte is 0xFE or whose second byte is 0x80.
LinkLocalAnswer find_link_local_address(const std::string& ifname);

/// Starts a pass of the calling thread: addresses may have changed since the last one.
void forget_link_local_addresses();

#include "host/addresses.h"

#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>

#include <bit>
#include <cstring>
#include <memory>

namespace host {

namespace {

struct GiveBack {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
    void operator()(ifaddrs* list) const { freeifaddrs(list); }
};

}  // namespace

std::optional<std::vector<InterfaceAddress>> interface_addresses() {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return std::nullopt;
    }
    const std::unique_ptr<ifaddrs, GiveBack> owner(list);
    std::vector<InterfaceAddress> addresses;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        const int family = entry->ifa_addr == nullptr ? AF_UNSPEC : entry->ifa_addr->sa_family;
        InterfaceAddress address{.ifname = entry->ifa_name, .is_ipv6 = family == AF_INET6};
        if (family == AF_INET) {
            sockaddr_in found;
            std::memcpy(&found, entry->ifa_addr, sizeof found);
            address.ipv4 = std::bit_cast<Ipv4Bytes>(found.sin_addr);
        } else if (family == AF_INET6) {
            sockaddr_in6 found;
            std::memcpy(&found, entry->ifa_addr, sizeof found);
            address.ipv6 = std::bit_cast<Ipv6Bytes>(found.sin6_addr);
            address.scope = found.sin6_scope_id;
        } else {
            continue;
        }
        addresses.push_back(address);
    }
    return addresses;
}

Resolved resolve(const std::string& name, bool is_ipv6) {
    addrinfo hints{};
    hints.ai_flags = AI_CANONNAME;
    hints.ai_family = is_ipv6 ? AF_INET6 : AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    Resolved resolved;
    resolved.status = getaddrinfo(name.c_str(), nullptr, &hints, &list);
    if (resolved.status != 0) {
        return resolved;
    }
    const std::unique_ptr<addrinfo, GiveBack> owner(list);
    if (is_ipv6) {
        sockaddr_in6 first;
        std::memcpy(&first, list->ai_addr, sizeof first);
        resolved.ipv6 = std::bit_cast<Ipv6Bytes>(first.sin6_addr);
        resolved.scope = first.sin6_scope_id;
    } else {
        sockaddr_in first;
        std::memcpy(&first, list->ai_addr, sizeof first);
        resolved.ipv4 = std::bit_cast<Ipv4Bytes>(first.sin_addr);
    }
    return resolved;
}

std::string resolver_text(int status) {
    return gai_strerror(status);
}

}  // namespace host

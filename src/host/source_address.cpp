#include "host/source_address.h"

#include <ifaddrs.h>
#include <netinet/in.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "net/address_monitor.h"
#include "net/interface.h"
#include "platform/log.h"

namespace {

struct FreeAddresses {
    void operator()(ifaddrs* list) const { freeifaddrs(list); }
};

/// Address in dotted decimal -> names of the interfaces that have it.
using NamesByAddress = std::unordered_map<std::string, std::vector<std::string>>;

std::optional<NamesByAddress> ask_addresses() {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return std::nullopt;
    }
    const std::unique_ptr<ifaddrs, FreeAddresses> owner(list);
    NamesByAddress names;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET) {
            const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
            names[to_text(address->sin_addr)].emplace_back(entry->ifa_name);
        }
    }
    return names;
}

/// What the calling thread knows; a thread stays in one namespace.
std::optional<NamesByAddress>& known_addresses() {
    thread_local std::optional<NamesByAddress> known;
    return known;
}

}  // namespace

void forget_interface_addresses() {
    thread_local AddressMonitor monitor;
    if (monitor.has_changed()) {
        known_addresses().reset();
    }
}

bool check_src_addr_on_interface(const std::string& ifname, const std::string& address) {
    auto& known = known_addresses();
    if (!known) {
        known = ask_addresses();
    }
    if (!known) {
        LOG_ERROR("getifaddrs failed");
        return false;
    }
    const auto found = known->find(address);
    if (found == known->end()) {
        return false;
    }
    const auto matches = [&ifname](std::string_view name) {
        return name.starts_with(ifname) || name.starts_with("vrrp");
    };
    return std::any_of(found->second.begin(), found->second.end(), matches);
}

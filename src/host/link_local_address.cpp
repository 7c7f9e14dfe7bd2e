#include "host/link_local_address.h"

#include <ifaddrs.h>

#include <cstring>
#include <map>
#include <memory>

#include "net/address_monitor.h"

namespace {

struct FreeAddresses {
    void operator()(ifaddrs* list) const { freeifaddrs(list); }
};

struct Candidate {
    std::size_t position = 0;  ///< in the kernel's list
    sockaddr_in6 address{};
};

/// The first candidate of each interface; sorted, so that names with one beginning stand together.
using Candidates = std::map<std::string, Candidate>;

bool looks_link_local(const in6_addr& address) {
    return address.s6_addr[0] == 0xfe || address.s6_addr[1] == 0x80;
}

std::optional<Candidates> ask_candidates() {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return std::nullopt;
    }
    const std::unique_ptr<ifaddrs, FreeAddresses> owner(list);
    Candidates candidates;
    std::size_t position = 0;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next, ++position) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET6) {
            continue;
        }
        Candidate candidate{.position = position};
        std::memcpy(&candidate.address, entry->ifa_addr, sizeof candidate.address);
        if (looks_link_local(candidate.address.sin6_addr)) {
            candidates.try_emplace(entry->ifa_name, candidate);
        }
    }
    return candidates;
}

/// What the calling thread knows; a thread stays in one namespace.
std::optional<Candidates>& known_candidates() {
    thread_local std::optional<Candidates> known;
    return known;
}

}  // namespace

void forget_link_local_addresses() {
    thread_local AddressMonitor monitor;
    if (monitor.has_changed()) {
        known_candidates().reset();
    }
}

LinkLocalAnswer find_link_local_address(const std::string& ifname) {
    auto& known = known_candidates();
    if (!known) {
        known = ask_candidates();
    }
    if (!known) {
        return {};
    }
    const Candidate* first = nullptr;
    for (auto at = known->lower_bound(ifname); at != known->end() && at->first.starts_with(ifname);
         ++at) {
        if (first == nullptr || at->second.position < first->position) {
            first = &at->second;
        }
    }
    return {.is_list_readable = true,
            .address = first == nullptr ? std::nullopt : std::make_optional(first->address)};
}

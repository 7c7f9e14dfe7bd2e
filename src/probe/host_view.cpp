#include "probe/host_view.h"

#include <algorithm>
#include <atomic>
#include <string_view>
#include <utility>

#include "base/address_text.h"
#include "config/context.h"
#include "host/log.h"
#include "host/neighbours.h"
#include "host/packets.h"

namespace {

bool looks_link_local(const Ipv6Bytes& address) {
    return address[0] == 0xfe || address[1] == 0x80;
}

/// How many entries the receivers of this process have written.
std::atomic<std::uint64_t> entries_written{0};

}  // namespace

void HostView::begin_pass() {
    const host::Changes changes = monitor_.take();
    if (changes.of_links) {
        addresses_.reset();
        links_.clear();
        ends_.clear();
    }
    if (changes.of_links || changes.of_neighbours) {
        neighbors_.reset();
        for (auto& [ifname, kept] : ends_) {
            kept.nexthop.clear();
        }
    }
}

host::Link HostView::link(const std::string& ifname) {
    if (const auto known = links_.find(ifname); known != links_.end()) {
        return known->second;
    }
    const host::Link asked = host::ask_link(ifname);
    if (asked.failed == host::Link::Step::none) {
        links_.emplace(ifname, asked);
    }
    return asked;
}

const OwnEnd4* HostView::known_end(const std::string& ifname,
                                   const std::string& source_address) const {
    const auto found = ends_.find(ifname);
    const bool is_known = found != ends_.end() && found->second.source_address == source_address;
    return is_known ? &found->second.end : nullptr;
}

void HostView::keep_end(const std::string& ifname, const std::string& source_address, OwnEnd4 end) {
    ends_.insert_or_assign(
        ifname, KeptEnd{.source_address = source_address, .end = std::move(end), .nexthop = {}});
}

const HostView::Addresses* HostView::known_addresses() {
    if (addresses_) {
        return &*addresses_;
    }
    const auto list = host::interface_addresses();
    if (!list) {
        return nullptr;
    }
    addresses_.emplace();
    std::size_t position = 0;
    for (const host::InterfaceAddress& address : *list) {
        if (!address.is_ipv6) {
            addresses_->names_by_ipv4[to_text(address.ipv4)].push_back(address.ifname);
        } else if (looks_link_local(address.ipv6)) {
            addresses_->link_locals.try_emplace(address.ifname,
                                                Addresses::Candidate{position, address});
        }
        ++position;
    }
    return &*addresses_;
}

bool HostView::has_source(const std::string& ifname, const std::string& address) {
    const Addresses* known = known_addresses();
    if (known == nullptr) {
        outbox.send_waiting();
        LOG_ERROR("getifaddrs failed");
        return false;
    }
    const auto found = known->names_by_ipv4.find(address);
    if (found == known->names_by_ipv4.end()) {
        return false;
    }
    const auto matches = [&ifname](std::string_view name) {
        return name.starts_with(ifname) || name.starts_with("vrrp");
    };
    return std::any_of(found->second.begin(), found->second.end(), matches);
}

HostView::LinkLocal HostView::find_link_local(const std::string& ifname) {
    const Addresses* known = known_addresses();
    if (known == nullptr) {
        return {};
    }
    const Addresses::Candidate* first = nullptr;
    for (auto at = known->link_locals.lower_bound(ifname);
         at != known->link_locals.end() && at->first.starts_with(ifname); ++at) {
        if (first == nullptr || at->second.position < first->position) {
            first = &at->second;
        }
    }
    return {.is_list_readable = true,
            .address = first == nullptr ? std::nullopt : std::make_optional(first->address)};
}

const MacAddress* HostView::known_mac(const std::string& ifname, const std::string& nexthop) const {
    const auto found = ends_.find(ifname);
    const bool is_known =
        found != ends_.end() && !nexthop.empty() && found->second.nexthop == nexthop;
    return is_known ? &found->second.nexthop_mac : nullptr;
}

void HostView::keep_mac(const std::string& ifname, const std::string& nexthop,
                        const MacAddress& mac) {
    if (const auto found = ends_.find(ifname); found != ends_.end()) {
        found->second.nexthop = nexthop;
        found->second.nexthop_mac = mac;
    }
}

const MacAddress* HostView::known_neighbor(const std::string& address) const {
    if (!neighbors_) {
        return nullptr;
    }
    const auto found = neighbors_->macs.find(address);
    return found == neighbors_->macs.end() ? nullptr : &found->second;
}

int HostView::find_neighbor(const std::string& address, unsigned char* mac) {
    const MacAddress* found = known_neighbor(address);
    const std::uint64_t written = entries_written.load();
    if (found == nullptr && (!neighbors_ || neighbors_->written_before != written)) {
        neighbors_.reset();
        if (const auto dumped = host::dump_neighbors()) {
            neighbors_.emplace(Neighbors{.macs = {}, .written_before = written});
            // B141: by its address alone, whatever its interface.
            for (const host::Neighbor& neighbor : *dumped) {
                neighbors_->macs.try_emplace(neighbor.address, neighbor.mac);
            }
        }
        found = known_neighbor(address);
    }
    if (found == nullptr) {
        return neighbors_ ? 0 : -1;
    }
    std::copy(found->begin(), found->end(), mac);
    return 1;
}

void add_neighbor_entry(const std::string& address, const std::string& ifname,
                        const MacAddress& mac) {
    if (host::write_neighbor(address, ifname, mac)) {
        ++entries_written;
    }
}

bool check_src_addr_on_interface(const std::string& ifname, const std::string& address) {
    return HostView().has_source(ifname, address);
}

int create_conntrack_record(const std::string& source, const std::string& destination,
                            context* ctx) {
    const bool is_entered =
        ctx->view->tracking.enter_echo(source, destination, ctx->ipv6, host::echo_identifier());
    return is_entered ? 0 : -1;
}

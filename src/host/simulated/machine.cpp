// Links, addresses, neighbours, namespaces and connection tracking of the simulated machine.

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/address_text.h"
#include "host/addresses.h"
#include "host/change_monitor.h"
#include "host/connection_tracking.h"
#include "host/links.h"
#include "host/namespaces.h"
#include "host/neighbours.h"
#include "host/simulated/simulation.h"

namespace host {

namespace {

Simulation& machine() {
    return Simulation::current();
}

/// The simulation's own numbers of the two address families.
constexpr std::uint16_t ipv4_family = 4;
constexpr std::uint16_t ipv6_family = 6;

using Call = Simulation::Call;

}  // namespace

Link ask_link(const std::string& ifname) {
    if (machine().fails(Call::link)) {
        return {.failed = Link::Step::mac, .error = ENODEV};
    }
    const Simulation::Link* link = machine().find_link(ifname);
    if (link == nullptr) {
        return {.failed = Link::Step::mac, .error = ENODEV};
    }
    return {.failed = Link::Step::none, .error = 0, .mac = link->mac, .index = link->index};
}

PrimaryAddress primary_address(const std::string& ifname) {
    if (machine().fails(Call::primary_address)) {
        return {.error = EADDRNOTAVAIL};
    }
    const Simulation::Link* link = machine().find_link(ifname);
    if (link == nullptr) {
        return {.error = ENODEV};
    }
    for (const std::string& text : link->addresses) {
        if (const auto address = parse_ipv4(text)) {
            return {.error = 0, .address = *address};
        }
    }
    return {.error = EADDRNOTAVAIL};
}

PeerRequest::PeerRequest(bool is_ipv6) : family(is_ipv6 ? ipv6_family : ipv4_family) {}

int ask_peer(const std::string& ifname, PeerRequest& request) {
    if (machine().fails(Call::peer)) {
        return EADDRNOTAVAIL;
    }
    const Simulation::Link* link = machine().find_link(ifname);
    const auto peer = link == nullptr ? std::nullopt : parse_ipv4(link->peer);
    if (!peer) {
        return link == nullptr ? ENODEV : EADDRNOTAVAIL;
    }
    request = PeerRequest(false);
    request.address = *peer;
    return 0;
}

std::optional<std::vector<InterfaceAddress>> interface_addresses() {
    if (machine().fails(Call::addresses)) {
        return std::nullopt;
    }
    std::vector<InterfaceAddress> addresses;
    for (const auto& [name, link] : machine().in_force().links) {
        for (const std::string& text : link.addresses) {
            InterfaceAddress address{.ifname = name};
            if (const auto ipv4 = parse_ipv4(text)) {
                address.ipv4 = *ipv4;
            } else if (const auto ipv6 = parse_ipv6(text)) {
                address.is_ipv6 = true;
                address.ipv6 = *ipv6;
                address.scope = static_cast<std::uint32_t>(link.index);
            } else {
                continue;
            }
            addresses.push_back(address);
        }
    }
    return addresses;
}

/// How many changes were announced when it was last asked.
struct ChangeMonitor::Subscription {
    std::uint64_t seen = 0;
};

ChangeMonitor::ChangeMonitor() = default;
ChangeMonitor::~ChangeMonitor() = default;
ChangeMonitor::ChangeMonitor(ChangeMonitor&&) noexcept = default;
ChangeMonitor& ChangeMonitor::operator=(ChangeMonitor&&) noexcept = default;

Changes ChangeMonitor::take() {
    const std::uint64_t announced = machine().changes;
    if (subscription_ == nullptr) {
        subscription_ = std::make_unique<Subscription>(Subscription{announced});
        return {.of_links = true, .of_neighbours = true};
    }
    const bool is_announced = std::exchange(subscription_->seen, announced) != announced;
    return {.of_links = is_announced, .of_neighbours = is_announced};
}

Resolved resolve(const std::string& name, bool is_ipv6) {
    constexpr int unknown_name = 1;
    if (machine().fails(Call::resolve)) {
        return {.status = unknown_name};
    }
    const auto ipv4 = parse_ipv4(name);
    const auto ipv6 = parse_ipv6(name);
    Resolved resolved;
    resolved.status = (is_ipv6 ? ipv6.has_value() : ipv4.has_value()) ? 0 : unknown_name;
    resolved.ipv4 = ipv4.value_or(Ipv4Bytes{});
    resolved.ipv6 = ipv6.value_or(Ipv6Bytes{});
    return resolved;
}

std::string resolver_text(int /*status*/) {
    return "Name or service not known";
}

ArpEntry ask_arp_entry(const Ipv4Bytes& address, const std::string& ifname) {
    if (machine().fails(Call::arp_entry)) {
        return {.state = ArpEntry::State::no_socket, .error = ENFILE};
    }
    if (machine().find_link(ifname) == nullptr) {
        return {.state = ArpEntry::State::refused, .error = ENODEV};
    }
    const auto& known = machine().neighbours;
    const auto found = known.find({machine().namespace_in_force, ifname, to_text(address)});
    if (found == known.end()) {
        return {.state = ArpEntry::State::missing, .error = ENXIO};
    }
    return {.state = ArpEntry::State::complete, .error = 0, .mac = found->second};
}

ArpWritten write_arp_entry(const Ipv4Bytes& address, std::span<const std::uint8_t> hardware,
                           const std::string& ifname) {
    if (machine().fails(Call::write_arp_entry)) {
        return ArpWritten::refused;
    }
    if (machine().find_link(ifname) == nullptr) {
        return ArpWritten::refused;
    }
    MacAddress mac{};
    std::copy_n(hardware.begin(), mac.size(), mac.begin());
    machine().set_neighbour(ifname, to_text(address), mac);
    return ArpWritten::written;
}

std::optional<std::vector<Neighbor>> dump_neighbors() {
    if (machine().fails(Call::neighbours)) {
        return std::nullopt;
    }
    std::vector<Neighbor> neighbors;
    for (const auto& [place, mac] : machine().neighbours) {
        const auto& [ns_name, ifname, address] = place;
        if (ns_name == machine().namespace_in_force && parse_ipv6(address)) {
            neighbors.push_back({.address = address, .mac = mac});
        }
    }
    return neighbors;
}

bool write_neighbor(const std::string& address, const std::string& ifname, const MacAddress& mac) {
    if (machine().fails(Call::write_neighbour) || machine().find_link(ifname) == nullptr ||
        !parse_ipv6(address)) {
        return false;
    }
    machine().set_neighbour(ifname, address, mac);
    return true;
}

NamespaceEntry enter_namespace(const std::string& path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    if (!machine().namespaces.contains(name)) {
        return NamespaceEntry::not_opened;
    }
    machine().namespace_in_force = name;
    return NamespaceEntry::entered;
}

struct ConnectionTracking::Handle {};

ConnectionTracking::ConnectionTracking() = default;
ConnectionTracking::~ConnectionTracking() = default;
ConnectionTracking::ConnectionTracking(ConnectionTracking&&) noexcept = default;
ConnectionTracking& ConnectionTracking::operator=(ConnectionTracking&&) noexcept = default;

bool ConnectionTracking::enter_echo(const std::string& source, const std::string& destination,
                                    bool /*is_ipv6*/, std::uint16_t /*identifier*/) {
    if (machine().fails(Call::track)) {
        return false;
    }
    machine().tracked_echoes.emplace(source, destination);
    return true;
}

void ConnectionTracking::enter_echoes(std::span<TrackedEcho> echoes, std::uint16_t identifier) {
    const auto text = [](const TrackedEcho& echo, const Ipv6Bytes& address) {
        Ipv4Bytes ipv4{};
        std::copy_n(address.begin(), ipv4.size(), ipv4.begin());
        return echo.is_ipv6 ? to_text(address).text : to_text(ipv4);
    };
    for (TrackedEcho& echo : echoes) {
        echo.is_entered = enter_echo(text(echo, echo.source), text(echo, echo.destination),
                                     echo.is_ipv6, identifier);
    }
}

}  // namespace host

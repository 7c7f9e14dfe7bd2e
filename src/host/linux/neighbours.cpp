// The ARP table, arp(7). The IPv6 neighbour table stands in neighbor_netlink.cpp.

#include "host/neighbours.h"

#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "host/linux/query_socket.h"

namespace host {

namespace {

arpreq request_for(const Ipv4Bytes& address, const std::string& ifname) {
    arpreq request{};
    sockaddr_in protocol_address{};
    protocol_address.sin_family = AF_INET;
    protocol_address.sin_addr = std::bit_cast<in_addr>(address);
    std::memcpy(&request.arp_pa, &protocol_address, sizeof protocol_address);
    ifname.copy(request.arp_dev, sizeof request.arp_dev - 1);
    return request;
}

}  // namespace

ArpEntry ask_arp_entry(const Ipv4Bytes& address, const std::string& ifname) {
    const OpenedSocket query = query_socket();
    if (!query.is_open()) {
        return {.state = ArpEntry::State::no_socket, .error = query.error, .mac = {}};
    }
    arpreq request = request_for(address, ifname);
    request.arp_ha.sa_family = ARPHRD_ETHER;
    if (ioctl(query.number, SIOCGARP, &request) < 0) {
        const auto state = errno == ENXIO ? ArpEntry::State::missing : ArpEntry::State::refused;
        return {.state = state, .error = errno, .mac = {}};
    }
    if ((request.arp_flags & ATF_COM) == 0) {
        return {.state = ArpEntry::State::incomplete, .error = 0, .mac = {}};
    }
    ArpEntry entry{.state = ArpEntry::State::complete, .error = 0, .mac = {}};
    std::memcpy(entry.mac.data(), request.arp_ha.sa_data, entry.mac.size());
    return entry;
}

// The hardware family stays 0 (B78): the kernel takes it from the device.
ArpWritten write_arp_entry(const Ipv4Bytes& address, std::span<const std::uint8_t> hardware,
                           const std::string& ifname) {
    const OpenedSocket query = query_socket();
    if (!query.is_open()) {
        return ArpWritten::no_socket;
    }
    arpreq request = request_for(address, ifname);
    std::memcpy(request.arp_ha.sa_data, hardware.data(),
                std::min(hardware.size(), sizeof request.arp_ha.sa_data));
    request.arp_flags = ATF_COM;
    return ioctl(query.number, SIOCSARP, &request) < 0 ? ArpWritten::refused : ArpWritten::written;
}

}  // namespace host

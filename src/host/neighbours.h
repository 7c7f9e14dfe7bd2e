#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "wire/bytes.h"

/// The host's tables of link-layer addresses, in the calling thread's network namespace: ARP for
/// IPv4, the neighbour table for IPv6.
namespace host {

/// What the ARP table says of an address on an interface. Logs nothing.
struct ArpEntry {
    enum class State {
        complete,
        incomplete,
        missing,
        refused,    ///< `error` tells why
        no_socket,  ///< the table could not be asked
    };
    State state = State::missing;
    int error = 0;  ///< as in errno(3); of every state but `complete` and `incomplete`
    MacAddress mac{};
};
ArpEntry ask_arp_entry(const Ipv4Bytes& address, const std::string& ifname);

/// Writes a complete ARP entry. `hardware` is what fills the address field of the request, the MAC
/// first; what is longer than the field is left out. Logs nothing.
enum class ArpWritten { written, refused, no_socket };
ArpWritten write_arp_entry(const Ipv4Bytes& address, std::span<const std::uint8_t> hardware,
                           const std::string& ifname);

/// One IPv6 entry with a link-layer address, in any state: the address as the host prints it.
struct Neighbor {
    std::string address;
    MacAddress mac{};
};
/// All of them; nothing, with its own message in the log, where the table cannot be read.
std::optional<std::vector<Neighbor>> dump_neighbors();

/// Writes an IPv6 entry: reachable, with that MAC. False, with its own message, where it was not
/// written.
bool write_neighbor(const std::string& address, const std::string& ifname, const MacAddress& mac);

}  // namespace host

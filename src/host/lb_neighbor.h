#pragma once

#include <netinet/icmp6.h>
#include <netinet/ip6.h>

#include <string>

#include "host/asked_addresses.h"
#include "net/namespace_table.h"

/// The IPv6 twin of `LBArp`: finds the MAC address of a next hop in the kernel's neighbour table
/// (rtnetlink(7)) and sends a neighbour solicitation of its own (RFC 4861) when it is missing. One
/// object per namespace worker; the worker alone calls it. Nothing here waits for an answer.
class LBNeighbor {
  public:
    LBNeighbor() = default;
    LBNeighbor(const LBNeighbor&) = delete;
    LBNeighbor& operator=(const LBNeighbor&) = delete;
    /// Closes the send socket; the receiver thread goes on.
    ~LBNeighbor();

    /// Opens the namespace's send socket; the calling thread is in that namespace.
    void init(std::string ns_name);
    /// What the next calls are about: next hop and source as text, interface to ask on.
    void set_data(const std::string& next_hop, const std::string& source_address,
                  const std::string& interface);
    /// 1 with the MAC in `mac` (6 bytes): the kernel's table has an entry for the address, in any
    /// state, with a link-layer address; 0: it has none; -1: error, logged. Addresses are compared
    /// as text, so a next hop must be written as the kernel prints it (RFC 5952).
    int check_neighbor_exist(unsigned char* mac);
    /// Sends one solicitation. Failures go to the standard error stream; a failed send ends the
    /// namespace's sends for good.
    void send_request();
    /// Starts the namespace's receiver thread, once in the life of the process; until it has its
    /// socket, each call says so.
    void receive_reply();

    unsigned short checksum(unsigned short* data, int length);
    unsigned short icmp6_checksum(ip6_hdr ip, icmp6_hdr header, unsigned char* payload, int length);

    std::string address;
    std::string source;
    std::string ifname;
    std::string nsname;
    AskedAddressesRef targets;  ///< null until a successful init

    static NamespaceTable<int> _send_sock;
    static NamespaceTable<bool> is_start_recv;
};

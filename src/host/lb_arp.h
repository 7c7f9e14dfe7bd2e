#pragma once

#include <memory>
#include <string>

#include "host/asked_addresses.h"
#include "net/namespace_table.h"

/// Finds the MAC address of an IPv4 next hop in the kernel's ARP table (arp(7)) and asks for it by
/// an ARP request of its own (RFC 826) when it is missing. One object per namespace worker; the
/// worker alone calls it. Nothing here waits for an answer: the namespace's receiver thread writes
/// answers into the kernel's table, where a later query finds them.
class LBArp {
  public:
    LBArp() = default;
    LBArp(const LBArp&) = delete;
    LBArp& operator=(const LBArp&) = delete;
    /// Closes the send socket; the receiver thread goes on.
    ~LBArp();

    /// Opens the namespace's send socket; the calling thread is in that namespace.
    void init(std::string ns_name);
    /// What the next calls are about: next hop and source in dotted decimal, interface to ask on.
    void set_data(const std::string& next_hop, const std::string& source_address,
                  const std::string& interface);
    /// 1: the kernel has a complete entry; 0: it has none or an incomplete one; -1: error, logged.
    int check_arp_exist();
    /// Broadcasts one request. Returns the bytes sent, or -1 after logging why not.
    int send_arp();
    /// Starts the namespace's receiver thread, once in the life of the process; until it has its
    /// socket, each call says so.
    void received_arp();
    /// 1 with the MAC in `mac` (6 bytes); 0: the entry is incomplete; -1: error, errno set.
    int get_mac(unsigned char* mac);

    std::string address;
    std::string source;
    std::string ifname;
    std::string nsname;
    AskedAddressesRef targets;  ///< null until a successful init

    static NamespaceTable<int> _send_sock;
    static NamespaceTable<bool> is_start_recv;
};

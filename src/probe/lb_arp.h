#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "probe/next_hop.h"
#include "wire/bytes.h"

/// Finds the MAC address of an IPv4 next hop in the kernel's ARP table and asks for it by an ARP
/// request of its own (RFC 826) when it is missing.
class LBArp : public NextHopProber {
  public:
    LBArp();

    void init(std::string ns_name);
    /// Broadcasts one request. Returns the bytes sent, or -1 after logging why not.
    int send_arp();
    /// Receives nothing (B139). Starts the namespace's receiver thread, once in the life of the
    /// process; until it has its socket, each call says so.
    void received_arp();

    /// `error` is 0 with a MAC, EHOSTUNREACH for an entry that is incomplete.
    struct Mac {
        int error = 0;
        MacAddress mac{};
    };
    /// The calls of one probe in their order: where the kernel knows no MAC (B75), a request goes
    /// out, and a later probe finds the answer.
    Mac find_mac();
    /// The MAC where the kernel has a complete entry. Logs nothing, asks nobody.
    std::optional<MacAddress> known_mac() const;

    static NamespaceTable<int> _send_sock;
    static NamespaceTable<bool> is_start_recv;

    /// What nothing in the daemon calls (B132): the two questions of `find_mac`, each with its
    /// error in errno.
    /// 1: the kernel has a complete entry; 0: it has none or an incomplete one; -1: error, logged.
    int check_arp_exist();
    /// 1 with the MAC in `mac` (6 bytes); 0: the entry is incomplete; -1: error.
    int get_mac(unsigned char* mac);

  private:
    /// As `check_arp_exist`, with the error.
    struct Presence {
        int known = 0;
        int error = 0;
    };
    Presence ask_presence();
    Mac ask_mac();
};

/// The ARP receiver thread, one per namespace: writes the answers to our requests into the kernel's
/// ARP table. The argument is a `NextHopReceiver*`, which the thread takes over. Ends, with a
/// message, only when the socket fails.
void* recv_arp(void* targets);

/// Handles one received frame; always true, for no frame ends the thread.
bool handle_arp_frame(std::span<const std::uint8_t> frame, AskedAddresses& targets);

#pragma once

#include <netinet/icmp6.h>
#include <netinet/ip6.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "probe/host_view.h"
#include "probe/next_hop.h"

/// The IPv6 twin of `LBArp`: finds the MAC address of a next hop in the kernel's neighbour table
/// and sends a neighbour solicitation of its own (RFC 4861) when it is missing.
class LBNeighbor : public NextHopProber {
  public:
    LBNeighbor();

    void init(std::string ns_name);
    /// 1 with the MAC in `mac` (6 bytes): the kernel's table has an entry for the address, in any
    /// state, with a link-layer address; 0: it has none; -1: error, logged. Addresses are compared
    /// as text (B79), so a next hop must be written as the kernel prints it (RFC 5952).
    int check_neighbor_exist(unsigned char* mac);
    /// Sends one solicitation. Failures go to the standard error stream (B129); a failed send ends
    /// the namespace's sends for good (B83).
    void send_request();
    /// Receives nothing (B139). Starts the namespace's receiver thread, once in the life of the
    /// process; until it has its socket, each call says so.
    void receive_reply();

    /// The calls of one probe in their order: where the kernel knows no MAC, asks for it and looks
    /// again at once; a later probe finds the answer.
    std::optional<MacAddress> find_mac();

    /// What the worker knows of its host in this pass: its neighbours for this prober, the rest for
    /// its probes, which reach it through the context.
    HostView view;

    static NamespaceTable<int> _send_sock;
    static NamespaceTable<bool> is_start_recv;

    /// Checksums that nothing in the daemon calls (B132): the frame builders have their own.
    unsigned short checksum(unsigned short* data, int length);
    unsigned short icmp6_checksum(ip6_hdr ip, icmp6_hdr header, unsigned char* payload, int length);
};

/// The neighbour receiver thread, one per namespace: writes the advertisements of addresses that
/// were asked for into the kernel's neighbour table. The argument is a `NextHopReceiver*`, which
/// the thread takes over. Ends, with a message, only when the socket fails.
void* recv_neighbor(void* targets);

/// Handles one received frame. False, with a line on the standard error stream, where the target
/// cannot be printed: that ends the thread.
bool handle_advertisement(std::span<const std::uint8_t> frame, AskedAddresses& targets);

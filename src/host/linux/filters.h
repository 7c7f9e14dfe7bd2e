#pragma once

#include <linux/filter.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "wire/frames.h"

/// The socket filters (socket(7), SO_ATTACH_FILTER), so that the daemon wakes for nothing that it
/// would throw away. A load beyond a packet's end drops the packet.
namespace filters {

inline constexpr sock_filter drop{BPF_RET | BPF_K, 0, 0, 0};
inline constexpr sock_filter pass_whole{BPF_RET | BPF_K, 0, 0, 0xffffffffU};

/// For raw sockets that only send.
inline constexpr std::array pass_nothing{drop};

/// Where the identifier of an echo stands in what a raw ICMP socket delivers: the whole IPv4
/// datagram (its header is taken to be 20 bytes long), or the message from its ICMPv6 header on.
constexpr std::size_t identifier_offset(bool is_ipv6) {
    return (is_ipv6 ? 0 : sizeof(Ipv4Header)) + offsetof(IcmpEcho, packet_id);
}

/// Passes only what can carry one of our identifiers where a reply carries it. The type is left to
/// the readers: an extended ping takes any.
constexpr std::array<sock_filter, 4> pass_identifiers(bool is_ipv6, std::uint32_t identifiers) {
    return {
        // the word at the identifier's place
        sock_filter{BPF_LD | BPF_W | BPF_ABS, 0, 0,
                    static_cast<std::uint32_t>(identifier_offset(is_ipv6))},
        // too large for ours: to the drop right behind; else over it
        sock_filter{BPF_JMP | BPF_JGE | BPF_K, 0, 1, identifiers},
        drop,
        pass_whole,
    };
}

/// Passes, of ARP frames, replies only.
inline constexpr std::array pass_arp_replies{
    // the operation
    sock_filter{BPF_LD | BPF_H | BPF_ABS, 0, 0, offsetof(ArpFrame, operation)},
    // a reply: go on; anything else: over the pass to the drop
    sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 1, arp_reply},
    pass_whole,
    drop,
};

/// Passes neighbour advertisements directly behind the IPv6 header, with room for a link-layer
/// address, and cuts them there.
///
/// It asks for ICMPv6 beside the type: in a forwarded TCP or UDP packet the type's place is the
/// high byte of the source port, and every such packet from the ports 34816 to 35071 would leave an
/// entry of its own in the table of addresses asked for.
inline constexpr std::array pass_advertisements{
    // the ethertype
    sock_filter{BPF_LD | BPF_H | BPF_ABS, 0, 0, offsetof(EthernetHeader, ethertype)},
    // IPv6: go on; else six further, to the drop
    sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 6, ethertype_ipv6},
    // the next header
    sock_filter{BPF_LD | BPF_B | BPF_ABS, 0, 0,
                offsetof(NeighborAdvertisement, ip) + offsetof(Ipv6Header, next_header)},
    // ICMPv6: go on; else four further, to the drop
    sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 4, protocol_icmp6},
    // the type
    sock_filter{BPF_LD | BPF_B | BPF_ABS, 0, 0, offsetof(NeighborAdvertisement, type)},
    // an advertisement: go on; else two further, to the drop
    sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 2, icmp6_neighbor_advertisement},
    // the last byte of the MAC: a frame without room for it ends here
    sock_filter{BPF_LD | BPF_B | BPF_ABS, 0, 0, sizeof(NeighborAdvertisement) - 1},
    // the advertisement, and nothing behind it
    sock_filter{BPF_RET | BPF_K, 0, 0, sizeof(NeighborAdvertisement)},
    drop,
};

}  // namespace filters

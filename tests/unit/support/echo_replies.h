#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "base/fd.h"

using Bytes = std::vector<std::uint8_t>;

/// Two ends of a connection that keeps datagrams apart: a socket that needs no root. One end stands
/// for a raw socket, the test holds the other. A destination given to its sendto(2) is ignored.
struct DatagramPair {
    DatagramPair() {
        std::array<int, 2> ends{-1, -1};
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            throw std::runtime_error("no pair of sockets");
        }
        near = Fd(ends[0]);
        far = Fd(ends[1]);
    }
    Fd near;
    Fd far;
};

inline void deliver(const Fd& end, const Bytes& datagram) {
    if (send(end.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL) < 0) {
        throw std::runtime_error("not delivered");
    }
}

/// An IPv4 echo reply of 127.0.0.1 as a raw socket delivers it: 20 bytes of IP header, the source
/// at 12; then type, code, checksum, identifier, sequence (at 26) and packet identifier (at 28).
inline Bytes echo_reply4(std::uint32_t packet_id, std::uint16_t sequence = 0) {
    Bytes datagram(32);
    datagram[0] = 0x45;
    datagram[12] = 127;
    datagram[15] = 1;
    datagram[26] = static_cast<std::uint8_t>(sequence >> 8U);
    datagram[27] = static_cast<std::uint8_t>(sequence);
    for (std::size_t i = 0; i < 4; ++i) {
        datagram[28 + i] = static_cast<std::uint8_t>(packet_id >> (24 - 8 * i));
    }
    return datagram;
}

/// An IPv4 message with this word where our identifiers stand.
inline Bytes reply4(std::uint32_t word, std::uint8_t type = 0) {
    Bytes datagram = echo_reply4(word);
    datagram[20] = type;
    return datagram;
}

/// The same for IPv6: from the ICMPv6 header on.
inline Bytes reply6(std::uint32_t word, std::uint8_t type = 129) {
    const Bytes whole = reply4(word, type);
    return {whole.begin() + 20, whole.end()};
}

/// A neighbour advertisement of 2001:db8::1 with its MAC 02:..:09 as first option, from the
/// Ethernet header on.
inline Bytes advertisement() {
    Bytes frame(86);
    frame[12] = 0x86;
    frame[13] = 0xdd;
    frame[20] = 58;
    frame[54] = 136;
    const Bytes target{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    std::copy(target.begin(), target.end(), frame.begin() + 62);
    frame[80] = 2;
    frame[85] = 9;
    return frame;
}

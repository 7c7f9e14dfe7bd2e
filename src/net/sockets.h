#pragma once

#include <linux/filter.h>
#include <netinet/in.h>

#include <cstdint>
#include <span>

#include "net/bytes.h"
#include "net/fd.h"

/// Sockets as this daemon uses them. All are close-on-exec; a failed call gives a closed `Fd` (or
/// -1) and leaves the reason in errno. A socket belongs to the network namespace of the thread that
/// opens it.

/// A packet socket (packet(7)) that only sends: without a protocol the kernel hands it no frame, so
/// nothing ever waits in its queue.
Fd open_send_only_packet_socket();

/// A packet socket that receives the frames of `protocol` (host order, for example `ETH_P_ARP`)
/// which `filter` passes. The filter is in force before the first frame can arrive.
Fd open_packet_receiver(std::uint16_t protocol, std::span<const sock_filter> filter);

/// A raw ICMP or ICMPv6 socket (raw(7)); `filter` is in force before the first datagram can arrive.
/// For IPv4 the filter sees the datagram from its IP header on, for IPv6 from its ICMPv6 header on.
Fd open_raw_icmp_socket(int domain, int protocol, std::span<const sock_filter> filter);

/// The filter that passes nothing: for raw sockets that only send.
std::span<const sock_filter> pass_nothing();

/// Sends a whole frame through the interface of that index. The link-level address names the
/// interface's own address. Returns what sendto(2) returns.
int send_frame(int packet_socket, int interface_index, const MacAddress& own_mac,
               std::span<const std::uint8_t> frame);

/// Sends a whole ICMP message to an IPv4 address; the kernel adds the IP header. Returns what
/// sendto(2) returns.
int send_datagram(int raw_socket, const sockaddr_in& destination,
                  std::span<const std::uint8_t> message);
int send_datagram(int raw_socket, const sockaddr_in6& destination,
                  std::span<const std::uint8_t> message);

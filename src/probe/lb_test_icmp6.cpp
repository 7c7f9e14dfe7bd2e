#include "probe/lb_test_icmp6.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

#include "host/conntrack_record.h"
#include "host/interface_name.h"
#include "host/lb_neighbor.h"
#include "host/link_local_address.h"
#include "net/checksum.h"
#include "net/frame_builder.h"
#include "net/sockets.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "probe/frame_path.h"
#include "probe/probe_steps.h"
#include "probe/tunnel_path.h"

namespace {

/// The next hop's MAC as the kernel knows it; asks for it once where it does not, and looks again
/// at once.
bool find_next_hop_mac(LBNeighbor& neighbor, const std::string& nexthop, const std::string& source,
                       const std::string& ifname, MacAddress& mac) {
    neighbor.set_data(nexthop, source, ifname);
    if (neighbor.check_neighbor_exist(mac.data()) == 1) {
        return true;
    }
    neighbor.send_request();
    neighbor.receive_reply();
    if (neighbor.check_neighbor_exist(mac.data()) == 1) {
        return true;
    }
    errno = EHOSTUNREACH;
    return false;
}

std::optional<in6_addr> to_binary(const std::string& text) {
    in6_addr address{};
    const int converted = inet_pton(AF_INET6, text.c_str(), &address);
    if (converted != 1) {
        // The text of the conversion's result, not of errno: routers' operators know it so.
        LOG_ERROR("inet_pton() failed.\nError message: %s", strerror(converted));
        errno = EINVAL;
        return std::nullopt;
    }
    return address;
}

/// Gives a record without a source the interface's link-local address, or "::" where there is none:
/// that is asked again in the next cycle.
bool choose_source(LBTestICMP6& test, LBHealth& health, context* ctx) {
    if (!health.source_address.empty() && health.source_address != "::") {
        return true;
    }
    sockaddr_in6 address{};
    test.get_link_local_addr(health.name, &address, ctx);
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (inet_ntop(AF_INET6, &address.sin6_addr, text.data(), text.size()) == nullptr) {
        LOG_ERROR("inet_ntop failed! %s", strerror(errno));
        return false;
    }
    if (health.source_address != text.data()) {
        const LiveStateWriter hold;
        health.source_address = text.data();
    }
    return true;
}

}  // namespace

void LBTestICMP6::init(context* ctx) {
    set_up(ctx);
}

std::string LBTestICMP6::name() {
    return "ping";
}

std::string LBTestICMP6::status(context* /*ctx*/) {
    return status_line(*this);
}

std::string LBTestICMP6::dump(context* /*ctx*/) {
    return dump_line(*this);
}

void LBTestICMP6::send(LBHealth& health, context* ctx) {
    resolve_target(*this, health);
    if (choose_source(*this, health, ctx)) {
        // The neighbour prober is handed the next hop as configured, also when that is a word like
        // "dhcp": an IPv6 uplink needs a configured next hop.
        send_echo(ipv6_probes, *this, health, health.nexthop, ctx);
    }
}

void LBTestICMP6::send(const std::string& ifname, const std::string& to,
                       const std::string& source_address, const std::string& nexthop, int packet_id,
                       context* ctx) {
    report_failed_send(ipv6_probes, send_for_interfaces(_send_ipv6_sock.get(ns_name), ifname, to,
                                                        source_address, nexthop, packet_id, ctx));
}

int LBTestICMP6::send_for_interfaces(int sock, const std::string& ifname, const std::string& to,
                                     const std::string& source_address, const std::string& nexthop,
                                     int packet_id, context* ctx) {
    if (!ctx->ipv6) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    const auto link = ask_source_link(ifname, "adds");
    MacAddress next_hop_mac{};
    if (!link ||
        !find_next_hop_mac(*ctx->neighbor, nexthop, source_address, ifname, next_hop_mac)) {
        return -1;
    }
    const auto source = to_binary(source_address);
    if (!source) {
        return -1;
    }
    const auto destination = to_binary(to);
    if (!destination) {
        return -1;
    }
    const EchoFrame6 frame =
        echo_frame6(next_hop_mac, link->mac, *source, *destination,
                    static_cast<std::uint16_t>(getpid()), static_cast<std::uint32_t>(packet_id));
    create_conntrack_record(source_address, to, ctx);
    return send_frame(sock, link->index, link->mac, bytes_of(frame));
}

int LBTestICMP6::send_for_tunnel(int sock, const std::string& ifname, const std::string& to,
                                 int packet_id, context* ctx) {
    if (!ctx->ipv6) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    const TunnelPath path = open_tunnel_path(sock, ifname, to, AF_INET6);
    const int error = errno;
    switch (path.reached) {
        case TunnelPath::Step::ready:
            break;
        case TunnelPath::Step::not_sendable:
            return -1;
        case TunnelPath::Step::unresolved:
            LOG_WARNING("Error in resolving configured hostname: %s", to.c_str());
            errno = error;
            return -1;
        case TunnelPath::Step::not_bound:
            LOG_ERROR("wan_lb: failure to bind to interface (ipv6): %s",
                      shown_ifname(ifname, ctx).c_str());
            errno = error;
            return -1;
    }
    const timeval now = wall_now();
    const TunnelEcho6 message = tunnel_echo6(
        static_cast<std::uint16_t>(getpid()), static_cast<std::uint32_t>(now.tv_sec),
        static_cast<std::uint32_t>(now.tv_usec), static_cast<std::uint32_t>(packet_id));
    sockaddr_in6 destination;
    std::memcpy(&destination, &path.resolved, sizeof destination);
    return send_datagram(sock, destination, bytes_of(message));
}

int LBTestICMP6::get_link_local_addr(const std::string& ifname, sockaddr_in6* out,
                                     context* /*ctx*/) {
    const LinkLocalAnswer answer = find_link_local_address(ifname);
    if (!answer.is_list_readable) {
        LOG_ERROR("getifaddrs");
        return -1;
    }
    if (!answer.address) {
        return -2;
    }
    *out = *answer.address;
    return 0;
}

unsigned short LBTestICMP6::checksum(unsigned short* data, int length) {
    return internet_checksum(data, length);
}

unsigned short LBTestICMP6::in_checksum(ip6_hdr ip, icmp6_hdr header, unsigned char* data,
                                        int length) {
    return icmp6_checksum(ip, header, data, length);
}

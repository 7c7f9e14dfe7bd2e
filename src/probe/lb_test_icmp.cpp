#include "probe/lb_test_icmp.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "host/conntrack_record.h"
#include "host/interface_name.h"
#include "net/checksum.h"
#include "net/frame_builder.h"
#include "net/sockets.h"
#include "platform/log.h"
#include "probe/frame_path.h"
#include "probe/probe_steps.h"
#include "probe/tunnel_path.h"

namespace {

constexpr std::uint16_t tunnel_sequence = 1;

bool goes_through_tunnel(const std::string& ifname) {
    return pings_through_tunnel(ifname) || ifname.find("modem") != std::string::npos;
}

}  // namespace

void LBTestICMP::init(context* ctx) {
    set_up(ctx);
}

std::string LBTestICMP::name() {
    return "ping";
}

std::string LBTestICMP::status(context* /*ctx*/) {
    return status_line(*this);
}

std::string LBTestICMP::dump(context* /*ctx*/) {
    return dump_line(*this);
}

void LBTestICMP::send(LBHealth& health, context* ctx) {
    send_echo(ipv4_probes, *this, health, health.effective_nexthop(), ctx);
}

void LBTestICMP::send(const std::string& ifname, const std::string& to,
                      const std::string& source_address, const std::string& nexthop, int packet_id,
                      context* ctx) {
    const int sent = goes_through_tunnel(ifname)
                         ? send_for_tunnel(_send_icmp_sock.get(ns_name), ifname, to, packet_id, ctx)
                         : send_for_interfaces(_send_ip_sock.get(ns_name), ifname, to,
                                               source_address, nexthop, packet_id, ctx);
    report_failed_send(ipv4_probes, sent);
}

int LBTestICMP::send_for_interfaces(int sock, const std::string& ifname, const std::string& to,
                                    const std::string& source_address, const std::string& nexthop,
                                    int packet_id, context* ctx) {
    if (ctx->ipv6) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    const FramePath4 path = find_frame_path4(ifname, source_address, nexthop, to, ctx);
    switch (path.reached) {
        case FramePath4::Step::ready:
            break;
        case FramePath4::Step::failed:
            return -1;
        case FramePath4::Step::source_absent:
            LOG_ERROR("address '%s' not present on any interface", path.source_text.c_str());
            errno = EADDRNOTAVAIL;
            return -1;
    }
    const EchoFrame4 frame =
        echo_frame4(path.next_hop_mac, path.link.mac, path.source, path.target,
                    static_cast<std::uint16_t>(getpid()), static_cast<std::uint32_t>(packet_id));
    create_conntrack_record(path.source_text, to, ctx);
    return send_frame(sock, path.link.index, path.link.mac, bytes_of(frame));
}

int LBTestICMP::send_for_tunnel(int sock, const std::string& ifname, const std::string& to,
                                int packet_id, context* ctx) {
    if (ctx->ipv6) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    const TunnelPath path = open_tunnel_path(sock, ifname, to, AF_INET);
    const int error = errno;
    switch (path.reached) {
        case TunnelPath::Step::ready:
            break;
        case TunnelPath::Step::not_sendable:
            return -1;
        case TunnelPath::Step::unresolved:
            LOG_ERROR("wan_lb: error in resolving configured hostname: %s", to.c_str());
            errno = error;
            return -1;
        case TunnelPath::Step::not_bound:
            LOG_ERROR("wan_lb: failure to bind to interface: %s",
                      shown_ifname(ifname, ctx).c_str());
            errno = error;
            return -1;
    }
    const auto destination = dotted_destination(to);
    if (!destination) {
        return -1;
    }
    const TunnelEcho4 message = tunnel_echo4(static_cast<std::uint16_t>(getpid()), tunnel_sequence,
                                             static_cast<std::uint32_t>(packet_id));
    return send_datagram(sock, *destination, bytes_of(message));
}

unsigned short LBTestICMP::in_checksum(unsigned short* data, int length) const {
    return internet_checksum(data, length);
}

unsigned short LBTestICMP::icmp4_checksum(icmphdr header, unsigned char* data, int length) {
    return ::icmp4_checksum(header, data, length);
}

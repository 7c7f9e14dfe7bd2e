#include "probe/lb_test_icmp.h"

#include <bit>
#include <cerrno>
#include <cstdint>

#include "config/interface_name.h"
#include "host/log.h"
#include "probe/host_view.h"
#include "probe/send_path.h"
#include "wire/checksum.h"
#include "wire/frame_builder.h"

namespace {

constexpr std::uint16_t tunnel_sequence = 1;  // B48: 0 in frames

}  // namespace

void LBTestICMP::init(context* ctx) {
    LBTest::init(ctx);
    name_once(*ctx);
}

std::string LBTestICMP::name() {
    return "ping";
}

std::string LBTestICMP::dump(context* /*ctx*/) {
    return dump_line();
}

void LBTestICMP::send(LBHealth& health, context* ctx) {
    if (const auto packet_id = begin_echo(health, last_sent)) {
        send(health.name, target, health.source_address, health.effective_nexthop(), *packet_id,
             ctx);
    }
}

void LBTestICMP::send(const std::string& ifname, const std::string& to,
                      const std::string& source_address, const std::string& nexthop, int packet_id,
                      context* ctx) {
    report_failed_send(
        family_, echoes_through_tunnel(ifname)
                     ? send_into_tunnel(_send_icmp_sock.get(ns_name), ifname, to, packet_id, ctx)
                     : send_frame(_send_ip_sock.get(ns_name), ifname, to, source_address, nexthop,
                                  packet_id, ctx));
}

host::Transfer LBTestICMP::send_frame(int sock, const std::string& ifname, const std::string& to,
                                      const std::string& source_address, const std::string& nexthop,
                                      int packet_id, context* ctx) {
    if (ctx->ipv6) {
        return {.count = -1, .error = EAFNOSUPPORT};
    }
    const FramePath4 path = find_frame_path4(ifname, source_address, nexthop, to, ctx);
    switch (path.reached) {
        case FramePath4::Step::ready:
            break;
        case FramePath4::Step::failed:
            return {.count = -1, .error = path.error};
        case FramePath4::Step::source_absent:
            LOG_ERROR("address '%s' not present on any interface", path.own.source_text.c_str());
            return {.count = -1, .error = path.error};
    }
    const EchoFrame4 frame =
        echo_frame4(path.next_hop_mac, path.own.link.mac, path.own.source, path.target,
                    host::echo_identifier(), static_cast<std::uint32_t>(packet_id));
    return ctx->view->outbox.take(
        outgoing_echo(family_, sock, path.own.link, path.own.source, path.target, bytes_of(frame)));
}

host::Transfer LBTestICMP::send_into_tunnel(int sock, const std::string& ifname,
                                            const std::string& to, int packet_id, context* ctx) {
    if (ctx->ipv6) {
        return {.count = -1, .error = EAFNOSUPPORT};
    }
    ctx->view->outbox.send_waiting();
    const TunnelPath path = open_tunnel_path(sock, ifname, to, false);
    switch (path.reached) {
        case TunnelPath::Step::ready:
            break;
        case TunnelPath::Step::not_sendable:
            return {.count = -1, .error = path.error};
        case TunnelPath::Step::unresolved:
            LOG_ERROR("wan_lb: error in resolving configured hostname: %s", to.c_str());
            return {.count = -1, .error = path.error};
        case TunnelPath::Step::not_bound:
            LOG_ERROR("wan_lb: failure to bind to interface: %s",
                      shown_ifname(ifname, ctx).c_str());
            return {.count = -1, .error = path.error};
    }
    const auto destination = digits_destination(to);
    if (!destination) {
        return {.count = -1, .error = EINVAL};
    }
    const TunnelEcho4 message = tunnel_echo4(host::echo_identifier(), tunnel_sequence,
                                             static_cast<std::uint32_t>(packet_id));
    return host::send_echo(sock, *destination, bytes_of(message));
}

int LBTestICMP::send_for_interfaces(int sock, const std::string& ifname, const std::string& to,
                                    const std::string& source_address, const std::string& nexthop,
                                    int packet_id, context* ctx) {
    const host::Transfer sent =
        send_frame(sock, ifname, to, source_address, nexthop, packet_id, ctx);
    errno = sent.error;
    return sent.count;
}

int LBTestICMP::send_for_tunnel(int sock, const std::string& ifname, const std::string& to,
                                int packet_id, context* ctx) {
    const host::Transfer sent = send_into_tunnel(sock, ifname, to, packet_id, ctx);
    errno = sent.error;
    return sent.count;
}

std::string LBTestICMP::status(context* /*ctx*/) {
    return status_line();
}

unsigned short LBTestICMP::in_checksum(unsigned short* data, int length) const {
    return internet_checksum(data, length);
}

unsigned short LBTestICMP::icmp4_checksum(icmphdr header, unsigned char* data, int length) {
    return ::icmp4_checksum(std::bit_cast<IcmpHeaderBytes>(header), data, length);
}

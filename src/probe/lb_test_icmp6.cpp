#include "probe/lb_test_icmp6.h"

#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "base/address_text.h"
#include "config/interface_name.h"
#include "config/live_state.h"
#include "host/clock.h"
#include "host/log.h"
#include "probe/host_view.h"
#include "probe/send_path.h"
#include "wire/checksum.h"
#include "wire/frame_builder.h"

void LBTestICMP6::init(context* ctx) {
    LBTest6::init(ctx);
    name_once(*ctx);
}

std::string LBTestICMP6::name() {
    return "ping";
}

std::string LBTestICMP6::dump(context* /*ctx*/) {
    return dump_line();
}

void LBTestICMP6::send(LBHealth& health, context* ctx) {
    resolve_target(health);
    if (!choose_source(health, ctx)) {
        return;
    }
    if (const auto packet_id = begin_echo(health, last_sent)) {
        // B80: the neighbour prober is handed the next hop as configured, also when that is a word
        // like "dhcp". An IPv6 uplink needs a configured next hop.
        send(health.name, target, health.source_address, health.nexthop, *packet_id, ctx);
    }
}

/// Gives a record without a source the interface's link-local address for good, or "::" where there
/// is none: that is asked again in the next cycle (B61).
bool LBTestICMP6::choose_source(LBHealth& health, context* ctx) {
    if (!health.source_address.empty() && health.source_address != "::") {
        return true;
    }
    ctx->view->outbox.send_waiting();
    sockaddr_in6 address{};
    get_link_local_addr(health.name, &address, ctx);
    const Ipv6Text source = to_text(std::bit_cast<Ipv6Bytes>(address.sin6_addr));
    if (source.error != 0) {
        LOG_ERROR("inet_ntop failed! %s", strerror(source.error));
        return false;
    }
    if (health.source_address != source.text) {
        const LiveStateWriter hold;
        health.source_address = source.text;
    }
    return true;
}

void LBTestICMP6::send(const std::string& ifname, const std::string& to,
                       const std::string& source_address, const std::string& nexthop, int packet_id,
                       context* ctx) {
    report_failed_send(family_, send_frame(_send_ipv6_sock.get(ns_name), ifname, to, source_address,
                                           nexthop, packet_id, ctx));
}

host::Transfer LBTestICMP6::send_frame(int sock, const std::string& ifname, const std::string& to,
                                       const std::string& source_address,
                                       const std::string& nexthop, int packet_id, context* ctx) {
    if (!ctx->ipv6) {
        return {.count = -1, .error = EAFNOSUPPORT};
    }
    const FramePath6 path = find_frame_path6(ifname, source_address, nexthop, to, ctx);
    if (!path.is_ready) {
        return {.count = -1, .error = path.error};
    }
    const EchoFrame6 frame =
        echo_frame6(path.next_hop_mac, path.link.mac, path.source, path.target,
                    host::echo_identifier(), static_cast<std::uint32_t>(packet_id));
    return ctx->view->outbox.take(
        outgoing_echo(family_, sock, path.link, path.source, path.target, bytes_of(frame)));
}

int LBTestICMP6::send_for_interfaces(int sock, const std::string& ifname, const std::string& to,
                                     const std::string& source_address, const std::string& nexthop,
                                     int packet_id, context* ctx) {
    const host::Transfer sent =
        send_frame(sock, ifname, to, source_address, nexthop, packet_id, ctx);
    errno = sent.error;
    return sent.count;
}

int LBTestICMP6::get_link_local_addr(const std::string& ifname, sockaddr_in6* out, context* ctx) {
    const HostView::LinkLocal found = ctx->view->find_link_local(ifname);
    if (!found.is_list_readable) {
        LOG_ERROR("getifaddrs");
        return -1;
    }
    if (!found.address) {
        return -2;
    }
    *out = {};
    out->sin6_family = AF_INET6;
    out->sin6_addr = std::bit_cast<in6_addr>(found.address->ipv6);
    out->sin6_scope_id = found.address->scope;
    return 0;
}

host::Transfer LBTestICMP6::send_into_tunnel(int sock, const std::string& ifname,
                                             const std::string& to, int packet_id, context* ctx) {
    if (!ctx->ipv6) {
        return {.count = -1, .error = EAFNOSUPPORT};
    }
    const TunnelPath path = open_tunnel_path(sock, ifname, to, true);
    switch (path.reached) {
        case TunnelPath::Step::ready:
            break;
        case TunnelPath::Step::not_sendable:
            return {.count = -1, .error = path.error};
        case TunnelPath::Step::unresolved:
            LOG_WARNING("Error in resolving configured hostname: %s", to.c_str());
            return {.count = -1, .error = path.error};
        case TunnelPath::Step::not_bound:
            LOG_ERROR("wan_lb: failure to bind to interface (ipv6): %s",
                      shown_ifname(ifname, ctx).c_str());
            return {.count = -1, .error = path.error};
    }
    const timespec now = wall_now();
    const TunnelEcho6 message = tunnel_echo6(
        host::echo_identifier(), static_cast<std::uint32_t>(now.tv_sec),
        static_cast<std::uint32_t>(now.tv_nsec / 1000), static_cast<std::uint32_t>(packet_id));
    return host::send_echo6(sock, path.resolved.ipv6, path.resolved.scope, bytes_of(message));
}

int LBTestICMP6::send_for_tunnel(int sock, const std::string& ifname, const std::string& to,
                                 int packet_id, context* ctx) {
    const host::Transfer sent = send_into_tunnel(sock, ifname, to, packet_id, ctx);
    errno = sent.error;
    return sent.count;
}

std::string LBTestICMP6::status(context* /*ctx*/) {
    return status_line();
}

unsigned short LBTestICMP6::checksum(unsigned short* data, int length) {
    return internet_checksum(data, length);
}

unsigned short LBTestICMP6::in_checksum(ip6_hdr ip, icmp6_hdr header, unsigned char* data,
                                        int length) {
    return icmp6_checksum(std::bit_cast<Ipv6Header>(ip), std::bit_cast<IcmpHeaderBytes>(header),
                          data, length);
}

#include "probe/send_path.h"

#include <cerrno>
#include <cstring>
#include <optional>

#include "base/address_text.h"
#include "host/log.h"
#include "host/packets.h"
#include "probe/lb_arp.h"
#include "probe/lb_neighbor.h"

namespace {

/// `mac_word` is how the family's message calls the MAC (B127).
void log_link_failure(const host::Link& link, const char* mac_word) {
    const char* reason = strerror(link.error);
    switch (link.failed) {
        case host::Link::Step::none:
            break;
        case host::Link::Step::socket:
            LOG_ERROR("socket() failed to get socket descriptor for using ioctl() %s", reason);
            break;
        case host::Link::Step::mac:
            LOG_ERROR("ioctl() failed to get source MAC %s %s", mac_word, reason);
            break;
        case host::Link::Step::index:
            LOG_ERROR("if_nametoindex() failed to obtain interface index %s", reason);
            break;
    }
}

void log_unreadable_address(int error) {
    LOG_ERROR("inet_pton() failed.\nError message: %s", strerror(error));
}

/// The path's own end, or why there is none. What comes before a line of the log leaves before it.
bool find_own_end(const std::string& ifname, const std::string& source_address, HostView& view,
                  FramePath4& path) {
    if (const OwnEnd4* known = view.known_end(ifname, source_address)) {
        path.own = *known;
        return true;
    }
    path.own.link = view.link(ifname);
    if (path.own.link.failed != host::Link::Step::none) {
        view.outbox.send_waiting();
        log_link_failure(path.own.link, "address");
        path.error = path.own.link.error;
        return false;
    }
    path.own.source_text = source_address;
    if (source_address.empty()) {
        const host::PrimaryAddress own = host::primary_address(ifname);
        if (own.error != 0) {
            view.outbox.send_waiting();
            path.error = own.error;
            return false;
        }
        path.own.source_text = to_text(own.address);
    }
    if (!view.has_source(ifname, path.own.source_text)) {
        view.outbox.send_waiting();
        path.reached = FramePath4::Step::source_absent;
        path.error = EADDRNOTAVAIL;
        return false;
    }
    path.own.source = parse_ipv4(path.own.source_text).value();  // one that the host printed
    view.keep_end(ifname, source_address, path.own);
    return true;
}

}  // namespace

// What comes before a line of the log, or before a question on the wire, leaves before it.
FramePath4 find_frame_path4(const std::string& ifname, const std::string& source_address,
                            const std::string& nexthop, const std::string& target, context* ctx) {
    HostView& view = *ctx->view;
    Outbox& before = view.outbox;
    FramePath4 path;
    if (!find_own_end(ifname, source_address, view, path)) {
        return path;
    }
    ctx->arp->set_data(nexthop, path.own.source_text, ifname);
    if (const MacAddress* kept = view.known_mac(ifname, nexthop)) {
        path.next_hop_mac = *kept;
    } else if (const auto known = ctx->arp->known_mac()) {
        path.next_hop_mac = *known;
        view.keep_mac(ifname, nexthop, *known);
    } else {
        before.send_waiting();
        const LBArp::Mac mac = ctx->arp->find_mac();
        if (mac.error != 0) {
            path.error = mac.error;
            return path;
        }
        path.next_hop_mac = mac.mac;
    }
    const auto destination = parse_ipv4(target);
    if (!destination) {
        before.send_waiting();
        log_unreadable_address(EINVAL);
        path.error = EINVAL;
        return path;
    }
    path.target = *destination;
    path.reached = FramePath4::Step::ready;
    return path;
}

FramePath6 find_frame_path6(const std::string& ifname, const std::string& source_address,
                            const std::string& nexthop, const std::string& target, context* ctx) {
    Outbox& before = ctx->view->outbox;
    FramePath6 path;
    path.link = ctx->view->link(ifname);
    if (path.link.failed != host::Link::Step::none) {
        before.send_waiting();
        log_link_failure(path.link, "adds");
        path.error = path.link.error;
        return path;
    }
    ctx->neighbor->set_data(nexthop, source_address, ifname);
    if (const MacAddress* known = ctx->neighbor->view.known_neighbor(nexthop)) {
        path.next_hop_mac = *known;
    } else {
        before.send_waiting();
        const auto mac = ctx->neighbor->find_mac();
        if (!mac) {
            path.error = EHOSTUNREACH;
            return path;
        }
        path.next_hop_mac = *mac;
    }
    const auto source = parse_ipv6(source_address);
    const auto destination = source ? parse_ipv6(target) : std::nullopt;
    if (!destination) {
        before.send_waiting();
        log_unreadable_address(0);  // B128: the text of the conversion's result, 0
        path.error = EINVAL;
        return path;
    }
    path.source = *source;
    path.target = *destination;
    path.is_ready = true;
    return path;
}

// B44, B45: the words may stand anywhere in the name, and modems take this way for "ping" only.
bool pings_through_tunnel(const std::string& ifname) {
    return ifname.find("ip4ip4") != std::string::npos || ifname.find("gre") != std::string::npos;
}

bool echoes_through_tunnel(const std::string& ifname) {
    return pings_through_tunnel(ifname) || ifname.find("modem") != std::string::npos;
}

TunnelPath open_tunnel_path(int sock, const std::string& ifname, const std::string& target,
                            bool is_ipv6) {
    TunnelPath path;
    if (ifname.empty() || target.empty()) {
        path.error = EINVAL;
        return path;
    }
    path.resolved = host::resolve(target, is_ipv6);
    if (path.resolved.status != 0) {
        path.reached = TunnelPath::Step::unresolved;
        path.error = EHOSTUNREACH;
        return path;
    }
    path.error = host::bind_to_interface(sock, ifname);
    path.reached = path.error == 0 ? TunnelPath::Step::ready : TunnelPath::Step::not_bound;
    return path;
}

// B57: the resolved address was a check only.
std::optional<Ipv4Bytes> digits_destination(const std::string& target) {
    const auto destination = parse_ipv4_in_any_form(target);
    if (!destination) {
        LOG_ERROR("inet_aton() failed: %s", strerror(EINVAL));
    }
    return destination;
}

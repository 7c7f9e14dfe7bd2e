// Next hops that are learnt: from DHCP leases, from tunnel peers.

#include <chrono>
#include <string>

#include "base/address_text.h"
#include "config/interface_name.h"
#include "config/lb_data.h"
#include "config/live_state.h"
#include "config/own_records.h"
#include "decision/lease_file.h"
#include "host/clock.h"
#include "host/files.h"
#include "host/links.h"
#include "host/log.h"

namespace {

using std::chrono::nanoseconds;

nanoseconds now() {
    const timespec time = wall_now();
    return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

/// The router that the DHCP client of the interface has learnt; empty where it has none.
std::string read_lease(const std::string& ifname, bool ipv6) {
    const host::File leases = host::open_regular_file(lease_path(ifname, ipv6));
    if (leases == nullptr) {
        return "";
    }
    const auto router_in = ipv6 ? router_in_lease6 : router_in_lease;
    const nanoseconds modified = host::modification_time(leases.get());
    // Whoever writes now leaves the time of now. One in the future tells as well that nobody does:
    // it is from before the clock was set back.
    std::string router = router_in(leases.get(), std::chrono::abs(now() - modified));
    if (host::modification_time(leases.get()) == modified) {
        return router;
    }
    // It was old, but has been written while it was read.
    rewind(leases.get());
    return router_in(leases.get(), nanoseconds(0));
}

/// Stores what was learnt. B95: nothing learnt keeps the address of an earlier cycle, since a lease
/// file that is just being written must not take the next hop away.
void learn(LBHealth& health, const std::string& address) {
    if (address.empty() || address == health.nexthop_addr) {
        return;
    }
    const LiveStateWriter hold;
    health.nexthop_addr = address;
}

/// Calls `act` for the worker's own interfaces with this word as their next hop. Those of other
/// namespaces belong to other workers, and their interfaces cannot be asked from here.
template <class Act>
void for_each_learning(LBData& data, context* ctx, const char* word, Act act) {
    for (LBHealth* health : ctx->own->interfaces(data, *ctx)) {
        if (health->nexthop == word) {
            act(*health);
        }
    }
}

}  // namespace

void LBData::update_dhcp_nexthop(context* ctx) {
    for_each_learning(*this, ctx, "dhcp", [ctx](LBHealth& record) {
        learn(record, read_lease(record.name, ctx->ipv6));
        if (record.nexthop_addr.empty()) {
            LOG_WARNING("Failed to get routers option from DHCP on interface %s",
                        shown_ifname(record.name, ctx).c_str());
        }
    });
}

// B98: one request serves the whole call, zero at first, and whether the host answers is not looked
// at. Where it refuses, the peer of the tunnel before stays in the request and is learnt, and
// 0.0.0.0 for the first one. B99: the peer is an IPv4 address in either family.
void LBData::update_tunnel_nexthop(context* ctx) {
    host::PeerRequest request(ctx->ipv6);
    for_each_learning(*this, ctx, "tunnel", [ctx, &request](LBHealth& record) {
        host::ask_peer(record.name, request);
        learn(record, to_text(request.address));
        if (record.nexthop_addr.empty()) {
            plain_syslog(7, "Failed to get P-t-P destination from tunnel interface %s",
                         shown_ifname(record.name, ctx).c_str());
        }
    });
}

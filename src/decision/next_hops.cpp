// Next hops that are learnt: from DHCP leases, from tunnel peers.

#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>

#include "config/lb_data.h"
#include "config/live_state.h"
#include "decision/lease_file.h"
#include "host/interface_name.h"
#include "net/interface.h"
#include "platform/clock.h"
#include "platform/log.h"

namespace {

struct CloseFile {
    void operator()(FILE* file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

using std::chrono::nanoseconds;

nanoseconds now() {
    const timeval time = wall_now();
    return std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
}

/// When the file was modified last; a file that cannot be asked might be this very moment.
nanoseconds modification_time(FILE* file) {
    struct stat status {};
    if (fstat(fileno(file), &status) != 0) {
        return now();
    }
    return std::chrono::seconds(status.st_mtim.tv_sec) + nanoseconds(status.st_mtim.tv_nsec);
}

/// The router that the DHCP client of the interface has learnt; empty where it has none.
std::string read_lease(const std::string& ifname, bool ipv6) {
    const std::string path =
        (ipv6 ? "/var/db/dhcp6_client" : "/var/db/dhclient_") + ifname + ".leases";
    const File leases(fopen(path.c_str(), "re"));
    if (leases == nullptr) {
        return "";
    }
    const auto router_in = ipv6 ? router_in_lease6 : router_in_lease;
    const nanoseconds modified = modification_time(leases.get());
    // Whoever writes now leaves the time of now. One in the future tells as well that nobody does:
    // it is from before the clock was set back.
    std::string router = router_in(leases.get(), std::chrono::abs(now() - modified));
    if (modification_time(leases.get()) == modified) {
        return router;
    }
    // It was old, but has been written while it was read.
    rewind(leases.get());
    return router_in(leases.get(), nanoseconds(0));
}

/// The peer's address of a point-to-point interface, as a dotted quad in either family. The result
/// of the request is not looked at: an interface that is missing or has no peer gives 0.0.0.0,
/// which routers show as the next hop of a tunnel that is not set up.
std::string ask_peer(const std::string& ifname, bool ipv6) {
    ifreq request{};
    request.ifr_dstaddr.sa_family = static_cast<sa_family_t>(ipv6 ? AF_INET6 : AF_INET);
    ifname.copy(request.ifr_name, sizeof request.ifr_name - 1);
    ioctl(query_socket(), SIOCGIFDSTADDR, &request);
    sockaddr_in peer;
    std::memcpy(&peer, &request.ifr_dstaddr, sizeof peer);
    return to_text(peer.sin_addr);
}

/// Stores what was learnt. Nothing learnt keeps the address of an earlier cycle: a lease file that
/// is just being written must not take the next hop away.
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
    for (auto& [name, health] : data.family(ctx->ipv6)) {
        if (health.namespace_name == *ctx->ns_name && health.nexthop == word) {
            act(health);
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

void LBData::update_tunnel_nexthop(context* ctx) {
    for_each_learning(*this, ctx, "tunnel", [ctx](LBHealth& record) {
        learn(record, ask_peer(record.name, ctx->ipv6));
        if (record.nexthop_addr.empty()) {
            plain_syslog(7, "Failed to get P-t-P destination from tunnel interface %s",
                         shown_ifname(record.name, ctx).c_str());
        }
    });
}

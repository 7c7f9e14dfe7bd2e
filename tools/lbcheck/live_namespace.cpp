#include "lbcheck/live_namespace.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <vector>

#include "config/own_records.h"
#include "decision/lease_file.h"
#include "host/clock.h"
#include "lbcheck/live_echo.h"
#include "lbcheck/live_expected.h"
#include "lbcheck/live_judge.h"
#include "lbcheck/live_lease.h"
#include "lbcheck/live_machine.h"
#include "lbroute/net_namespace.h"
#include "lbroute/rtnetlink.h"
#include "probe/host_view.h"
#include "probe/lb_test.h"
#include "probe/send_path.h"
#include "shared/file_text.h"
#include "shared/quiet_log.h"

namespace lbcheck {

namespace {

/// The daemon's own way to learn next hops.
void learn_next_hops(LBData& data, const std::string& ns_name, bool is_ipv6) {
    std::string name = ns_name;
    OwnRecords own;
    context ctx{.ipv6 = is_ipv6, .ns_name = &name, .own = &own};
    const shared::QuietLog quiet;
    data.update_dhcp_nexthop(&ctx);
    data.update_tunnel_nexthop(&ctx);
}

Lease lease_of(const LBHealth& health) {
    Lease lease;
    lease.path = lease_path(health.name, health.ipv6);
    constexpr std::size_t most_bytes = 1U << 20U;
    int error = 0;
    const auto text = shared::text_of_regular_file(lease.path, most_bytes, error);
    if (!text) {
        lease.error = error == EINVAL ? "it is no regular file" : strerror(error);
    }
    if (const auto end_s = end_of_lease(text.value_or(""))) {
        lease.ended_for_s = wall_now().tv_sec - *end_s;
    }
    lease.router = health.nexthop_addr;
    return lease;
}

/// A namespace while it is looked at, from within.
class NamespaceLook {
  public:
    NamespaceLook(NamespaceFacts& facts, LBData& data, const lbroute::Report& routes)
        : facts_(facts), data_(data), routes_(routes) {}

    void look() {
        std::string problem;
        socket_ = lbroute::RouteSocket::open(problem);
        if (!socket_.is_open()) {
            facts_.problem = problem;
            return;
        }
        kernel_ = lbroute::list_kernel_state(socket_);
        for (const bool is_ipv6 : {false, true}) {
            look_at_family(is_ipv6);
        }
        facts_.tracked = setting_of("net/netfilter/nf_conntrack_count");
        facts_.most_tracked = setting_of("net/netfilter/nf_conntrack_max");
        look_at_routes();
    }

  private:
    void look_at_family(bool is_ipv6) {
        learn_next_hops(data_, facts_.name, is_ipv6);
        const std::size_t first = facts_.uplinks.size();
        std::vector<const LBHealth*> healths;
        const bool is_served = std::ranges::any_of(
            facts_.routers,
            [is_ipv6](const RouterFacts& router) { return router.is_ipv6 == is_ipv6; });
        for (const auto& [name, health] : data_.family(is_ipv6)) {
            if (health.namespace_name == facts_.name) {
                healths.push_back(&health);
                facts_.uplinks.push_back(look_at_uplink(health));
                if (is_served) {
                    facts_.uplinks.back().expected = expected_of(health);
                }
            }
        }
        ask_targets(is_ipv6, first, healths);
        const auto neighbours = neighbours_of(is_ipv6);
        for (std::size_t i = first; i < facts_.uplinks.size(); ++i) {
            UplinkFacts& uplink = facts_.uplinks[i];
            const auto found = neighbours.find({uplink.interface, uplink.next_hop});
            uplink.neighbour = found == neighbours.end() ? "" : found->second;
        }
    }

    UplinkFacts look_at_uplink(const LBHealth& health) {
        UplinkFacts uplink;
        uplink.interface = health.name;
        uplink.is_ipv6 = health.ipv6;
        uplink.configured_next_hop = health.nexthop;
        uplink.next_hop = health.effective_nexthop();
        uplink.source_address = health.source_address;
        uplink.needs_all_targets = health.check_all;
        uplink.is_tunnel = !health.ipv6 && echoes_through_tunnel(health.name);
        if (health.nexthop == "dhcp") {
            uplink.lease = lease_of(health);
        }
        const lbroute::Link* link = kernel_.state.link(health.name);
        uplink.exists = link != nullptr;
        if (link == nullptr) {
            for (const lbroute::Link& one : kernel_.state.links) {
                if (one.name != "lo") {
                    uplink.similar_interfaces.push_back(one.name);
                }
            }
            constexpr std::size_t most_named = 12;
            uplink.similar_interfaces.resize(
                std::min(uplink.similar_interfaces.size(), most_named));
            return uplink;
        }
        uplink.is_up = link->is_up;
        uplink.has_carrier = link->has_carrier;
        uplink.is_ethernet = link->is_ethernet;
        look_at_addresses(uplink, link->index);
        uplink.is_source_found = is_source_found(uplink);
        uplink.reverse_path_all = setting_of("net/ipv4/conf/all/rp_filter");
        uplink.reverse_path_own = setting_of("net/ipv4/conf/" + health.name + "/rp_filter");
        return uplink;
    }

    void look_at_addresses(UplinkFacts& uplink, int index) {
        const auto family = uplink.is_ipv6 ? lbroute::Family::ipv6 : lbroute::Family::ipv4;
        const auto next_hop = lbroute::Address::parse(uplink.next_hop, family);
        // Every link with IPv6 has fe80::/10, and a tunnel needs no neighbour.
        uplink.is_next_hop_on_link = uplink.is_tunnel || (next_hop && next_hop->is_link_local());
        for (const lbroute::LinkAddress& one : kernel_.state.addresses) {
            if (one.link != index || one.address.family != family) {
                continue;
            }
            uplink.addresses.push_back(one.address.text());
            uplink.is_next_hop_on_link =
                uplink.is_next_hop_on_link || (next_hop && one.network.contains(*next_hop));
        }
    }

    /// IPv4: by the daemon's own rule (B59). In IPv6 it sends from any source, in any spelling.
    bool is_source_found(const UplinkFacts& uplink) {
        if (!uplink.is_ipv6) {
            const shared::QuietLog quiet;
            return view_.has_source(uplink.interface, uplink.source_address);
        }
        const auto source = lbroute::Address::parse(uplink.source_address, lbroute::Family::ipv6);
        return source && std::ranges::any_of(kernel_.state.addresses,
                                             [&source](const lbroute::LinkAddress& one) {
                                                 return one.address == *source;
                                             });
    }

    /// One target each: the first that lies behind the next hop, else the next hop itself.
    void ask_targets(bool is_ipv6, std::size_t first, const std::vector<const LBHealth*>& healths) {
        std::vector<EchoRequest> requests;
        std::vector<std::size_t> places;
        for (std::size_t i = first; i < facts_.uplinks.size(); ++i) {
            const UplinkFacts& uplink = facts_.uplinks[i];
            if (!uplink.exists || !uplink.is_up || uplink.next_hop.empty()) {
                continue;
            }
            std::string target = uplink.next_hop;
            for_each_probe(*healths[i - first], [&](int, const Probe& probe) {
                if (!probe.target.empty() && target == uplink.next_hop) {
                    target = probe.target;
                }
            });
            requests.push_back({uplink.interface, target, uplink.source_address, uplink.next_hop});
            places.push_back(i);
        }
        if (requests.empty()) {
            return;
        }
        std::string problem;
        const auto echoes = send_echoes(facts_.name, is_ipv6, requests, problem);
        if (!problem.empty()) {
            facts_.echo_problem = problem;  // the other family's stays
        }
        for (std::size_t i = 0; i < echoes.size(); ++i) {
            facts_.uplinks[places[i]].echo = echoes[i];
        }
    }

    void look_at_routes() {
        for (const lbroute::ReportedNamespace& reported : routes_.namespaces) {
            if (reported.name != facts_.name) {
                continue;
            }
            std::set<lbroute::Prefix> prefixes;
            for (const lbroute::ReportedRoute& route : reported.routes) {
                if (const auto prefix = lbroute::prefix_of(route.prefix)) {
                    prefixes.insert(*prefix);
                }
            }
            facts_.routes = lbroute::list_foreign_routes(socket_, lbroute::main_table, prefixes,
                                                         facts_.routes_problem);
        }
    }

    NamespaceFacts& facts_;
    LBData& data_;
    const lbroute::Report& routes_;
    lbroute::RouteSocket socket_;
    lbroute::Listing kernel_;
    HostView view_;
};

}  // namespace

NamespaceFacts look_at_namespace(const std::string& name, LBData& data, const WorkByNamespace& work,
                                 const lbroute::Report& routes) {
    NamespaceFacts facts;
    facts.name = name;
    if (!lbroute::namespace_identity(name)) {
        facts.problem = no_such_namespace;
        return facts;
    }
    for (const bool is_ipv6 : {false, true}) {
        const auto found = work.find({name, is_ipv6});
        if (found != work.end() && found->second.needs_worker()) {
            facts.routers.push_back(router_of(name, is_ipv6));
        }
    }
    const lbroute::NamespaceVisit visit(name);
    if (!visit.problem().empty()) {
        facts.problem = visit.problem();
        return facts;
    }
    NamespaceLook(facts, data, routes).look();
    return facts;
}

}  // namespace lbcheck

// Uplinks and machine; the daemon by its dumps: live_dumps.cpp; routes and those who make them:
// live_routes.cpp.

#include "lbcheck/live_judge.h"

#include <algorithm>
#include <cstdint>

#include "lbcheck/values.h"

namespace lbcheck {

std::string within(const std::string& namespace_name, const std::string& command) {
    return (namespace_name.empty() ? "" : "ip netns exec " + namespace_name + " ") + command;
}

std::string place_of(const NamespaceFacts& space, const UplinkFacts& uplink) {
    return in_namespace(space.name) + uplink.interface + (uplink.is_ipv6 ? " (IPv6)" : " (IPv4)");
}

namespace {

/// Judges one uplink from its link up; what needs what is broken already is not judged.
class UplinkJudge {
  public:
    UplinkJudge(const NamespaceFacts& space, const UplinkFacts& uplink, LiveFindings& findings)
        : space_(space), uplink_(uplink), findings_(findings) {}

    void judge() {
        if (!judge_link()) {
            return;
        }
        judge_reverse_path();
        if (judge_lease() && judge_next_hop()) {
            judge_echo();
        }
    }

  private:
    void add(State state, const std::string& text, const std::string& mend = "") {
        findings_.add(state, place_of(space_, uplink_), text, mend);
    }
    std::string command(const std::string& words) const { return within(space_.name, words); }

    bool judge_link() {
        const std::string& name = uplink_.interface;
        if (!uplink_.exists) {
            std::string seen;
            for (const std::string& one : uplink_.similar_interfaces) {
                seen += (seen.empty() ? "" : " ") + one;
            }
            add(State::error, "there is no such interface" + (seen.empty() ? "" : ", but: " + seen),
                "correct the name, or give the card this name by a .link file and restart");
            return false;
        }
        if (!uplink_.is_up) {
            add(State::error, "it is down", command("ip link set " + name + " up"));
            return false;
        }
        if (!uplink_.has_carrier) {
            add(State::error, "it has no carrier", "look at the cable and at the other end");
            return false;
        }
        if (!uplink_.is_ethernet && (!uplink_.is_tunnel || uplink_.is_ipv6)) {
            add(State::error,
                "it has no Ethernet addresses (as with PPPoE, WireGuard, LTE), but its probes "
                "would leave as Ethernet frames: no next hop is ever found",
                uplink_.is_ipv6 ? "leave its IPv6 out: no tunnel or modem can be probed in IPv6"
                                : "give it a name with modem in it, or with gre or ip4ip4 where it "
                                  "is such a tunnel");
            return false;
        }
        const bool lacks_own = uplink_.addresses.empty() && !uplink_.is_tunnel;
        // On a tunnel the kernel chooses the source.
        const bool lacks_source =
            !uplink_.source_address.empty() && !uplink_.is_tunnel && !uplink_.is_source_found;
        const std::string source_mend =
            "correct source_address, or: " +
            command("ip address add " + uplink_.source_address + "/LENGTH dev " + name);
        if (lacks_source && !uplink_.is_ipv6) {
            add(State::error,
                "source_address " + uplink_.source_address +
                    " is on no interface whose name begins with " + name + " or vrrp",
                source_mend);
            return false;
        }
        if (lacks_source) {
            add(State::warning,
                "source_address " + uplink_.source_address +
                    " is on no interface: nobody takes the answers to it",
                source_mend);
        }
        if (lacks_own) {
            add(State::error, "it has no address of the family",
                command("ip address add ADDRESS/LENGTH dev " + name));
            return false;
        }
        add(State::ok, "it is up, with carrier and address");
        return true;
    }

    /// The larger of both values counts; none in IPv6.
    void judge_reverse_path() {
        if (uplink_.is_ipv6) {
            return;
        }
        if (!uplink_.reverse_path_all || !uplink_.reverse_path_own) {
            add(State::unknown, "its reverse-path check cannot be read");
            return;
        }
        const long value = std::max(*uplink_.reverse_path_all, *uplink_.reverse_path_own);
        const std::string mend = command("sysctl -w net.ipv4.conf.all.rp_filter=0 net.ipv4.conf." +
                                         shown_in_sysctl() + ".rp_filter=0");
        if (value == 0) {
            add(State::ok, "no reverse-path check");
        } else if (value == 1) {
            add(State::error,
                "the reverse-path check drops the answers while no route leads through it "
                "(rp_filter 1)",
                mend);
        } else {
            add(State::warning,
                "the reverse-path check drops the answers while no route leads to the target at "
                "all (rp_filter 2)",
                mend);
        }
    }

    /// sysctl(8) takes a dot within a name for a slash, and the other way round.
    std::string shown_in_sysctl() const {
        std::string name = uplink_.interface;
        std::replace(name.begin(), name.end(), '.', '/');
        return name;
    }

    bool judge_lease() {
        if (!uplink_.lease) {
            return true;
        }
        const Lease& lease = *uplink_.lease;
        const std::string by_hand =
            "make its DHCP client tell it anew (ifdown and ifup " + uplink_.interface +
            ", dhcpcd -n " + uplink_.interface +
            ", systemctl restart networkd-dispatcher, nmcli connection up NAME, kill -USR1 of "
            "udhcpc), or: lb-lease " +
            uplink_.interface + " ROUTER";
        if (!lease.error.empty()) {
            add(State::error, lease.path + " cannot be read: " + lease.error, by_hand);
            return false;
        }
        if (lease.router.empty()) {
            add(State::error, lease.path + " is there, but the daemon finds no router in it",
                by_hand);
            return false;
        }
        if (lease.ended_for_s && *lease.ended_for_s > 0) {
            add(State::warning,
                lease.path + " tells the router " + lease.router + ", but its lease ended " +
                    std::to_string(*lease.ended_for_s) +
                    " s ago: the DHCP client does not renew it",
                "start the DHCP client of " + uplink_.interface);
            return true;
        }
        add(State::ok, lease.path + " tells the router " + lease.router);
        return true;
    }

    bool judge_next_hop() {
        if (uplink_.next_hop.empty()) {
            add(State::error, "no next hop is known (nexthop " + uplink_.configured_next_hop + ")",
                uplink_.configured_next_hop == "tunnel"
                    ? command("ip address add OWN peer FAR dev " + uplink_.interface)
                    : "configure nexthop");
            return false;
        }
        if (!uplink_.is_next_hop_on_link) {
            add(State::warning,
                "its next hop " + uplink_.next_hop +
                    " lies in none of its networks; lbroute routes by it all the same (onlink), "
                    "other routing daemons may not",
                uplink_.lease ? "where that is not meant, renew the lease"
                              : "where that is not meant, correct nexthop, or the length of its "
                                "address: " +
                                    command("ip address show dev " + uplink_.interface));
        }
        return true;
    }

    void judge_echo() {
        if (!uplink_.echo) {
            add(State::unknown, "no probe could be sent: " + space_.echo_problem,
                space_.echo_problem.empty() ? "" : "run it as root");
            return;
        }
        const Echo& echo = *uplink_.echo;
        switch (echo.end) {
            case Echo::End::answered:
                add(State::ok, "next hop " + uplink_.next_hop + " is known, " + echo.target +
                                   " answers through it");
                return;
            case Echo::End::not_sent:
                judge_unsent(echo);
                return;
            case Echo::End::not_delivered:
                judge_lost(echo);
                return;
            case Echo::End::unanswered:
                add(State::error,
                    "no answer of " + echo.target + " comes in through next hop " +
                        uplink_.next_hop + ", which is " + neighbour_text(),
                    "look behind the provider's gateway, or give a target that answers: " +
                        command("ping -I " + uplink_.interface + " " + echo.target) +
                        "; where the gateway was replaced: " +
                        command("ip neigh flush dev " + uplink_.interface));
                return;
        }
    }

    std::string neighbour_text() const {
        return uplink_.neighbour.empty() ? "no neighbour that the kernel knows"
                                         : "a neighbour (" + uplink_.neighbour + ")";
    }

    void judge_unsent(const Echo& echo) {
        const bool is_resolved = !uplink_.neighbour.empty() && uplink_.neighbour != "INCOMPLETE" &&
                                 uplink_.neighbour != "FAILED";
        if (!uplink_.is_tunnel && !is_resolved) {
            add(State::error,
                "next hop " + uplink_.next_hop + " does not answer " +
                    (uplink_.is_ipv6 ? "neighbour solicitations" : "ARP requests"),
                "correct nexthop, or look at the provider's gateway: " +
                    command("ip neigh show dev " + uplink_.interface));
            return;
        }
        add(State::error, "no probe leaves to " + echo.target + ": " + echo.reason,
            command("ip address show dev " + uplink_.interface));
    }

    void judge_lost(const Echo& echo) {
        const bool is_filtered = echo.reverse_path_drops > 0;
        const std::string came =
            "the answer of " + echo.target + " comes in, and is lost within this machine: ";
        if (is_filtered) {
            add(State::error, came + "the reverse-path check drops it",
                command("sysctl -w net.ipv4.conf.all.rp_filter=0 net.ipv4.conf." +
                        shown_in_sysctl() + ".rp_filter=0"));
            return;
        }
        add(State::error, came + "the firewall drops it",
            command("nft insert rule inet TABLE INPUT ct state established,related accept") +
                " (TABLE and INPUT as in: " + command("nft list ruleset") + ")");
    }

    const NamespaceFacts& space_;
    const UplinkFacts& uplink_;
    LiveFindings& findings_;
};

void judge_tracking(const NamespaceFacts& space, LiveFindings& findings) {
    const std::string place = in_namespace(space.name) + "connection tracking";
    if (!space.tracked || !space.most_tracked) {
        findings.add(State::unknown, place, "its table cannot be read (nf_conntrack is not there)",
                     "modprobe nf_conntrack_netlink");
        return;
    }
    constexpr long all_percent = 100;
    constexpr long full_percent = 80;
    const auto needed = static_cast<long>(space.uplinks.size());
    const std::string counts =
        std::to_string(*space.tracked) + " of " + std::to_string(*space.most_tracked) + " entries";
    const std::string mend =
        "sysctl -w net.netfilter.nf_conntrack_max=" +
        std::to_string(2 * std::max(*space.most_tracked, *space.tracked + needed));
    if (*space.tracked + needed > *space.most_tracked) {
        findings.add(State::error, place,
                     counts + " are in use: no room for the probes of " + std::to_string(needed) +
                         " uplinks",
                     mend);
    } else if (std::int64_t{*space.tracked} * all_percent >
               std::int64_t{*space.most_tracked} * full_percent) {
        findings.add(State::warning, place, counts + " are in use", mend);
    } else {
        findings.add(State::ok, place, counts + " are in use");
    }
}

void judge_neighbour_table(const LiveFacts& facts, LiveFindings& findings) {
    for (const int family : {4, 6}) {
        const std::size_t at = family == 4 ? 0 : 1;
        const auto found = facts.configured.find(family);
        const int uplinks = found == facts.configured.end() ? 0 : found->second;
        if (uplinks == 0) {
            continue;
        }
        const std::string place = "neighbours of IPv" + std::to_string(family);
        const std::string prefix = "net.ipv" + std::to_string(family) + ".neigh.default.gc_thresh";
        if (!facts.neighbour_least[at] || !facts.neighbour_most[at]) {
            findings.add(State::unknown, place,
                         "the bounds of the kernel's table are told in the machine's first network "
                         "namespace only",
                         "sysctl " + prefix + "1 " + prefix + "3, there");
            continue;
        }
        const std::string mend =
            "sysctl -w " + prefix + "1=4096 " + prefix + "2=8192 " + prefix + "3=16384";
        if (*facts.neighbour_most[at] <= uplinks) {
            findings.add(State::error, place,
                         "the kernel keeps " + std::to_string(*facts.neighbour_most[at]) +
                             " at most, and there are " + std::to_string(uplinks) + " uplinks",
                         mend);
        } else if (*facts.neighbour_least[at] <= uplinks) {
            findings.add(State::warning, place,
                         "the kernel forgets idle ones from " +
                             std::to_string(*facts.neighbour_least[at]) + " on, and there are " +
                             std::to_string(uplinks) + " uplinks: each costs a probe",
                         mend);
        } else {
            findings.add(
                State::ok, place,
                "the kernel has room for the next hops of " + std::to_string(uplinks) + " uplinks");
        }
    }
}

void judge_units(const LiveFacts& facts, LiveFindings& findings) {
    if (!facts.units_problem.empty()) {
        findings.add(State::unknown, "services", facts.units_problem);
        return;
    }
    for (const UnitFacts& unit : facts.units) {
        const std::string place = "service " + unit.name;
        if (unit.active == "failed") {
            findings.add(State::error, place, "it has failed",
                         "journalctl -u " + unit.name + ", then systemctl restart " + unit.name);
        } else if (unit.active != "active") {
            findings.add(State::warning, place,
                         "it is " + (unit.active.empty() ? "unknown" : unit.active),
                         "systemctl enable --now " + unit.name);
        } else if (unit.enabled != "enabled") {
            findings.add(State::warning, place, "it is active, but not at the next start",
                         "systemctl enable " + unit.name);
        } else {
            findings.add(State::ok, place, "it is active and enabled");
        }
    }
}

std::string mend_of_namespace(const std::string& name, bool is_missing) {
    const std::string fault = problem_of_namespace_name(name);
    if (!fault.empty()) {
        return "correct its name: " + fault;
    }
    return is_missing ? "ip netns add " + name : "run it as root";
}

}  // namespace

std::vector<LiveFinding> judge_live(const LiveFacts& facts) {
    LiveFindings findings;
    for (const NamespaceFacts& space : facts.namespaces) {
        if (!space.problem.empty()) {
            const bool is_missing = space.problem == no_such_namespace;
            findings.add(is_missing ? State::error : State::unknown, "namespace " + space.name,
                         space.problem, mend_of_namespace(space.name, is_missing));
            continue;
        }
        for (const UplinkFacts& uplink : space.uplinks) {
            UplinkJudge(space, uplink, findings).judge();
        }
        judge_tracking(space, findings);
        judge_routers(facts, space, findings);
        judge_routes(facts, space, findings);
    }
    judge_lbroute(facts, findings);
    judge_neighbour_table(facts, findings);
    judge_dumps(facts, findings);
    judge_units(facts, findings);
    judge_rights(facts, findings);
    return findings.all;
}

}  // namespace lbcheck

// What is said of a router, from plain facts: one row, one failure.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "lbcheck/live_echo.h"
#include "lbcheck/live_findings.h"
#include "lbcheck/live_judge.h"
#include "lbcheck/live_lease.h"

namespace {

using lbcheck::Echo;
using lbcheck::LiveFacts;
using lbcheck::reverse_path_drops_in;
using lbcheck::UplinkFacts;

UplinkFacts good_uplink() {
    UplinkFacts uplink;
    uplink.interface = "gi1_1";
    uplink.configured_next_hop = "192.0.2.1";
    uplink.next_hop = "192.0.2.1";
    uplink.exists = uplink.is_up = uplink.has_carrier = uplink.is_next_hop_on_link = true;
    uplink.addresses = {"192.0.2.10"};
    uplink.neighbour = "REACHABLE";
    uplink.reverse_path_all = 0;
    uplink.reverse_path_own = 0;
    uplink.echo = Echo{.end = Echo::End::answered, .target = "203.0.113.53", .reason = ""};
    return uplink;
}

/// A router on which all is well.
LiveFacts good() {
    LiveFacts facts;
    facts.configuration = "/etc/lb.conf";
    facts.output_directory = "/run/lb";
    facts.is_root = true;
    facts.configured[4] = 1;
    lbcheck::NamespaceFacts space;
    space.uplinks.push_back(good_uplink());
    lbcheck::RouterFacts router;
    router.fragment_path = "/usr/etc/routing-wlb.conf";
    router.has_folder = router.has_fragment = router.is_running = true;
    router.pid_path = "/var/run/routing.pid";
    router.pid_text = "812";
    router.process = "lbroute";
    space.routers.push_back(router);
    space.tracked = 10;
    space.most_tracked = 1000;
    facts.namespaces.push_back(space);
    lbroute::ReportedNamespace routes;
    lbroute::ReportedRoute route;
    route.prefix = "0.0.0.0/0";
    route.state = "ok";
    lbroute::ReportedHop hop;
    hop.gateway = "192.0.2.1";
    hop.interface = "gi1_1";
    hop.state = "routed";
    route.hops.push_back(hop);
    routes.routes.push_back(route);
    routes.fragments.push_back({.path = router.fragment_path, .state = "read", .problems = {}});
    facts.routes.namespaces.push_back(routes);
    dumps::Family dumped;
    dumped.limit_s = 15;
    facts.dumps.families.push_back(dumped);
    dumps::Interface known;
    known.name = "gi1_1";
    known.nexthop = "192.0.2.1";
    known.nexthop_from = "configured";
    known.success_ct = known.failure_ct = 2;
    known.probes = {{.position = 1, .target = "203.0.113.53"},
                    {.position = 2, .target = "203.0.113.54"}};
    facts.namespaces[0].uplinks[0].expected = known;
    known.is_active = true;
    for (dumps::Probe& probe : known.probes) {
        probe.last_result = dumps::Result::answered;
        probe.success_run = 2;
    }
    facts.dumps.interfaces.push_back(known);
    facts.expected_rules = facts.dumps.rules = {{.number = 1, .members = {{"gi1_1", 4, 1}}}};
    facts.expected_routes = facts.dumps.routes = {{.rule_number = 1, .prefix = "0.0.0.0/0"}};
    facts.neighbour_least[0] = 128;
    facts.neighbour_most[0] = 1024;
    facts.units = {{.name = "lb", .active = "active", .enabled = "enabled"}};
    facts.rights = {{.path = "/run/lb", .use = "output", .mode = 0755},
                    {.path = "/run", .use = "output", .is_above = true, .mode = 01777}};
    return facts;
}

struct Row {
    const char* name;
    std::function<void(LiveFacts&)> breaks;
    const char* line;  ///< as it is printed
};

UplinkFacts& uplink(LiveFacts& facts) {
    return facts.namespaces[0].uplinks[0];
}
lbcheck::RouterFacts& router(LiveFacts& facts) {
    return facts.namespaces[0].routers[0];
}
lbroute::ReportedRoute& route(LiveFacts& facts) {
    return facts.routes.namespaces[0].routes[0];
}
dumps::Interface& dumped(LiveFacts& facts) {
    return facts.dumps.interfaces[0];
}
/// The daemon has seen losses enough of some of the targets, by their positions from 0.
void fail(LiveFacts& facts, const std::vector<std::size_t>& probes) {
    dumped(facts).is_active = false;
    for (const std::size_t at : probes) {
        dumps::Probe& probe = dumped(facts).probes[at];
        probe.last_result = dumps::Result::timed_out;
        probe.success_run = 0;
        probe.failure_run = 2;
    }
}
/// Another routing daemon has made this of the route.
void route_by_bird(LiveFacts& facts, const char* gateway, std::uint32_t priority = 0) {
    router(facts).process = "bird";
    router(facts).version = "BIRD version 1.6.8";
    router(facts).has_judged = true;
    lbroute::KernelRoute made;
    made.prefix = {.address = *lbroute::Address::parse("0.0.0.0", lbroute::Family::ipv4),
                   .length = 0};
    made.priority = priority;
    made.hops = {{.gateway = lbroute::Address::parse(gateway, lbroute::Family::ipv4), .link = 2}};
    facts.namespaces[0].routes.push_back(made);
}

const std::vector<Row> rows{
    {"missing_interface",
     [](LiveFacts& f) {
         uplink(f).exists = false;
         uplink(f).similar_interfaces = {"eth0", "eth1"};
     },
     "error   gi1_1 (IPv4): there is no such interface, but: eth0 eth1; mend: correct the name, or "
     "give the card this name by a .link file and restart"},
    {"down", [](LiveFacts& f) { uplink(f).is_up = false; },
     "error   gi1_1 (IPv4): it is down; mend: ip link set gi1_1 up"},
    {"down_in_a_namespace",
     [](LiveFacts& f) {
         f.namespaces[0].name = "blue";
         uplink(f).is_up = false;
     },
     "error   namespace blue: gi1_1 (IPv4): it is down; mend: ip netns exec blue ip link set gi1_1 "
     "up"},
    {"no_carrier", [](LiveFacts& f) { uplink(f).has_carrier = false; },
     "error   gi1_1 (IPv4): it has no carrier; mend: look at the cable and at the other end"},
    {"no_address", [](LiveFacts& f) { uplink(f).addresses.clear(); },
     "error   gi1_1 (IPv4): it has no address of the family; mend: ip address add ADDRESS/LENGTH "
     "dev gi1_1"},
    {"source_that_is_not_its_own",
     [](LiveFacts& f) {
         uplink(f).source_address = uplink(f).expected->source_address = dumped(f).source_address =
             "192.0.2.99";
     },
     "error   gi1_1 (IPv4): source_address 192.0.2.99 is on no interface whose name begins with "
     "gi1_1 or vrrp; mend: correct source_address, or: ip address add 192.0.2.99/LENGTH dev gi1_1"},
    {"ipv6_source_that_nobody_has",
     [](LiveFacts& f) {
         uplink(f).is_ipv6 = true;
         uplink(f).source_address = uplink(f).expected->source_address = dumped(f).source_address =
             "2001:DB8::9";
     },
     "warning gi1_1 (IPv6): source_address 2001:DB8::9 is on no interface: nobody takes the "
     "answers "
     "to it; mend: correct source_address, or: ip address add 2001:DB8::9/LENGTH dev gi1_1"},
    {"strict_reverse_path_check", [](LiveFacts& f) { uplink(f).reverse_path_all = 1; },
     "error   gi1_1 (IPv4): the reverse-path check drops the answers while no route leads through "
     "it (rp_filter 1); mend: sysctl -w net.ipv4.conf.all.rp_filter=0 "
     "net.ipv4.conf.gi1_1.rp_filter=0"},
    {"loose_reverse_path_check_is_the_larger_one",
     [](LiveFacts& f) {
         uplink(f).interface = "gi1_1.100";
         uplink(f).reverse_path_all = 1;
         uplink(f).reverse_path_own = 2;
     },
     "warning gi1_1.100 (IPv4): the reverse-path check drops the answers while no route leads to "
     "the target at all (rp_filter 2); mend: sysctl -w net.ipv4.conf.all.rp_filter=0 "
     "net.ipv4.conf.gi1_1/100.rp_filter=0"},
    {"unreadable_reverse_path_check", [](LiveFacts& f) { uplink(f).reverse_path_own.reset(); },
     "unknown gi1_1 (IPv4): its reverse-path check cannot be read"},
    {"tunnel_without_a_peer",
     [](LiveFacts& f) {
         uplink(f).configured_next_hop = "tunnel";
         uplink(f).next_hop.clear();
     },
     "error   gi1_1 (IPv4): no next hop is known (nexthop tunnel); mend: ip address add OWN peer "
     "FAR "
     "dev gi1_1"},
    {"lease_that_is_over",
     [](LiveFacts& f) {
         uplink(f).lease = lbcheck::Lease{
             .path = "/var/db/L", .error = "", .router = "192.0.2.1", .ended_for_s = 90};
     },
     "warning gi1_1 (IPv4): /var/db/L tells the router 192.0.2.1, but its lease ended 90 s ago: "
     "the "
     "DHCP client does not renew it; mend: start the DHCP client of gi1_1"},
    {"bird_that_writes_what_lbroute_translates",
     [](LiveFacts& f) {
         f.routes.is_running = true;
         f.routes.daemon.bird2_file = "/etc/bird/lbroute.conf";
     },
     "unknown routes: bird writes them from /etc/bird/lbroute.conf; mend: birdc show route "
     "protocol "
     "lbroute4, and lbroute6"},
    {"echo_that_was_not_asked_for",
     [](LiveFacts& f) {
         uplink(f).echo.reset();
         f.namespaces[0].echo_problem = "no socket for it: Operation not permitted";
     },
     "unknown gi1_1 (IPv4): no probe could be sent: no socket for it: Operation not permitted; "
     "mend: run it as root"},
    {"silent_next_hop",
     [](LiveFacts& f) {
         uplink(f).echo->end = Echo::End::not_sent;
         uplink(f).neighbour = "FAILED";
     },
     "error   gi1_1 (IPv4): next hop 192.0.2.1 does not answer ARP requests; mend: correct "
     "nexthop, "
     "or look at the provider's gateway: ip neigh show dev gi1_1"},
    {"answer_dropped_by_the_reverse_path_check",
     [](LiveFacts& f) {
         uplink(f).echo->end = Echo::End::not_delivered;
         uplink(f).echo->reverse_path_drops = 2;
     },
     "error   gi1_1 (IPv4): the answer of 203.0.113.53 comes in, and is lost within this machine: "
     "the reverse-path check drops it; mend: sysctl -w net.ipv4.conf.all.rp_filter=0 "
     "net.ipv4.conf.gi1_1.rp_filter=0"},
    {"full_connection_tracking", [](LiveFacts& f) { f.namespaces[0].tracked = 1000; },
     "error   connection tracking: 1000 of 1000 entries are in use: no room for the probes of 1 "
     "uplinks; mend: sysctl -w net.netfilter.nf_conntrack_max=2002"},
    {"nearly_full_connection_tracking", [](LiveFacts& f) { f.namespaces[0].tracked = 900; },
     "warning connection tracking: 900 of 1000 entries are in use; mend: sysctl -w "
     "net.netfilter.nf_conntrack_max=2000"},
    {"no_connection_tracking", [](LiveFacts& f) { f.namespaces[0].tracked.reset(); },
     "unknown connection tracking: its table cannot be read (nf_conntrack is not there); mend: "
     "modprobe nf_conntrack_netlink"},
    {"more_uplinks_than_neighbours_are_kept", [](LiveFacts& f) { f.configured[4] = 128; },
     "warning neighbours of IPv4: the kernel forgets idle ones from 128 on, and there are 128 "
     "uplinks: each costs a probe; mend: sysctl -w net.ipv4.neigh.default.gc_thresh1=4096 "
     "net.ipv4.neigh.default.gc_thresh2=8192 net.ipv4.neigh.default.gc_thresh3=16384"},
    {"more_uplinks_than_neighbours_are_possible", [](LiveFacts& f) { f.configured[4] = 1024; },
     "error   neighbours of IPv4: the kernel keeps 1024 at most, and there are 1024 uplinks; mend: "
     "sysctl -w net.ipv4.neigh.default.gc_thresh1=4096 net.ipv4.neigh.default.gc_thresh2=8192 "
     "net.ipv4.neigh.default.gc_thresh3=16384"},
    {"dead_daemon",
     [](LiveFacts& f) {
         f.dumps.families[0].is_stale = true;
         f.dumps.families[0].age_s = 27;
     },
     "error   dumps of IPv4: they were written 27 s ago: the daemon does not run, or hangs; mend: "
     "systemctl restart lb"},
    {"clock_set_back",
     [](LiveFacts& f) {
         f.dumps.families[0].is_stale = true;
         f.dumps.families[0].age_s = -3600;
     },
     "error   dumps of IPv4: they are from the future: the clock was set back, and the daemon has "
     "not written since; mend: systemctl restart lb"},
    {"ghosts",
     [](LiveFacts& f) {
         f.dumps.families.push_back({.family = 6, .age_s = 600, .limit_s = 15, .is_stale = true});
     },
     "warning dumps of IPv6: they are of an earlier configuration, which had the family; mend: rm "
     "/run/lb/wlb_dump/wlb_ipv6_outbounds.bin"},
    {"daemon_with_another_configuration",
     [](LiveFacts& f) { f.dumps.families.push_back({.family = 6, .limit_s = 15}); },
     "warning dumps of IPv6: the daemon runs with another configuration, which has the family; "
     "mend: systemctl restart lb"},
    {"uplink_held_for_failed",
     [](LiveFacts& f) {
         fail(f, {0, 1});
     },
     "error   gi1_1 (IPv4): the daemon holds it for failed: no answer of 203.0.113.53, no answer "
     "of 203.0.113.54; mend: ping -I gi1_1 203.0.113.53; where it answers there: systemctl restart "
     "lb, else give a target that answers"},
    {"uplink_held_for_failed_for_one_of_all_targets",
     [](LiveFacts& f) {
         f.namespaces[0].name = f.routes.namespaces[0].name = "blue";
         uplink(f).needs_all_targets = true;
         fail(f, {1});
     },
     "error   namespace blue: gi1_1 (IPv4): the daemon holds it for failed: no answer of "
     "203.0.113.54; mend: ip netns exec blue ping -I gi1_1 203.0.113.54; where it answers there: "
     "systemctl restart lb, else give a target that answers"},
    {"uplink_held_for_failed_for_a_limit",
     [](LiveFacts& f) {
         fail(f, {0, 1});
         const dumps::Quality limits{.loss_limit = 10, .rtt_limit = 50, .jitter_limit = 20};
         uplink(f).expected->probes[0].quality = dumped(f).probes[0].quality = limits;
         dumped(f).probes[0].quality->rtt_ms = 50;
         uplink(f).expected->probes.pop_back();
         dumped(f).probes.pop_back();
     },
     "error   gi1_1 (IPv4): the daemon holds it for failed: 203.0.113.53 is beyond a limit of its "
     "ping_ext; mend: lbshow interfaces gi1_1 tells what was measured: correct the limits, or ask "
     "the provider"},
    {"uplink_of_which_one_target_answers_again", [](LiveFacts& f) { fail(f, {1}); },
     "unknown gi1_1 (IPv4): the daemon has not found it active yet; mend: look again after some "
     "seconds; where it stays so: lbshow interfaces gi1_1"},
    {"uplink_whose_losses_are_too_few_for_a_verdict",
     [](LiveFacts& f) {
         fail(f, {0, 1});
         dumped(f).probes[0].failure_run = 1;
     },
     "unknown gi1_1 (IPv4): the daemon has not found it active yet; mend: look again after some "
     "seconds; where it stays so: lbshow interfaces gi1_1"},
    {"uplink_that_the_daemon_has_just_begun_with",
     [](LiveFacts& f) { dumped(f) = *uplink(f).expected; },
     "unknown gi1_1 (IPv4): the daemon has not found it active yet; mend: look again after some "
     "seconds; where it stays so: lbshow interfaces gi1_1"},
    {"uplink_that_the_daemon_does_not_know", [](LiveFacts& f) { f.dumps.interfaces.clear(); },
     "error   gi1_1 (IPv4): the daemon runs with another configuration, which has no such uplink; "
     "mend: systemctl restart lb"},
    {"uplink_with_another_next_hop", [](LiveFacts& f) { dumped(f).nexthop = "192.0.2.2"; },
     "warning gi1_1 (IPv4): the daemon runs with another configuration of it; mend: systemctl "
     "restart lb"},
    {"uplink_with_another_target",
     [](LiveFacts& f) { dumped(f).probes[1].target = "203.0.113.99"; },
     "warning gi1_1 (IPv4): the daemon runs with another configuration of it; mend: systemctl "
     "restart lb"},
    {"rules_of_an_earlier_configuration",
     [](LiveFacts& f) { f.dumps.rules[0].members[0].weight = 7; },
     "warning rules: the daemon runs with other rules than the configuration has; mend: systemctl "
     "restart lb"},
    {"destination_that_the_daemon_does_not_know", [](LiveFacts& f) { f.dumps.routes.clear(); },
     "warning rules: the daemon runs with other rules than the configuration has; mend: systemctl "
     "restart lb"},
    {"fragment_without_a_route", [](LiveFacts& f) { f.routes.namespaces[0].routes.clear(); },
     "warning routes: /usr/etc/routing-wlb.conf holds no route: no uplink of a rule is active; "
     "mend: lbshow interfaces"},
    {"no_dumps_yet",
     [](LiveFacts& f) { f.dumps_problem = "/run/lb/wlb_dump: No such file or directory"; },
     "unknown dumps: /run/lb/wlb_dump: No such file or directory; mend: systemctl enable --now lb, "
     "where it does not run yet"},
    {"unit_that_failed", [](LiveFacts& f) { f.units[0].active = "failed"; },
     "error   service lb: it has failed; mend: journalctl -u lb, then systemctl restart lb"},
    {"unit_that_is_not_enabled", [](LiveFacts& f) { f.units[0].enabled = "disabled"; },
     "warning service lb: it is active, but not at the next start; mend: systemctl enable lb"},
    {"no_routing_daemon", [](LiveFacts& f) { router(f).pid_text.clear(); },
     "error   routing daemon of IPv4: there is none: /var/run/routing.pid names no process, and "
     "nobody is told of new routes; mend: systemctl enable --now lbroute, or have another one "
     "write its number there"},
    {"bird_that_refuses",
     [](LiveFacts& f) {
         route_by_bird(f, "192.0.2.1");
         router(f).refusal = "line 4, syntax error";
     },
     "error   routing daemon of IPv4: /var/run/routing.pid names process 812 (bird), which refuses "
     "its configuration with the fragment in it: line 4, syntax error; mend: correct what it names "
     "in the configuration of lb (lbcheck finds it), or let lbroute route"},
    {"bird_that_may_not_be_asked",
     [](LiveFacts& f) {
         route_by_bird(f, "192.0.2.1");
         router(f).version.clear();
         router(f).has_judged = false;
         f.is_root = false;
     },
     "unknown routing daemon of IPv4: /var/run/routing.pid names process 812 (bird), which could "
     "not be asked whether it takes the fragment; mend: run it as root"},
    {"bird_that_hangs_when_it_is_asked",
     [](LiveFacts& f) {
         route_by_bird(f, "192.0.2.1");
         router(f).has_judged = false;
     },
     "unknown routing daemon of IPv4: /var/run/routing.pid names process 812 (bird), which could "
     "not be asked whether it takes the fragment; mend: look into its log: bird -p, with its own "
     "-c, says what it refuses"},
    {"bird_of_the_other_family",
     [](LiveFacts& f) {
         route_by_bird(f, "192.0.2.1");
         router(f).process = "bird6";
     },
     "error   routing daemon of IPv4: /var/run/routing.pid names process 812 (bird6), which is of "
     "the other family; mend: write the number of bird there"},
    {"bird_that_cannot_read_fragments",
     [](LiveFacts& f) {
         route_by_bird(f, "192.0.2.1");
         router(f).version = "BIRD version 2.0.12";
     },
     "error   routing daemon of IPv4: /var/run/routing.pid names process 812 (bird), BIRD version "
     "2.0.12, which cannot read fragments; mend: let lbroute translate: lbroute --bird2 FILE"},
    {"route_that_bird_did_not_make",
     [](LiveFacts& f) {
         route_by_bird(f, "192.0.2.1");
         f.namespaces[0].routes.clear();
     },
     "error   route 0.0.0.0/0 (IPv4): the kernel has none: the routing daemon did not take it "
     "over; mend: look into the routing daemon's log, and have it read its configuration anew"},
    {"route_that_bird_made_otherwise", [](LiveFacts& f) { route_by_bird(f, "192.0.2.99"); },
     "error   route 0.0.0.0/0 (IPv4): the kernel routes it otherwise than the fragment asks; mend: "
     "look into the routing daemon's log, and have it read its configuration anew"},
    {"route_that_shadows_that_of_bird",
     [](LiveFacts& f) {
         route_by_bird(f, "192.0.2.1", 100);
         route_by_bird(f, "192.0.2.99", 50);
     },
     "error   route 0.0.0.0/0 (IPv4): a route of others with a lower metric is used instead; mend: "
     "ip route del 0.0.0.0/0 metric 50"},
    {"route_that_shadows_that_of_lbroute",
     [](LiveFacts& f) {
         route(f).state = "shadowed";
         route(f).shadowed_by = {"ip route del default via 192.0.2.99"};
     },
     "error   route 0.0.0.0/0 (IPv4): a route of others with a lower metric, or the same, is used "
     "instead; mend: ip route del default via 192.0.2.99"},
    {"folder_of_all", [](LiveFacts& f) { f.rights[0].mode = 01777; },
     "error   /run/lb: every user may write there and so may decide over routes (output); mend: "
     "chmod go-w /run/lb"},
    {"folder_of_a_group", [](LiveFacts& f) { f.rights[0].mode = 0775, f.rights[0].group = 50; },
     "warning /run/lb: group 50 may write there and so may decide over routes (output); mend: "
     "chmod go-w /run/lb"},
    {"configuration_of_a_user",
     [](LiveFacts& f) {
         f.configuration = "/home/admin/lb.conf";
         f.rights.push_back(
             {.path = "/home/admin", .use = "configuration", .owner = 1000, .mode = 0700});
     },
     "warning /home/admin: it belongs to user 1000, who so may decide over routes (configuration); "
     "mend: install -m 644 /home/admin/lb.conf /etc/lb.conf"},
    {"folder_of_a_user", [](LiveFacts& f) { f.rights[0].owner = 1000; },
     "warning /run/lb: it belongs to user 1000, who so may decide over routes (output); mend: "
     "chown root:root /run/lb"},
    {"folder_of_a_user_and_all",
     [](LiveFacts& f) { f.rights[0].owner = 1000, f.rights[0].mode = 0777; },
     "error   /run/lb: it belongs to user 1000, who so may decide over routes (output); mend: "
     "chown root:root /run/lb && chmod go-w /run/lb"},
    {"folder_above_in_which_all_may_rename", [](LiveFacts& f) { f.rights[1].mode = 0777; },
     "error   /run: every user may write there and so may decide over routes (output); mend: "
     "chmod go-w /run"},
    {"missing_namespace",
     [](LiveFacts& f) {
         f.namespaces.push_back(
             {.name = "blue", .problem = lbcheck::no_such_namespace, .echo_problem = ""});
     },
     "error   namespace blue: there is no such namespace; mend: ip netns add blue"},
};

TEST(Live, router_on_which_all_is_well) {
    const auto findings = lbcheck::judge_live(good());
    EXPECT_EQ(lbcheck::live_exit_status(findings, true), 0) << lbcheck::live_text(findings);
    EXPECT_NE(lbcheck::live_text(findings).find("0 errors, 0 warnings, 0 not looked at, 11 ok\n"),
              std::string::npos)
        << lbcheck::live_text(findings);
}

TEST(Live, group_of_root_and_a_folder_above_that_keeps_files_of_others_are_well) {
    LiveFacts facts = good();
    facts.rights[0].mode = 0775;
    EXPECT_EQ(lbcheck::live_exit_status(lbcheck::judge_live(facts), true), 0);
}

TEST(Live, what_the_daemon_learns_is_no_other_configuration) {
    LiveFacts facts = good();
    for (dumps::Interface* one : {&*uplink(facts).expected, &dumped(facts)}) {
        one->family = 6;
        one->nexthop_from = "dhcp";
    }
    facts.dumps.families[0].family = 6;
    facts.configured = {{6, 1}};
    uplink(facts).expected->nexthop = uplink(facts).expected->probes[0].target = "fe80::77";
    dumped(facts).source_address = "fe80::1";
    EXPECT_TRUE(lbcheck::are_of_this_configuration(facts));
    dumped(facts).failure_ct = 9;
    EXPECT_FALSE(lbcheck::are_of_this_configuration(facts));
}

TEST(Live, a_cause_that_was_found_is_not_told_again_as_the_daemons_verdict) {
    LiveFacts facts = good();
    fail(facts, {0, 1});
    uplink(facts).is_up = false;
    const std::string text = lbcheck::live_text(lbcheck::judge_live(facts));
    EXPECT_NE(text.find("it is down"), std::string::npos) << text;
    EXPECT_EQ(text.find("holds it for failed"), std::string::npos) << text;
}

TEST(Live, source_that_the_daemon_finds_elsewhere_or_does_not_use_is_well) {
    for (const bool is_tunnel : {false, true}) {
        LiveFacts facts = good();
        uplink(facts).source_address = uplink(facts).expected->source_address =
            dumped(facts).source_address = "192.0.2.77";
        uplink(facts).is_source_found = !is_tunnel;
        uplink(facts).is_tunnel = is_tunnel;
        const auto findings = lbcheck::judge_live(facts);
        EXPECT_EQ(lbcheck::live_exit_status(findings, true), 0) << lbcheck::live_text(findings);
    }
}

TEST(Live, stale_dumps_tell_nothing_of_uplinks_and_rules) {
    LiveFacts facts = good();
    fail(facts, {0, 1});
    facts.dumps.families[0].is_stale = true;
    facts.dumps.families[0].age_s = 27;
    facts.dumps.rules.clear();
    const std::string text = lbcheck::live_text(lbcheck::judge_live(facts));
    EXPECT_EQ(text.find("the daemon holds it"), std::string::npos) << text;
    EXPECT_EQ(text.find("the daemon runs with"), std::string::npos) << text;
    EXPECT_TRUE(lbcheck::are_of_this_configuration(facts));
}

TEST(Live, each_failure_is_told_with_its_mend) {
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        LiveFacts facts = good();
        row.breaks(facts);
        const auto findings = lbcheck::judge_live(facts);
        const std::string text = "\n" + lbcheck::live_text(findings);
        EXPECT_NE(text.find(std::string("\n") + row.line + "\n"), std::string::npos) << text;
        const bool is_error = std::string(row.line).starts_with("error");
        EXPECT_EQ(lbcheck::live_exit_status(findings, true), is_error ? 2 : 1);
    }
}

// Such a counter passes what a 32-bit machine's long holds within days of a flood.
TEST(ReversePathDrops, are_counted_beyond_31_and_32_bits) {
    const auto drops = [](const std::string& count) {
        std::istringstream netstat(
            "TcpExt: SyncookiesSent IPReversePathFilter TW\n"
            "TcpExt: 5 " +
            count +
            " 7\n"
            "IpExt: InNoRoutes\n"
            "IpExt: 3\n");
        return reverse_path_drops_in(netstat);
    };
    EXPECT_EQ(drops("2"), 2U);
    EXPECT_EQ(drops("2147483648"), 2147483648U);
    EXPECT_EQ(drops("9007199254740993"), 9007199254740993U);
}

TEST(ReversePathDrops, kernel_without_the_counter_dropped_none) {
    std::istringstream netstat("IpExt: InNoRoutes\nIpExt: 3\n");
    EXPECT_EQ(reverse_path_drops_in(netstat), 0U);
}

TEST(Lease, ends_with_the_last_one_of_the_database) {
    EXPECT_EQ(lbcheck::end_of_lease("lease {\n  expire 6 2026/11/21 18:00:00;\n}\n"
                                    "lease {\n  expire 0 2026/11/22 18:00:01;\n}\n"),
              1795370401);
    EXPECT_EQ(lbcheck::end_of_lease("  expire epoch 1795284000; # Sat\n"), 1795284000);
    EXPECT_EQ(lbcheck::end_of_lease("expire 6 2026/11/21 18:00:00;\nexpire never;\n"),
              std::nullopt);
    EXPECT_EQ(lbcheck::end_of_lease("  option routers 192.0.2.1;\n"), std::nullopt);
    EXPECT_EQ(lbcheck::end_of_lease("expire"), std::nullopt);
}

TEST(Live, what_was_not_looked_at_counts_only_when_strict) {
    const std::vector<lbcheck::LiveFinding> unknown{
        {lbcheck::State::unknown, "dumps", "not there", ""}};
    EXPECT_EQ(lbcheck::live_exit_status(unknown, false), 0);
    EXPECT_EQ(lbcheck::live_exit_status(unknown, true), 1);
    EXPECT_EQ(lbcheck::live_text(unknown),
              "unknown dumps: not there\n0 errors, 0 warnings, 1 not looked at, 0 ok\n");
}

TEST(Live, json_holds_the_file_and_the_router) {
    const std::string text = lbcheck::live_json(
        "F", {}, {{lbcheck::State::error, "gi1_1 (IPv4)", "it is down", "ip link set gi1_1 up"}});
    EXPECT_NE(text.find("\"findings\": []"), std::string::npos);
    EXPECT_NE(text.find("\"live\": [\n    {\n      \"state\": \"error\",\n      \"place\": \"gi1_1 "
                        "(IPv4)\",\n      \"text\": \"it is down\",\n      \"mend\": \"ip link set "
                        "gi1_1 up\"\n    }\n  ]"),
              std::string::npos)
        << text;
}

TEST(Live, texts_of_others_reach_no_terminal_as_they_are) {
    LiveFacts facts = good();
    router(facts).process = "bird\033[2J";
    EXPECT_EQ(lbcheck::live_text(lbcheck::judge_live(facts)).find('\033'), std::string::npos);
}

}  // namespace

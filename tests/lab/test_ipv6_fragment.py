"""The IPv6 fragment for the routing daemon and who is told about it.

    router                                          far
      gi1_1 2001:db8::10/64, 192.0.2.10/24 --------- scripted peer 2001:db8::1:2:3, 192.0.2.1
      gi1_2 2001:db8:2::10/64 ---------------------- scripted peer 2001:db8:2::1
"""
import os

from kit import expect, main
from kit import echo_policies as policy
from kit.system_log import DEBUG
from scenes import ACTIVE, GATEWAY, ROUTER, one_uplink
from scenes6 import (GATEWAY6, PREFIX6, ROUTER6, TARGET6, VIA_6, VIA_6_2, VIA_BOTH6, Ipv6Test,
                     attach_two6, fragment6, one_uplink6, two_uplinks6)

NO_PID = "LBDecision::run() can't execute 'cat {}'"

EXAMPLE = """\
protocol static {
route 2001:db8:a::/48 multipath via 2001:db8::1:2:3 weight 1 metric 20;
route ::/0 multipath via 2001:db8::1:2:3 weight 1;
};
"""


class Text(Ipv6Test):
    def fragment(self):
        return self.lab.fragment(ipv6=True)

    def test_routes_come_out_byte_for_byte_without_a_link_check(self):
        self.attach()
        self.lab.start(one_uplink6(targets={"::/0": None, "2001:db8:a::/48": 20}))
        expect(lambda: self.fragment() == EXAMPLE)

    def test_weights_share_a_prefix_over_the_healthy_uplinks(self):
        one, two = attach_two6(self.lab)
        self.lab.start(two_uplinks6())
        expect(lambda: self.fragment() == fragment6(VIA_BOTH6))
        two.echo = policy.silence
        expect(lambda: self.fragment() == fragment6(VIA_6))
        one.echo, two.echo = policy.silence, policy.answer
        expect(lambda: self.fragment() == fragment6(VIA_6_2))

    def test_failover_takes_the_heaviest_healthy_uplink(self):
        _, two = attach_two6(self.lab)
        self.lab.start(two_uplinks6(failover=True))
        expect(lambda: self.fragment() == fragment6(VIA_6_2))
        two.echo = policy.silence
        expect(lambda: self.fragment() == fragment6(VIA_6))

    def test_link_local_next_hop_is_routed_as_configured(self):
        self.attach().addresses.add("fe80::77")
        self.lab.start(one_uplink6(nexthop="fe80::77"))
        expect(lambda: self.fragment() == fragment6(
            f"route {PREFIX6} multipath via fe80::77 weight 1;"))

    def test_member_of_the_other_family_is_no_member(self):
        self.attach(address=ROUTER + "/24", gateway=GATEWAY, known=True)
        conf = one_uplink6(conf=one_uplink())
        conf.rule("2_ipv6", {"gi1_1": 7}, {"2001:db8:b::/48": None})
        self.lab.start(conf)
        expect(lambda: self.fragment() == fragment6(VIA_6))
        expect(self.logged(ACTIVE))
        self.lab.cycles.never(lambda: self.fragment() != fragment6(VIA_6), cycles=2)


    def test_members_decide_the_family_of_a_rules_routes(self):
        self.attach()
        self.lab.start(one_uplink6().rule("2_ipv4", interfaces6={"gi1_1": 7},
                                          targets={"198.18.8.0/24": None}))
        expect(lambda: self.fragment() == fragment6(
            VIA_6, f"route 198.18.8.0/24 multipath via {GATEWAY6} weight 7;"))
        self.assertIsNone(self.lab.fragment())


class Notice(Ipv6Test):
    def test_only_the_routing_daemon_of_the_family_is_signalled(self):
        self.attach()
        ipv4, ipv6 = self.lab.routing_daemon(), self.lab.routing_daemon(ipv6=True)
        daemon = self.lab.start(one_uplink6())
        hup = expect(ipv6.hups)[0]
        self.assertEqual((hup["fragment"], hup["sender"]), (fragment6(VIA_6), daemon.pid))
        self.lab.cycles.never(ipv4.hups, cycles=1)

    def test_outage_of_one_family_signals_the_other_daemon_nothing(self):
        peer = self.attach(address=ROUTER + "/24", gateway=GATEWAY, known=True)
        ipv4, ipv6 = self.lab.routing_daemon(), self.lab.routing_daemon(ipv6=True)
        self.lab.start(one_uplink6(conf=one_uplink()))
        expect(lambda: ipv4.hups() and ipv6.hups())
        peer.echo = lambda request, number: [] if request.destination == TARGET6 else [
            (0.0, request.reply())]
        expect(lambda: ipv6.fragments()[-1:] == [fragment6()])
        self.assertEqual(len(ipv4.hups()), 1)

    def test_route_cache_of_the_family_is_flushed_after_the_signal(self):
        self.attach()
        self.lab.routing_daemon(ipv6=True)
        commands = os.path.join(self.folder, "commands")
        os.mkdir("/run/bin")
        with open("/run/bin/ip", "w", encoding="ascii") as script:
            script.write(f'#!/bin/sh\necho "$@" >> {commands}\n')
        os.chmod("/run/bin/ip", 0o755)
        self.lab.start(one_uplink6(), environment={"PATH": "/run/bin:" + os.environ["PATH"]})
        expect(lambda: os.path.exists(commands) and os.path.getsize(commands))
        with open(commands, encoding="ascii") as file:
            self.assertEqual(file.read(), "-6 route flush cache\n")

    def test_without_a_pid_file_there_is_a_debug_line(self):
        self.attach()
        self.lab.start(one_uplink6())
        text = NO_PID.format("/var/run/routing6.pid")
        lines = expect(lambda: [line for line in self.lab.log.lines() if line.text == text])
        self.assertEqual(lines[0].severity, DEBUG)
        self.assertEqual(self.lab.fragment(ipv6=True), fragment6(VIA_6))

    def test_namespace_has_a_fragment_and_a_pid_file_of_its_own(self):
        blue = self.lab.namespace("blue")
        self.lab.uplink("gi1_1", address6=ROUTER6 + "/64", gateway6=GATEWAY6, namespace=blue)
        self.lab.start(one_uplink6(namespace="blue"))
        expect(self.logged(NO_PID.format("/var/vrfs/blue/usr/var/run/routing6.pid")))
        self.assertEqual(self.lab.fragment("blue", ipv6=True), fragment6(VIA_6))
        self.assertIsNone(self.lab.fragment(ipv6=True))


if __name__ == "__main__":
    main()

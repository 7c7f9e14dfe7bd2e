"""The stage of the tests of faults: two uplinks of both families that share all traffic.

    router                                          far
      gi1_1 192.0.2.10/24, 2001:db8::10/64 --------- peer 192.0.2.1, 2001:db8::1:2:3
      gi1_2 203.0.113.10/24, 2001:db8:2::10/64 ----- peer 203.0.113.1, 2001:db8:2::1

Faults happen to the first. The second's state is never in doubt, and the cycles keep their pace.
"""
import contextlib
import socket

import golden
from kit import Conf, LabTest, expect, ping
from kit import echo_policies as policy
from kit.lab import OUTPUT_DIRECTORY
from scenes import (GATEWAY, GATEWAY_2, INACTIVE_2, PREFIX, ROUTER, ROUTER_2, TARGET, TARGET_2, VIA_1,
                    VIA_2, VIA_BOTH, fragment)
from scenes6 import (GATEWAY6, GATEWAY6_2, PREFIX6, ROUTER6, ROUTER6_2, TARGET6, TARGET6_2, VIA_6,
                     VIA_6_2, VIA_BOTH6, changed6, fragment6)

INACTIVE6_2 = changed6("inactive", "gigabitethernet 1/0/2")

BOTH = (fragment(VIA_BOTH), fragment6(VIA_BOTH6))
FIRST_ALONE = (fragment(VIA_1), fragment6(VIA_6))
SECOND_ALONE = (fragment(VIA_2), fragment6(VIA_6_2))
SECOND_ALONE_IN_IPV4 = (fragment(VIA_2), fragment6(VIA_BOTH6))
SECOND_ALONE_IN_IPV6 = (fragment(VIA_BOTH), fragment6(VIA_6_2))

RESPONSE_TIME_MS = 900  # less than a cycle, and enough for a busy machine
# After a fault: a probe that could not leave is in flight until it is given up; the next asks for
# the neighbour; the one after that leaves, and its answer is collected a cycle later.
CYCLES_TO_RECOVER = 8
CALM_CYCLES = 4


def dual_stack(first_source=None, first_probe=None, resp_time=RESPONSE_TIME_MS):
    """The configuration. The first uplink's IPv4 side may have a source and a probe of its own."""
    conf = Conf()
    for name, ipv6, nexthop, source, probe in (
            ("gi1_1", False, GATEWAY, first_source, first_probe or ping(TARGET, resp_time)),
            ("gi1_2", False, GATEWAY_2, None, ping(TARGET_2, resp_time)),
            ("gi1_1", True, GATEWAY6, ROUTER6, ping(TARGET6, resp_time)),
            ("gi1_2", True, GATEWAY6_2, ROUTER6_2, ping(TARGET6_2, resp_time))):
        conf.interface(name, nexthop=nexthop, source=source, ipv6=ipv6, probes=[probe])
    weights = {"gi1_1": 1, "gi1_2": 3}
    return (conf.rule("1_ipv4", weights, {PREFIX: None})
            .rule("1_ipv6", interfaces6=weights, targets={PREFIX6: None}))


class FaultTest(LabTest):
    """setUp ends with the daemon running and the routes in place: over both uplinks, unless told."""

    conf = dual_stack()
    second_echo = staticmethod(policy.answer)
    right_routes = BOTH

    def setUp(self):
        super().setUp()
        self.peer = self.attach_first()
        second = self.lab.uplink("gi1_2", ROUTER_2 + "/24", GATEWAY_2, address6=ROUTER6_2 + "/64",
                                 gateway6=GATEWAY6_2)
        second.echo = self.second_echo
        self.alive = self.lab.keep_alives
        self.daemon = self.lab.start(self.conf)
        self.expect_routes(self.right_routes)

    def attach_first(self):
        """Makes the first uplink; every time with another index and other hardware addresses."""
        peer = self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY, address6=ROUTER6 + "/64",
                               gateway6=GATEWAY6)
        self.near, self.far = (mac.replace(":", "") for mac in self.lab.macs())
        return peer

    def calm_cycles(self):
        """How many cycles have ended without a fault: enough to hold the later ones against."""
        expect(lambda: self.alive.cycles() >= CALM_CYCLES)
        return self.alive.cycles()

    # What the operator sees.

    def routes(self):
        return self.lab.fragment(), self.lab.fragment(ipv6=True)

    def expect_routes(self, routes):
        expect(lambda: self.routes() == routes, within=30,
               what=f"the fragments become {routes}, they were {self.routes()}")

    def expect_logged(self, *texts):
        expect(lambda: set(texts) <= set(self.lab.log.texts()), within=30, what=f"logged: {texts}")

    @staticmethod
    def reported(ipv6=False):
        """State by interface, from the status report; a report that is being written lacks some."""
        with open(f"{OUTPUT_DIRECTORY}/wlb_ipv{6 if ipv6 else 4}.out", encoding="utf-8") as file:
            words = file.read().split()
        names = [words[i + 1] for i, word in enumerate(words) if word == "Interface:"]
        states = [words[i + 1] for i, word in enumerate(words) if word == "Status:"]
        return dict(zip(names, states))

    def expect_report(self, first, ipv6=False):
        expect(lambda: self.reported(ipv6) == {"gi1_1": first, "gi1_2": "active"}, within=30,
               what=f"the report of IPv{6 if ipv6 else 4} says {first}")

    def expect_reports(self, first):
        self.expect_report(first)
        self.expect_report(first, ipv6=True)

    # What is right.

    def expect_all_right(self):
        """From the end of a fault on: verdicts and routes within a few cycles, then right bytes."""
        self.expect_right_routes_soon()
        self.expect_probes_with_right_bytes()

    def expect_right_routes_soon(self):
        self.lab.cycles.expect(lambda: self.routes() == self.right_routes, CYCLES_TO_RECOVER,
                               "the routes are right again")
        self.assertEqual(self.count(INACTIVE_2, INACTIVE6_2), [1, 1])  # from the start

    def expect_probes_with_right_bytes(self):
        # A pass that was under way when the fault ended goes on with what it was told at its begin.
        self.lab.cycles.pass_by(2)
        identifier = self.daemon.pid & 0xFFFF
        for target, layout in ((TARGET, golden.echo), (TARGET6, golden.echo6)):
            before = len(self.peer.echo_frames(target))
            frame = expect(lambda t=target, b=before: self.peer.echo_frames(t)[b:], within=30)[0]
            self.assertEqual(frame.data.hex(), layout(self.near, self.far, identifier,
                                                      frame.message.packet_id))

    def count(self, *texts):
        """How often each of these lines was logged."""
        return [self.lab.log.count(text) for text in texts]

    def carry_traffic(self):
        """The router's own: a datagram to each next hop, for which the kernel finds the neighbour."""
        for family, address in ((socket.AF_INET, GATEWAY), (socket.AF_INET6, GATEWAY6)):
            with (self.lab.router.socket(family, socket.SOCK_DGRAM) as sender,
                  contextlib.suppress(OSError)):  # while the kernel has no route there is no traffic
                sender.sendto(b"", (address, 9))

    def expect_right_routes_under_traffic(self):
        expect(lambda: self.carry_traffic() or self.routes() == self.right_routes, within=30,
               what="traffic of the router brings the routes back")

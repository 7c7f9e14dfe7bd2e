"""Faults of a namespace, the daemon running throughout.

    router (default)                                far
      gi1_1 192.0.2.10/24, 2001:db8::10/64 --------- scripted peer 192.0.2.1, 2001:db8::1:2:3
    router, namespace blue
      gi1_2 192.0.2.10/24, 2001:db8::10/64 --------- scripted peer 192.0.2.1, 2001:db8::1:2:3
"""
import os
import subprocess

from kit import Conf, LabTest, expect, main, ping
from kit import echo_policies as policy
from kit.netns import Namespace
from scenes import (ACTIVE, ACTIVE_2, GATEWAY, INACTIVE, INACTIVE_2, PREFIX, ROUTER, TARGET, VIA_1, error,
                    fragment)
from scenes6 import (ACTIVE6, GATEWAY6, INACTIVE6, PREFIX6, ROUTER6, TARGET6, VIA_6, changed6, fragment6)

RESPONSE_TIME_MS = 900
CALM_CYCLES = 4
UP = (fragment(VIA_1), fragment6(VIA_6))
DOWN = (fragment(), fragment6())
ACTIVE6_2, INACTIVE6_2 = (changed6(state, "gigabitethernet 1/0/2") for state in ("active", "inactive"))


def both_namespaces():
    conf = Conf()
    for number, name, namespace in ((1, "gi1_1", ""), (2, "gi1_2", "blue")):
        conf.interface(name, nexthop=GATEWAY, namespace=namespace,
                       probes=[ping(TARGET, RESPONSE_TIME_MS)])
        conf.interface(name, nexthop=GATEWAY6, source=ROUTER6, namespace=namespace, ipv6=True,
                       probes=[ping(TARGET6, RESPONSE_TIME_MS)])
        conf.rule(f"{number}_ipv4", {name: 1}, {PREFIX: None}, namespace=namespace)
        conf.rule(f"{number}_ipv6", interfaces6={name: 1}, targets={PREFIX6: None}, namespace=namespace)
    return conf


class DeletedNamespace(LabTest):
    def setUp(self):
        super().setUp()
        self.blue = self.lab.namespace("blue")
        self.attach("gi1_1", self.lab.router)
        self.peer = self.attach("gi1_2", self.blue)
        self.alive = self.lab.keep_alives
        self.start()
        self.expect_routes("", UP)
        self.expect_routes("blue", UP)

    def attach(self, name, namespace):
        return self.lab.uplink(name, ROUTER + "/24", GATEWAY, address6=ROUTER6 + "/64",
                               gateway6=GATEWAY6, namespace=namespace)

    def start(self):
        self.daemon = self.lab.start(both_namespaces())

    def expect_routes(self, namespace, routes):
        expect(lambda: (self.lab.fragment(namespace), self.lab.fragment(namespace, ipv6=True)) == routes,
               within=30, what=f"the routes of '{namespace}' become {routes}")

    def delete_namespace(self):
        subprocess.run(["ip", "netns", "delete", "blue"], check=True)
        self.assertFalse(os.path.exists("/var/run/netns/blue"))

    def assert_default_untouched(self):
        self.expect_routes("", UP)
        self.assertEqual([self.lab.log.count(text) for text in (INACTIVE, ACTIVE, INACTIVE6, ACTIVE6)],
                         [1, 1, 1, 1])

    def test_workers_stay_in_a_namespace_that_lost_its_name(self):
        self.delete_namespace()
        self.peer.echo = policy.silence
        self.expect_routes("blue", DOWN)
        self.peer.echo = policy.answer
        self.expect_routes("blue", UP)
        self.assertEqual(self.lab.log.errors(), [])
        self.assert_default_untouched()

    def test_interfaces_that_vanish_with_it_cost_nobody_else_a_beat(self):
        expect(lambda: self.alive.cycles() >= CALM_CYCLES)
        calm = self.alive.cycles()
        self.delete_namespace()
        self.blue.ip("link delete gi1_2")
        expect(lambda: {error("ioctl() failed to get source MAC address No such device"),
                        error("ioctl() failed to get source MAC adds No such device"), INACTIVE_2,
                        INACTIVE6_2} <= set(self.lab.log.texts()))
        self.expect_routes("blue", DOWN)
        expect(lambda: self.alive.cycles() >= 2 * calm)  # of the slowest worker of all
        self.alive.assert_pace_kept(calm)
        self.assert_default_untouched()

    def test_interfaces_that_return_to_the_same_namespace_are_used_again(self):
        self.delete_namespace()
        self.blue.ip("link delete gi1_2")
        self.expect_routes("blue", DOWN)
        peer = self.attach("gi1_2", self.blue)
        # A link that goes is down for a moment before it is gone: a solicitation that could not be
        # sent then was the daemon's last. The kernel knows the next hop by the router's traffic.
        self.blue.ip(f"neigh replace {GATEWAY6} lladdr {peer.mac.hex(':')} dev gi1_2 nud reachable")
        self.expect_routes("blue", UP)
        self.assertEqual([self.lab.log.count(text) for text in (ACTIVE_2, ACTIVE6_2)], [2, 2])

    def test_namespace_made_again_under_its_name_is_entered_by_the_next_start(self):
        self.delete_namespace()
        self.blue.ip("link delete gi1_2")
        self.expect_routes("blue", DOWN)
        again = Namespace.named("blue")
        self.addCleanup(again.close)
        peer = self.attach("gi1_2", again)
        self.lab.cycles.never(peer.echo_requests, cycles=3)

        self.daemon.stop()
        self.start()
        self.expect_routes("blue", UP)
        self.expect_routes("", UP)
        self.assertGreater(len(peer.echo_requests()), 0)


if __name__ == "__main__":
    main()

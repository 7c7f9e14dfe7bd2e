"""Everything at once, for the sanitizers: four namespaces, both families, all three probe types, uplinks that flap,
dumps and reports being read.

    default, ns1, ns2, ns3: gi1_1..gi1_4 each with IPv4 (ping, ping_ext) and IPv6 (ping)

Runs 20 s; LB_RACE_SECONDS asks for more.
"""
import itertools
import os
import time

from kit import Conf, LabTest, expect, main, ping, ping_ext
from kit import echo_policies as policy
from kit.lab import OUTPUT_DIRECTORY
from kit.lbshow import active
from scenes import GATEWAY, PREFIX, ROUTER
from scenes6 import GATEWAY6, PREFIX6, ROUTER6

SECONDS = float(os.environ.get("LB_RACE_SECONDS", "20"))
NAMESPACES = ("", "ns1", "ns2", "ns3")


class Races(LabTest):
    def start(self):
        conf = Conf()
        for i, name in enumerate(NAMESPACES, 1):
            space = self.lab.namespace(name) if name else self.lab.router
            self.lab.uplink(f"gi1_{i}", ROUTER + "/24", GATEWAY, address6=ROUTER6 + "/64",
                            gateway6=GATEWAY6, namespace=space)
            probes = [ping(None, 300), ping_ext("198.51.100.7", count=2, period=0, timeout=300,
                                                rtt=290, jitter=290)]
            conf.interface(f"gi1_{i}", nexthop=GATEWAY, probes=probes, namespace=name)
            conf.interface(f"gi1_{i}", nexthop=GATEWAY6, source=ROUTER6, probes=[ping(None, 300)],
                           namespace=name, ipv6=True)
            conf.rule(f"{i}_ipv4", {f"gi1_{i}": 1}, {PREFIX: None}, namespace=name, failover=True)
            conf.rule(f"{i}_ipv6", interfaces6={f"gi1_{i}": 1}, targets={PREFIX6: None},
                      namespace=name, failover=True)
        return self.lab.start(conf)

    def count_of_outages(self):
        return sum("changed state to inactive" in text for text in self.lab.log.texts())

    def test_nothing_breaks_while_everything_changes(self):
        daemon = self.start()
        peers = list(self.lab.peers.values())
        expect(lambda: len(active()) == 8, within=60)
        end = time.monotonic() + SECONDS
        for peer in itertools.cycle(peers):
            if time.monotonic() > end:
                break
            peer.echo = policy.silence if peer.echo is policy.answer else policy.answer
            for _ in range(4):
                active()
                for family in (4, 6):
                    with open(f"{OUTPUT_DIRECTORY}/wlb_ipv{family}.out", encoding="utf-8") as report:
                        report.read()
        for peer in peers:
            peer.echo = policy.answer
        expect(lambda: active() == [True] * 8, within=60)
        flapped = self.count_of_outages()
        # Every uplink's worker still sees what happens; and so it did in between.
        for echo, state in ((policy.silence, False), (policy.answer, True)):
            for peer in peers:
                peer.echo = echo
            expect(lambda state=state: active() == [state] * 8, within=60, what=f"all are {state}")
        self.assertGreaterEqual(flapped, 8)
        self.assertTrue(daemon.running())


if __name__ == "__main__":
    main()

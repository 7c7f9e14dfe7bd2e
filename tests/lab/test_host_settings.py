"""Settings of the router that let the probes' answers in, or keep them out: what the operating guide says.

    router                                far
      gi1_1 192.0.2.10/24 ---------------- scripted peer 192.0.2.1
                                           target 198.51.100.1
      gi1_2 203.0.113.10/24 --------------- scripted peer 203.0.113.1
"""
from kit import LabTest, expect, main
from scenes import ACTIVE, GATEWAY, ROUTER, one_uplink

OFF, STRICT, LOOSE = "0", "1", "2"


class ReversePath(LabTest):
    """The kernel looks whether the answer's source would be reached, by any uplink or by this one."""

    def setUp(self):
        super().setUp()
        self.peer = self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY, known=True)
        self.lab.uplink("gi1_2", "203.0.113.10/24", "203.0.113.1", known=True)

    def start(self, rp_filter, routed_by=None):
        if routed_by:
            self.lab.router.ip(f"route add default via {routed_by}")
        self.lab.router.sysctl("ipv4/conf/gi1_1/rp_filter", rp_filter)
        self.lab.start(one_uplink())
        expect(lambda: len(self.peer.echo_requests()) >= 1, what="a probe leaves")

    def is_active(self):
        return ACTIVE in self.lab.log.texts()

    def test_without_the_check_no_route_is_needed(self):
        self.start(OFF)
        expect(self.is_active)

    def test_strict_check_drops_answers_while_another_uplink_carries_the_traffic(self):
        self.start(STRICT, routed_by="203.0.113.1")
        self.lab.cycles.never(self.is_active, cycles=4)

    def test_loose_check_drops_answers_while_nothing_is_routed(self):
        self.start(LOOSE)
        self.lab.cycles.never(self.is_active, cycles=4)

    def test_loose_check_lets_answers_in_while_any_uplink_carries_the_traffic(self):
        self.start(LOOSE, routed_by="203.0.113.1")
        expect(self.is_active)


class Firewall(LabTest):
    def start(self, *rules):
        self.lab.router.run("nft", "add table ip filter; add chain ip filter input { type filter hook input priority 0;"
                            " policy drop; }; " + "; ".join(f"add rule ip filter input {rule}" for rule in rules))
        self.peer = self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY, known=True)
        self.lab.start(one_uplink())
        expect(lambda: len(self.peer.echo_requests()) >= 1, what="a probe leaves")

    def test_accepting_established_connections_lets_answers_in(self):
        self.start("ct state established,related accept")
        expect(lambda: ACTIVE in self.lab.log.texts())

    def test_dropping_all_input_keeps_answers_out(self):
        self.start()
        self.lab.cycles.never(lambda: ACTIVE in self.lab.log.texts(), cycles=4)


if __name__ == "__main__":
    main()

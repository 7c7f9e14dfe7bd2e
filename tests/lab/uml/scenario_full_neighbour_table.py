"""A neighbour table that takes no more entries, the daemon running throughout.

    router                                              peer
      u0  192.0.2.1/24, 2001:db8::1/64 ------- veth ------- u1  192.0.2.2/24, 2001:db8::2/64

The table's bounds are the machine's, not a namespace's: hence a guest. The peer's kernel answers.
"""
import pathlib

from guest_lab import Conf, GuestTest, expect, main, ping

ROUTE = "protocol static {\ncheck link 1;\nroute 0.0.0.0/0 multipath via 192.0.2.2 weight 1;\n};\n"
ROUTE6 = "protocol static {\nroute ::/0 multipath via 2001:db8::2 weight 1;\n};\n"
NO_ROUTE, NO_ROUTE6 = "protocol static {\ncheck link 1;\n};\n", "protocol static {\n};\n"


class FullTable(GuestTest):
    def setUp(self):
        super().setUp()
        self.peer = self.namespace("peer")
        self.link("u0", "u1", self.peer)
        for space, device, host in ((self.router, "u0", 1), (self.peer, "u1", 2)):
            space.sysctl(f"ipv6/conf/{device}/disable_ipv6", "0")
            space.ip(f"address add 192.0.2.{host}/24 dev {device}")
            space.ip(f"address add 2001:db8::{host}/64 dev {device} nodad")
        self.let_the_peer_know_the_router()
        self.addCleanup(self.bound_table, *self.bounds())

    def let_the_peer_know_the_router(self):
        """A kernel answers nobody for whom its table has no room; what is permanent needs none."""
        mac = self.router.ip("-brief link show u0").split()[2]
        for address in ("192.0.2.1", "2001:db8::1"):
            self.peer.ip(f"neigh replace {address} lladdr {mac} dev u1 nud permanent")

    @staticmethod
    def bound_paths():
        return [pathlib.Path(f"/proc/sys/net/{family}/neigh/default/gc_thresh3")
                for family in ("ipv4", "ipv6")]

    def bounds(self):
        return [path.read_text() for path in self.bound_paths()]

    def bound_table(self, *bounds):
        for path, bound in zip(self.bound_paths(), bounds):
            path.write_text(bound)

    @staticmethod
    def conf():
        return (Conf().interface("u0", nexthop="192.0.2.2", probes=[ping(None, 900)])
                .interface("u0", nexthop="2001:db8::2", source="2001:db8::1", ipv6=True,
                           probes=[ping(None, 900)])
                .rule("1_ipv4", {"u0": 1}, {"0.0.0.0/0": None})
                .rule("1_ipv6", interfaces6={"u0": 1}, targets={"::/0": None}))

    def expect_fragments(self, ipv4, ipv6):
        self.expect_fragment(ipv4, within=30)
        self.expect_fragment(ipv6, within=30, ipv6=True)

    def test_answers_that_find_no_room_are_reported_until_there_is_room(self):
        daemon = self.start(self.conf())
        self.expect_fragments(ROUTE, ROUTE6)

        bounds = self.bounds()
        self.bound_table("0", "0")
        # More than once: the kernel makes room as long as it finds entries of its own to drop.
        expect(lambda: self.router.ip("neigh flush dev u0") or
               {"%WAN-W-ERR: <add_arp_entry> 192.0.2.2",
                "%WAN-W-ERR: RTNETLINK answers: No buffer space available"} <= set(self.log.texts()),
               within=30, what="the entries that found no room are reported")
        self.expect_fragments(NO_ROUTE, NO_ROUTE6)

        self.bound_table(*bounds)
        self.expect_fragments(ROUTE, ROUTE6)
        self.assertTrue(daemon.running())


if __name__ == "__main__":
    main()

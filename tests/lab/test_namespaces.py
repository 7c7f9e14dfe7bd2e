"""Two namespaces at once, each with its own uplinks, fragment and routing daemon.

    router (default)             far
      gi1_1 192.0.2.10/24 ------- scripted peer 192.0.2.1
    router, namespace blue
      gi1_2 192.0.2.10/24 ------- scripted peer 192.0.2.1 (the same addresses)
"""
from kit import Conf, LabTest, expect, main, ping
from kit import echo_policies as policy
from kit import packets
from scenes import GATEWAY, PREFIX, ROUTER, TARGET, VIA_1, changed, fragment

BLUE_ROUTE = f"route {PREFIX} multipath via {GATEWAY} weight 3;"
CONF = (Conf()
        .interface("gi1_1", nexthop=GATEWAY, probes=[ping(TARGET, 300)])
        .interface("gi1_2", nexthop=GATEWAY, probes=[ping(TARGET, 300)], namespace="blue")
        .rule("1_ipv4", {"gi1_1": 1}, {PREFIX: None})
        .rule("2_ipv4", {"gi1_2": 3}, {PREFIX: None}, namespace="blue"))

KNOWN_REPLIES = """
table inet lab {
    counter known { }
    chain in {
        type filter hook input priority 0; policy accept;
        icmp type echo-reply ct state established counter name known
    }
}
"""


class TwoNamespaces(LabTest):
    def setUp(self):
        super().setUp()
        self.blue = self.lab.namespace("blue")
        self.default_peer = self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY)
        self.blue_peer = self.lab.uplink("gi1_2", ROUTER + "/24", GATEWAY, namespace=self.blue)
        self.default_daemon = self.lab.routing_daemon()
        self.blue_daemon = self.lab.routing_daemon("blue")

    def expect_both(self):
        expect(lambda: self.default_daemon.fragments()[-1:] == [fragment(VIA_1)])
        expect(lambda: self.blue_daemon.fragments()[-1:] == [fragment(BLUE_ROUTE)])

    def test_each_has_its_own_fragment_and_routing_daemon(self):
        self.lab.start(CONF)
        self.expect_both()
        self.assertEqual((self.lab.fragment(), self.lab.fragment("blue")),
                         (fragment(VIA_1), fragment(BLUE_ROUTE)))

    def test_each_learns_neighbours_in_its_own_table(self):
        self.lab.start(CONF)
        self.expect_both()
        self.assertIn("02:00:5e:20:00:01", self.lab.neighbour(GATEWAY, "gi1_1"))
        self.assertIn("02:00:5e:20:00:02", self.lab.neighbour(GATEWAY, "gi1_2", self.blue))

    def test_outage_in_one_leaves_the_other_alone(self):
        self.lab.start(CONF)
        self.expect_both()
        signalled = len(self.default_daemon.hups())
        self.blue_peer.echo = policy.silence
        expect(lambda: self.blue_daemon.fragments()[-1:] == [fragment()])
        self.assertEqual(len(self.default_daemon.hups()), signalled)
        self.assertEqual(self.lab.fragment(), fragment(VIA_1))

    def test_interface_name_stands_once_whatever_the_namespaces(self):
        self.lab.start(CONF.text().replace("interface gi1_1", "interface gi1_2"))
        expect(lambda: self.blue_daemon.fragments()[-1:] == [fragment(BLUE_ROUTE)])
        self.assertEqual(self.lab.log.count(changed("gigabitethernet 1/0/2", "inactive")), 1)
        self.assertEqual((self.lab.fragment(), self.default_peer.frames()), (None, []))

    def test_identifiers_of_both_are_never_the_same(self):
        self.lab.start(CONF)
        self.expect_both()
        identifiers = [echo.packet_id for peer in (self.default_peer, self.blue_peer)
                       for echo in peer.echo_requests()]
        self.assertEqual(len(identifiers), len(set(identifiers)))

    def test_reply_counts_for_its_identifier_whatever_namespace_it_reaches(self):
        router_mac = packets.mac_bytes("02:00:5e:10:00:01")  # of gi1_1, in the default namespace

        def answer_over_there(request, _number):
            self.default_peer.send(packets.echo(request.reply(), self.default_peer.mac, router_mac))
            return []
        self.blue_peer.echo = answer_over_there
        self.lab.start(CONF)
        self.expect_both()

    def test_records_of_connections_land_where_their_probes_run(self):
        with open("/run/known.nft", "w", encoding="ascii") as file:
            file.write(KNOWN_REPLIES)
        for space in (self.lab.router, self.blue):
            space.run("nft", "-f", "/run/known.nft")
        self.lab.start(CONF)
        self.expect_both()
        for space in (self.lab.router, self.blue):
            expect(lambda: "packets 0" not in space.run("nft", "list", "counter", "inet", "lab",
                                                        "known"), what=f"known in {space.name!r}")

    def test_no_errors_are_logged_across_many_probes(self):
        self.lab.start(CONF)
        self.expect_both()
        expect(lambda: len(self.blue_peer.echo_requests()) >= 4)
        self.assertEqual(self.lab.log.errors(), [])
        self.lab.cycles.never(self.lab.log.errors, cycles=1)


if __name__ == "__main__":
    main()

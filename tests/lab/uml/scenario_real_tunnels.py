"""The tunnel path on real GRE and IPIP devices.

    router                                           peer
      u0  192.0.2.1/24  ------- veth ------- u1  192.0.2.2/24
      gre_1     198.51.100.1 peer .2  == GRE  == gre_1     198.51.100.2 peer .1
      ip4ip4_1  203.0.113.1  peer .2  == IPIP == ip4ip4_1  203.0.113.2  peer .1

The peer's kernel answers the echoes.
"""
from guest_lab import Conf, GuestTest, main, ping

TUNNELS = {"gre_1": ("gre", "198.51.100"), "ip4ip4_1": ("ipip", "203.0.113")}
BOTH_TUNNELS = ("protocol static {\n"
                "check link 1;\n"
                "route 0.0.0.0/0 multipath via 198.51.100.2 weight 1 via 203.0.113.2 weight 3;\n"
                "};\n")
IPIP_ONLY = ("protocol static {\n"
             "check link 1;\n"
             "route 0.0.0.0/0 multipath via 203.0.113.2 weight 3;\n"
             "};\n")
IP_HEADER = 20


class Tunnels(GuestTest):
    def setUp(self):
        super().setUp()
        self.peer = self.namespace("peer")
        self.link("u0", "u1", self.peer)
        self.router.ip("address add 192.0.2.1/24 dev u0")
        self.peer.ip("address add 192.0.2.2/24 dev u1")
        for device, (kind, network) in TUNNELS.items():
            self.tunnel(self.router, device, kind, (1, 2), network)
            self.tunnel(self.peer, device, kind, (2, 1), network)

    @staticmethod
    def tunnel(namespace, device, kind, ends, network):
        own, far = ends
        namespace.ip(f"link add {device} type {kind} local 192.0.2.{own} remote 192.0.2.{far}")
        namespace.ip(f"address add {network}.{own} peer {network}.{far} dev {device}")
        namespace.ip(f"link set {device} up")

    @staticmethod
    def conf(target=None):
        probes = [ping(target, resp_time=1000)]
        return (Conf().interface("gre_1", nexthop="tunnel", probes=probes)
                .interface("ip4ip4_1", nexthop="tunnel", probes=probes)
                .rule("1_ipv4", {"gre_1": 1, "ip4ip4_1": 3}, {"0.0.0.0/0": None}))

    def test_both_tunnels_become_active(self):
        self.start(self.conf())

        self.expect_state("gre 1", "active")
        self.expect_state("ip4ip4 1", "active")

    def test_the_tunnels_peers_become_the_next_hops(self):
        self.start(self.conf())

        self.expect_fragment(BOTH_TUNNELS)

    def check_echo(self, device):
        """The 24 bytes of the message, field by field, and their checksum by scapy."""
        from scapy.layers.inet import ICMP, IP
        capture = self.capture(self.peer, device)
        daemon = self.start(self.conf())

        packet = capture.next_packet()

        message = packet[IP_HEADER:]
        golden = ("08 00" + message[2:4].hex() + f"{daemon.pid & 0xffff:04x}" + "0001"
                  + "0000" + message[10:12].hex() + "00" * 12)
        self.assertEqual(message.hex(), bytes.fromhex(golden).hex())
        seen = IP(packet)
        rebuilt = ICMP(type="echo-request", id=daemon.pid & 0xFFFF, seq=1) / message[8:]
        self.assertEqual(seen[ICMP].chksum, ICMP(bytes(rebuilt)).chksum)
        network = TUNNELS[device][1]
        self.assertEqual((seen.src, seen.dst), (f"{network}.1", f"{network}.2"))

    def test_echo_on_gre_is_24_bytes_with_sequence_1(self):
        self.check_echo("gre_1")

    def test_echo_on_ipip_is_24_bytes_with_sequence_1(self):
        self.check_echo("ip4ip4_1")

    def test_echoes_carry_ascending_packet_identifiers(self):
        capture = self.capture(self.peer, "gre_1")
        self.start(self.conf().interface("gre_1"))

        words = [int.from_bytes(capture.next_packet()[28:32], "big") for _ in range(3)]

        # One counter for both tunnels; each probes every second cycle.
        self.assertEqual(words, sorted(set(words)))
        self.assertLess(words[-1], 10)

    def test_a_tunnel_whose_far_end_goes_down_leaves_the_route_and_comes_back(self):
        self.start(self.conf())
        self.expect_fragment(BOTH_TUNNELS)

        self.peer.ip("link set gre_1 down")
        self.expect_state("gre 1", "inactive")
        self.expect_fragment(IPIP_ONLY)

        self.peer.ip("link set gre_1 up")
        self.expect_state("gre 1", "active")
        self.expect_fragment(BOTH_TUNNELS)

    def test_the_other_tunnel_stays_active_meanwhile(self):
        self.start(self.conf())
        self.expect_fragment(BOTH_TUNNELS)

        self.peer.ip("link set gre_1 down")
        self.expect_state("gre 1", "inactive")

        self.assertEqual(self.changes("ip4ip4 1", "inactive"), 1)  # the one at the start

    def test_a_target_behind_the_tunnel_needs_no_route(self):
        """Binding to the device decides the way, not the routing table."""
        self.peer.ip("address add 192.0.2.77/32 dev lo")
        capture = self.capture(self.peer, "gre_1")
        self.start(self.conf(target="192.0.2.77"))

        self.expect_state("gre 1", "active")

        self.assertEqual(capture.next_packet()[16:20], bytes([192, 0, 2, 77]))

    def test_a_tunnel_that_vanishes_costs_only_its_own_echoes(self):
        self.start(self.conf())
        self.expect_fragment(BOTH_TUNNELS)

        self.router.ip("link delete gre_1")
        self.expect_state("gre 1", "inactive")

        self.expect_fragment(IPIP_ONLY)
        self.assertIn("%WAN-W-ERR: wan_lb: failure to bind to interface: gre 1",
                      self.log.texts())


if __name__ == "__main__":
    main()

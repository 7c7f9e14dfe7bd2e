"""Next hops that are learnt: from a lease file, from a tunnel's peer.

    router                                far
      gi1_1 192.0.2.10/24 ---------------- scripted peer 192.0.2.1
      gre_1 192.0.2.10 peer 192.0.2.1 ---- scripted peer 192.0.2.1
"""
import os

from kit import LabTest, expect, main, ping
from kit.lbshow import state
from scenes import (ACTIVE, GATEWAY, PREFIX, ROUTER, VIA_1, changed, error, fragment, one_uplink,
                    warning)

LEASE = "/var/db/dhclient_gi1_1.leases"
NO_ROUTER = "Failed to get routers option from DHCP on interface "
NO_PEER = "Failed to get P-t-P destination from tunnel interface "
WARNING = warning(NO_ROUTER + "gigabitethernet 1/0/1")


def lease(*routers):
    return ('lease {\n  interface "gi1_1";\n  fixed-address 192.0.2.10;\n'
            "  option subnet-mask 255.255.255.0;\n"
            + "".join(f"  option routers {value};\n" for value in routers) + "}\n")


def write(text, path=LEASE):
    with open(path, "w", encoding="ascii") as file:
        file.write(text)


class Leases(LabTest):
    def setUp(self):
        super().setUp()
        self.peer = self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY, known=True)

    def start(self):
        self.lab.start(one_uplink(nexthop="dhcp", probes=[ping(None, 300)]))

    def expect_route(self):
        expect(lambda: self.lab.fragment() == fragment(VIA_1))

    def test_router_of_the_lease_is_probed_and_routed(self):
        write(lease(GATEWAY))
        self.start()
        self.expect_route()
        self.assertEqual({echo.destination for echo in self.peer.echo_requests()}, {GATEWAY})
        self.assertEqual(self.lab.log.errors(), [])

    def test_first_of_several_routers_is_used(self):
        write(lease(GATEWAY + ",192.0.2.2"))
        self.start()
        self.expect_route()

    def test_first_line_with_routers_is_used(self):
        write(lease(GATEWAY, "192.0.2.2"))
        self.start()
        self.expect_route()

    def test_missing_lease_is_reported_every_cycle(self):
        self.start()
        expect(lambda: self.lab.log.count(WARNING) >= 2)
        self.assertEqual(self.peer.echo_requests(), [])
        self.assertEqual({line.severity for line in self.lab.log.lines() if line.text == WARNING},
                         {4})

    def test_lease_without_routers_is_reported(self):
        write(lease())
        self.start()
        expect(lambda: self.lab.log.count(WARNING) >= 2)

    def test_interface_without_a_router_name_is_an_unknown_interface(self):
        self.lab.start(one_uplink("wan0", nexthop="dhcp", probes=[]))
        expect(lambda: warning(NO_ROUTER + "unknown interface") in self.lab.log.texts())

    def test_late_lease_brings_the_uplink_up(self):
        self.start()
        expect(lambda: WARNING in self.lab.log.texts())
        write(lease(GATEWAY))
        self.expect_route()

    def test_vanished_lease_keeps_the_learnt_router(self):
        write(lease(GATEWAY))
        self.start()
        expect(lambda: ACTIVE in self.lab.log.texts())
        os.unlink(LEASE)
        self.lab.cycles.never(lambda: WARNING in self.lab.log.texts(), cycles=3)
        self.assertEqual(self.lab.fragment(), fragment(VIA_1))

    def test_half_written_lease_keeps_the_learnt_router(self):
        write(lease(GATEWAY))
        self.start()
        expect(lambda: ACTIVE in self.lab.log.texts())
        for text in ("", "lease {\n  option rou", "lease {\n  option routers", "\0" * 3000):
            write(text)
            self.lab.cycles.never(lambda: self.lab.fragment() != fragment(VIA_1), cycles=2)

    def test_first_cycle_probes_before_the_lease_is_read(self):
        write(lease(GATEWAY))
        self.lab.start(one_uplink(nexthop="dhcp"))
        expect(lambda: ACTIVE in self.lab.log.texts())
        self.assertEqual(self.lab.log.errors(), [
            error("<check_arp_exist> Inet_aton() failed Invalid argument(22)")])

    def test_probe_without_a_target_keeps_the_router_that_it_met_first(self):
        write(lease(GATEWAY))
        self.start()
        expect(lambda: ACTIVE in self.lab.log.texts())
        self.peer.addresses.add("192.0.2.2")
        write(lease("192.0.2.2"))
        expect(lambda: self.peer.arp_requests("192.0.2.2"))
        before = len(self.peer.echo_requests())
        expect(lambda: len(self.peer.echo_requests()) >= before + 2)
        self.assertEqual({echo.destination for echo in self.peer.echo_requests()}, {GATEWAY})

    def test_new_router_replaces_the_old_one_in_the_route(self):
        write(lease(GATEWAY))
        self.start()
        expect(lambda: ACTIVE in self.lab.log.texts())
        write(lease("192.0.2.2"))
        expect(lambda: self.lab.fragment() == fragment(
            f"route {PREFIX} multipath via 192.0.2.2 weight 1;"))


class Tunnels(LabTest):
    def test_peer_of_the_tunnel_is_probed_and_routed(self):
        peer = self.lab.uplink("gre_1", ROUTER, GATEWAY, point_to_point=GATEWAY)
        self.lab.start(one_uplink("gre_1", nexthop="tunnel", probes=[ping(None, 900)]))
        expect(lambda: changed("gre 1", "active") in self.lab.log.texts())
        expect(lambda: self.lab.fragment() == fragment(VIA_1))
        self.assertEqual({echo.destination for echo in peer.echo_requests()}, {GATEWAY})

    def test_interface_that_is_no_tunnel_is_its_own_peer(self):
        self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY)
        self.lab.start(one_uplink(nexthop="tunnel", probes=[ping(None, 300)]))
        expect(lambda: [one["nexthop"] for one in state()["interfaces"]] == [ROUTER])
        self.assertNotIn(NO_PEER, "".join(self.lab.log.texts()))

    def test_missing_tunnel_does_not_end_the_cycle(self):
        self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY, known=True)
        conf = one_uplink().interface("gre_9", nexthop="tunnel", probes=[ping(None, 300)])
        self.lab.start(conf)
        expect(lambda: ACTIVE in self.lab.log.texts())
        expect(lambda: self.lab.fragment() == fragment(VIA_1))


if __name__ == "__main__":
    main()

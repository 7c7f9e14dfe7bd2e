"""Addresses in motion: under duplicate detection, duplicate, lost, and neighbours that move.

    router                                          far
      gi1_1 2001:db8::10/64, 02:00:5e:10:00:01 ----- peer 2001:db8::1:2:3, 02:00:5e:20:00:01
"""
from kit import expect, main, packets
from scenes import ACTIVE, GATEWAY, INACTIVE, ROUTER, one_uplink
from scenes6 import (ACTIVE6, GATEWAY6, INACTIVE6, NEAR_MAC, ROUTER6, Ipv6Test, one_uplink6)

CANDIDATE = "2001:db8::99"
OVERRIDE, ALL_NODES, ALL_NODES_MAC = 0x20000000, "ff02::1", "33:33:00:00:00:01"
MOVED_MAC = "02:00:5e:20:00:77"


class DuplicateDetection(Ipv6Test):
    def setUp(self):
        super().setUp()
        self.peer = self.attach(address=ROUTER + "/24", gateway=GATEWAY, known=True)

    def add_candidate(self, solicitations):
        """The kernel asks so many times, a second apart, whether somebody has the address."""
        self.lab.router.sysctl("ipv6/conf/gi1_1/accept_dad", "1")
        self.lab.router.sysctl("ipv6/conf/gi1_1/dad_transmits", str(solicitations))
        self.lab.router.ip(f"address add {CANDIDATE}/64 dev gi1_1")

    def candidate_is(self, state):
        return CANDIDATE in self.lab.router.ip(f"-6 address show dev gi1_1 {state}")

    def lose_candidate(self):
        """The far end says that the address is its own, as its owner does to all nodes, until the
        kernel has heard it: before its own first solicitation it does not listen."""
        def claim():
            self.peer.send(packets.advertisement(self.peer.mac, CANDIDATE,
                                                 packets.mac_bytes(ALL_NODES_MAC), ALL_NODES, OVERRIDE))
            return self.candidate_is("dadfailed")
        expect(claim)

    def test_tentative_address_is_probed_from_and_counts_once_it_is_the_routers(self):
        self.add_candidate(solicitations=5)
        self.lab.start(one_uplink6(source=CANDIDATE))
        echo = expect(self.peer.echo_requests)[0]
        self.assertTrue(self.candidate_is("tentative"))
        self.assertEqual(echo.source, CANDIDATE)
        self.assertNotIn(ACTIVE6, self.lab.log.texts())  # the kernel takes no answer in yet
        expect(self.logged(ACTIVE6))
        self.assertFalse(self.candidate_is("tentative"))

    def test_duplicate_address_keeps_its_uplink_down_and_the_other_family_up(self):
        self.add_candidate(solicitations=5)
        self.lose_candidate()
        self.lab.start(one_uplink6(source=CANDIDATE, conf=one_uplink()))
        expect(lambda: sum(echo.source == CANDIDATE for echo in self.peer.echo_requests()) >= 3)
        expect(self.logged(ACTIVE))
        self.assertNotIn(ACTIVE6, self.lab.log.texts())
        self.assertEqual(self.lab.log.count(INACTIVE), 1)

    def test_address_that_is_no_longer_duplicate_brings_the_uplink_up(self):
        self.add_candidate(solicitations=5)
        self.lose_candidate()
        self.lab.start(one_uplink6(source=CANDIDATE))
        expect(self.peer.echo_requests)
        self.lab.router.ip(f"address del {CANDIDATE}/64 dev gi1_1")
        self.add_candidate(solicitations=1)
        expect(self.logged(ACTIVE6))


class Sources(Ipv6Test):
    def test_link_local_address_once_taken_is_kept(self):
        peer = self.attach()
        expect(lambda: "fe80::" in self.lab.router.ip("-6 address show dev gi1_1 -tentative"))
        self.lab.start(one_uplink6(source=None))
        own = expect(peer.echo_requests)[0].source
        self.lab.router.ip(f"address del {own}/64 dev gi1_1")
        self.lab.router.ip("address add fe80::55/64 dev gi1_1 nodad")
        before = len(peer.echo_requests())
        expect(lambda: len(peer.echo_requests()) >= before + 3)
        self.assertEqual({echo.source for echo in peer.echo_requests()}, {own})

    def test_second_global_address_does_not_replace_the_configured_one(self):
        peer = self.attach()
        self.lab.router.ip("address add 2001:db8::11/64 dev gi1_1 nodad")
        self.lab.start(one_uplink6())
        expect(lambda: len(peer.echo_requests()) >= 2)
        self.assertEqual({echo.source for echo in peer.echo_requests()}, {ROUTER6})

    def test_only_a_link_local_address_serves_where_none_is_configured(self):
        peer = self.attach(address6="2001:db8::1/64")
        self.lab.router.ip("-6 address flush dev gi1_1 scope link")
        self.know_gateway()
        self.lab.start(one_uplink6(source=None))
        expect(lambda: len(peer.echo_requests()) >= 2)
        self.assertEqual({echo.source for echo in peer.echo_requests()}, {"::"})


class MovingNeighbours(Ipv6Test):
    def test_mac_that_is_announced_is_used_from_the_next_probe_on(self):
        peer = self.attach()
        self.lab.start(one_uplink6())
        expect(self.logged(ACTIVE6))
        peer.mac = packets.mac_bytes(MOVED_MAC)
        peer.send(packets.advertisement(peer.mac, GATEWAY6, packets.mac_bytes(NEAR_MAC), ROUTER6))
        expect(lambda: peer.echo_frames()[-1].data[:6] == peer.mac)
        self.lab.cycles.never(lambda: self.lab.log.count(INACTIVE6) > 1, cycles=2)

    def test_neighbour_that_goes_and_returns_elsewhere_is_found_again(self):
        peer = self.attach()
        self.lab.start(one_uplink6())
        expect(self.logged(ACTIVE6))
        peer.link("down")
        expect(lambda: self.lab.log.count(INACTIVE6) == 2)
        peer.mac = packets.mac_bytes(MOVED_MAC)
        self.lab.forget_neighbours("gi1_1")
        peer.link("up")
        expect(lambda: self.lab.log.count(ACTIVE6) == 2)
        self.assertIn(MOVED_MAC, self.entry())


if __name__ == "__main__":
    main()

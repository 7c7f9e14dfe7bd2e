"""Faults of a next hop, the daemon running throughout (the stage: fault_scene.py)."""
from fault_scene import SECOND_ALONE, FaultTest
from kit import expect, main
from kit import packets
from scenes import ACTIVE, GATEWAY, INACTIVE, TARGET
from scenes6 import ACTIVE6, GATEWAY6, INACTIVE6, TARGET6

NEW_MAC = "02005e2000aa"
ALL_NODES_MAC, ALL_NODES = "333300000001", "ff02::1"
UNSOLICITED = 0x20000000  # overriding an address that is known (RFC 4861, 4.4)


class NextHopTest(FaultTest):
    def change_mac(self):
        """The far end answers at its new hardware address only."""
        self.far = NEW_MAC
        self.peer.mac = bytes.fromhex(NEW_MAC)


class AnnouncedMac(NextHopTest):
    def announce(self, operation):
        """Gratuitous ARP (RFC 5227, 3) and an unsolicited advertisement (RFC 4861, 7.2.6)."""
        mac = self.peer.mac
        self.peer.send(packets.arp(operation, mac, GATEWAY, mac, GATEWAY, packets.BROADCAST))
        self.peer.send(packets.advertisement(mac, GATEWAY6, bytes.fromhex(ALL_NODES_MAC), ALL_NODES,
                                             flags=UNSOLICITED))

    def test_change_announced_by_an_arp_reply_is_followed(self):
        self.change_mac()
        self.announce(operation=2)
        self.expect_probes_with_right_bytes()
        self.expect_all_right()

    def test_change_announced_by_an_arp_request_is_followed(self):
        self.change_mac()
        self.announce(operation=1)
        self.expect_probes_with_right_bytes()
        self.expect_all_right()


class UnannouncedMac(NextHopTest):
    def attach_first(self):
        peer = super().attach_first()
        for family in ("ipv4", "ipv6"):  # the kernel doubts a neighbour sooner than after its usual minute
            for name, value in (("base_reachable_time_ms", "1000"), ("delay_first_probe_time", "1"),
                                ("retrans_time_ms", "200"), ("ucast_solicit", "2")):
                self.lab.router.sysctl(f"{family}/neigh/gi1_1/{name}", value)
        return peer

    def is_probed_at_its_new_mac(self):
        return all(any(frame.data[:6] == self.peer.mac for frame in self.peer.echo_frames(target))
                   for target in (TARGET, TARGET6))

    def test_change_is_found_by_the_traffic_of_the_router(self):
        self.change_mac()
        expect(lambda: self.carry_traffic() or self.is_probed_at_its_new_mac(), within=30)
        self.expect_right_routes_under_traffic()
        self.expect_all_right()


class LateAnswers(FaultTest):
    def test_answers_that_come_cycles_late_are_learnt_all_the_same(self):
        self.peer.arp_delay_s = 3.2  # later than a cycle and the probe that waited for it
        calm = self.calm_cycles()
        self.lab.forget_neighbours("gi1_1")
        expect(lambda: self.count(INACTIVE, INACTIVE6) == [2, 2], within=30)
        self.expect_all_right()
        self.assertEqual(self.count(ACTIVE, ACTIVE6), [2, 2])
        self.alive.assert_pace_kept(calm)

    def test_silence_takes_the_uplink_out_until_it_ends(self):
        self.peer.arp_silent = True
        calm = self.calm_cycles()
        self.lab.forget_neighbours("gi1_1")
        self.expect_routes(SECOND_ALONE)
        self.assertEqual(self.count(INACTIVE, INACTIVE6), [2, 2])

        self.peer.arp_silent = False
        self.expect_all_right()
        self.alive.assert_pace_kept(calm)


if __name__ == "__main__":
    main()

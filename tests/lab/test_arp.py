"""Finding the next hop's hardware address.

    router                       far
      gi1_1 192.0.2.10/24 ------- scripted peer 192.0.2.1
      gi1_2 203.0.113.10/24 ----- scripted peer 203.0.113.1
"""
import socket

from kit import LabTest, expect, main
from kit import packets
from scenes import (ACTIVE, ACTIVE_2, GATEWAY, GATEWAY_2, ROUTER, ROUTER_2, TARGET, error,
                    one_uplink, two_uplinks)


class Arp(LabTest):
    def attach(self, **link):
        return self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY, **link)

    def entry(self, address=GATEWAY):
        return self.lab.neighbour(address, "gi1_1")

    def test_first_answer_is_learnt_at_once(self):
        peer = self.attach()
        self.lab.start(one_uplink())
        expect(peer.arp_requests)
        expect(lambda: "02:00:5e:20:00:01" in self.entry(), within=1)

    def test_cold_uplink_is_probed_as_soon_as_its_first_probe_is_given_up(self):
        peer = self.attach()
        self.lab.start(one_uplink())
        first = expect(peer.echo_requests)[0]
        # The first probe has nowhere to go, unless the answer beats its look at the kernel's table.
        self.assertLessEqual(first.packet_id, 2)
        self.assertEqual(len(peer.arp_requests()), 1)
        waited_s = peer.echo_frames()[0].time_s - peer.arp_requests()[0].time_s
        self.assertLess(waited_s, 3.5)  # two cycles, not another timeout

    def test_written_entry_is_stale_but_complete(self):
        self.attach()
        self.lab.start(one_uplink())
        self.assertIn("lladdr 02:00:5e:20:00:01 STALE", expect(
            lambda: "lladdr" in self.entry() and self.entry()))

    def test_answer_to_the_third_request_brings_the_uplink_up(self):
        peer = self.attach()
        peer.arp_answers_from = 3
        self.lab.start(one_uplink())
        expect(lambda: ACTIVE in self.lab.log.texts())
        self.assertEqual(len(peer.arp_requests()), 3)
        self.assertEqual(self.lab.log.errors(), [])

    def test_complete_entry_is_used_without_a_request(self):
        peer = self.attach(known=True)
        self.lab.start(one_uplink())
        expect(lambda: ACTIVE in self.lab.log.texts())
        self.assertEqual(peer.arp_requests(), [])
        self.assertEqual(peer.echo_requests()[0].packet_id, 1)

    def test_incomplete_entry_is_asked_for(self):
        peer = self.attach()
        peer.arp_silent = True
        with self.lab.router.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            sender.sendto(b"", (GATEWAY, 9))
        expect(lambda: "FAILED" in self.entry(), what="the kernel gives up")
        by_the_kernel = len(peer.arp_requests())
        self.lab.start(one_uplink())
        expect(lambda: len(peer.arp_requests()) > by_the_kernel)
        peer.arp_silent = False
        expect(lambda: ACTIVE in self.lab.log.texts())

    def test_answer_of_an_address_never_asked_for_writes_nothing(self):
        peer = self.attach()
        self.lab.start(one_uplink())
        expect(lambda: ACTIVE in self.lab.log.texts())
        peer.send(packets.arp(2, peer.mac, "192.0.2.77", packets.mac_bytes("02:00:5e:10:00:01"),
                              ROUTER))
        self.lab.cycles.never(lambda: "lladdr" in self.entry("192.0.2.77"), cycles=1)

    def test_gratuitous_request_is_ignored(self):
        peer = self.attach()
        peer.arp_silent = True
        self.lab.start(one_uplink())
        expect(peer.arp_requests)
        peer.send(packets.arp(1, peer.mac, GATEWAY, b"\0" * 6, GATEWAY, packets.BROADCAST))
        self.lab.cycles.never(lambda: "lladdr" in self.entry(), cycles=1)

    def test_second_unknown_next_hop_is_learnt_by_the_same_receiver(self):
        self.attach()
        self.lab.uplink("gi1_2", ROUTER_2 + "/24", GATEWAY_2)
        self.lab.start(two_uplinks())
        expect(lambda: {ACTIVE, ACTIVE_2} <= set(self.lab.log.texts()))
        receivers = [line for line in self.lab.router.run(
            "cat", "/proc/net/packet").splitlines() if line.split()[3] == "0806"]
        self.assertEqual(len(receivers), 1)

    def test_neighbour_that_changes_its_address_is_followed_once_the_kernel_forgets_it(self):
        peer = self.attach()
        self.lab.start(one_uplink())
        expect(lambda: ACTIVE in self.lab.log.texts())
        peer.mac = packets.mac_bytes("02:00:5e:20:00:99")
        self.lab.forget_neighbours("gi1_1")
        expect(lambda: any(frame.data[:6] == peer.mac for frame in peer.echo_frames()))

    def test_entry_that_is_replaced_is_used_from_the_next_probe_on(self):
        peer = self.attach(known=True)
        self.lab.start(one_uplink())
        expect(lambda: ACTIVE in self.lab.log.texts())
        self.lab.router.ip(f"neigh replace {GATEWAY} lladdr 02:00:5e:20:00:99 dev gi1_1 nud permanent")
        on_the_way = len(peer.echo_frames()) + 1
        later = expect(lambda: peer.echo_frames()[on_the_way:])
        self.assertEqual(later[0].data[:6].hex(":"), "02:00:5e:20:00:99")

    def test_next_hop_that_is_no_address_is_reported(self):
        peer = self.attach()
        self.lab.start(one_uplink(nexthop="gateway.example"))
        head = error("<check_arp_exist> Inet_aton() failed ")
        expect(lambda: any(text.startswith(head) for text in self.lab.log.texts()))
        self.assertEqual(peer.echo_requests(TARGET), [])


if __name__ == "__main__":
    main()

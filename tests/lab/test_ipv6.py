"""IPv6 uplinks: frames, neighbours, sources, verdicts, fragments, alone and beside IPv4.

    router                                          far
      gi1_1 2001:db8::10/64, 02:00:5e:10:00:01 ----- peer 2001:db8::1:2:3, 02:00:5e:20:00:01
"""
import json
import struct

import golden
from golden import in_hex, sum_over
from kit import expect, main
from kit import echo_policies as policy
from kit import packets
from scenes import ACTIVE, GATEWAY, INACTIVE, ROUTER, VIA_1, fragment, one_uplink
from scenes6 import (ACTIVE6, FAR_MAC, GATEWAY6, INACTIVE6, NEAR_MAC, ROUTER6, TARGET6, VIA_6,
                     Ipv6Test, fragment6, one_uplink6)

NEAR, FAR = NEAR_MAC.replace(":", ""), FAR_MAC.replace(":", "")


class Frames(Ipv6Test):
    def test_solicitation_has_86_bytes_in_the_order_of_the_table(self):
        self.attach()
        self.lab.start(one_uplink6())
        frame = expect(self.solicitations)[0]
        group = "ff02::1:ff02:3"
        rest = "03e8" "0000" + in_hex(GATEWAY6) + "0101" + NEAR
        total = sum_over(ROUTER6, group, "87000000" + rest)
        self.assertEqual(frame.data.hex(), (
            "3333ff020003" + NEAR + "86dd" "60000000" "0020" "3a" "ff"
            + in_hex(ROUTER6) + in_hex(group) + "8700" + total + rest))

    def test_echo_has_66_bytes_in_the_order_of_the_table(self):
        peer = self.attach()
        daemon = self.lab.start(one_uplink6())
        frame = expect(peer.echo_frames)[0]
        self.assertEqual(frame.data.hex(), golden.echo6(NEAR, FAR, daemon.pid & 0xFFFF,
                                                        frame.message.packet_id))

    def test_tunnels_word_in_the_name_changes_nothing(self):
        peer = self.lab.uplink("gre_1", address6=ROUTER6 + "/64", gateway6=GATEWAY6)
        daemon = self.lab.start(one_uplink6("gre_1"))
        frame = expect(peer.echo_frames)[0]
        self.assertEqual(frame.data.hex(), golden.echo6(NEAR, FAR, daemon.pid & 0xFFFF,
                                                        frame.message.packet_id))

    def test_both_have_right_checksums_to_scapy(self):
        peer = self.attach()
        self.lab.start(one_uplink6())
        echo = expect(peer.echo_frames)[0].decoded()
        for packet in (self.solicitations()[0].decoded(), echo):
            rebuilt = packet.copy()
            del rebuilt["IPv6"].payload.cksum
            rebuilt = type(packet)(bytes(rebuilt))
            self.assertEqual(packet["IPv6"].payload.cksum, rebuilt["IPv6"].payload.cksum)
        self.assertEqual((echo["IPv6"].hlim, echo["IPv6"].dst), (255, TARGET6))


class Neighbours(Ipv6Test):
    def test_answer_is_written_into_the_kernels_table(self):
        self.attach()
        self.lab.start(one_uplink6())
        self.assertIn(f"lladdr {FAR_MAC} REACHABLE", expect(
            lambda: "lladdr" in self.entry() and self.entry()))

    def test_known_neighbour_of_any_state_is_used_without_a_solicitation(self):
        peer = self.attach()
        self.lab.router.ip(f"neigh replace {GATEWAY6} lladdr {FAR_MAC} dev gi1_1 nud stale")
        self.lab.start(one_uplink6())
        self.assertEqual(expect(peer.echo_requests)[0].packet_id, 1)
        self.assertEqual(self.solicitations(), [])

    def test_advertisement_never_asked_for_writes_nothing(self):
        peer = self.attach()
        self.lab.start(one_uplink6())
        expect(lambda: ACTIVE6 in self.lab.log.texts())
        peer.send(packets.advertisement(peer.mac, "2001:db8::77", packets.mac_bytes(NEAR_MAC),
                                        ROUTER6))
        self.lab.cycles.never(lambda: "lladdr" in self.entry("2001:db8::77"), cycles=1)

    def test_first_option_of_an_advertisement_is_taken_whatever_its_type(self):
        peer = self.attach()
        peer.arp_silent = True
        self.lab.start(one_uplink6())
        expect(self.solicitations)
        plain = packets.advertisement(peer.mac, GATEWAY6, packets.mac_bytes(NEAR_MAC), ROUTER6)
        option_type = 78  # of the first option: 2 is the target's link-layer address, 1 the source's
        peer.send(plain[:option_type] + b"\x01" + plain[option_type + 1:])
        expect(lambda: f"lladdr {FAR_MAC}" in self.entry())

    def test_advertisement_behind_an_extension_header_is_not_recognised(self):
        peer = self.attach()
        peer.arp_silent = True
        self.lab.start(one_uplink6())
        expect(self.solicitations)
        plain = packets.advertisement(peer.mac, GATEWAY6, packets.mac_bytes(NEAR_MAC), ROUTER6)
        options = bytes.fromhex("3a00050200000000")  # hop-by-hop: router alert, padding
        length = struct.unpack("!H", plain[18:20])[0] + len(options)
        peer.send(plain[:18] + struct.pack("!HB", length, 0) + plain[21:54] + options + plain[54:])
        self.lab.cycles.never(lambda: "lladdr" in self.entry(), cycles=2)

    def test_next_hop_in_another_spelling_never_matches(self):
        peer = self.attach()
        self.lab.start(one_uplink6(nexthop="2001:DB8::1:2:3"))
        expect(lambda: len(self.solicitations()) >= 2)
        self.assertNotIn("lladdr", self.entry())
        self.assertEqual(peer.echo_requests(), [])

    def test_word_dhcp_is_handed_to_the_neighbour_prober(self):
        self.attach()
        daemon = self.lab.start(one_uplink6(nexthop="dhcp"))
        expect(lambda: "inet_pton() failed.\nError message: Success" in daemon.stderr)
        self.assertIn("%WAN-W-WARN: Failed to get routers option from DHCP on interface "
                      "gigabitethernet 1/0/1", expect(self.lab.log.errors))

    def test_neighbour_that_changes_its_mac_is_followed_once_the_kernel_forgets_it(self):
        peer = self.attach()
        self.lab.start(one_uplink6())
        expect(lambda: ACTIVE6 in self.lab.log.texts())
        peer.mac = packets.mac_bytes("02:00:5e:20:00:77")
        self.lab.forget_neighbours("gi1_1")
        expect(lambda: "02:00:5e:20:00:77" in self.entry())

    def test_entry_that_is_replaced_is_used_from_the_next_probe_on(self):
        peer = self.attach()
        self.lab.start(one_uplink6())
        expect(lambda: ACTIVE6 in self.lab.log.texts())
        self.lab.router.ip(f"neigh replace {GATEWAY6} lladdr 02:00:5e:20:00:77 dev gi1_1 nud permanent")
        on_the_way = len(peer.echo_frames()) + 1
        later = expect(lambda: peer.echo_frames()[on_the_way:])
        self.assertEqual(later[0].data[:6].hex(":"), "02:00:5e:20:00:77")

    def test_link_local_next_hop_is_found(self):
        peer = self.attach()
        peer.addresses.add("fe80::77")
        self.lab.start(one_uplink6(nexthop="fe80::77"))
        expect(lambda: ACTIVE6 in self.lab.log.texts())


class Sources(Ipv6Test):
    def sources(self, peer):
        return [echo.source for echo in peer.echo_requests()]

    def test_link_local_address_is_taken_where_none_is_configured(self):
        peer = self.attach()
        expect(lambda: "fe80::" in self.lab.router.ip("-6 address show dev gi1_1 -tentative"))
        own = self.lab.router.ip("-6 -o address show dev gi1_1 scope link").split()[3].split("/")[0]
        self.lab.start(one_uplink6(source=None))
        self.assertEqual(expect(lambda: self.sources(peer))[0], own)

    def test_without_a_link_local_address_the_source_is_unspecified_until_there_is_one(self):
        peer = self.attach()
        self.lab.router.ip("-6 address flush dev gi1_1 scope link")
        self.know_gateway()
        self.lab.start(one_uplink6(source=None))
        self.assertEqual(expect(lambda: self.sources(peer))[0], "::")
        self.lab.router.ip("address add fe80::55/64 dev gi1_1 nodad")
        expect(lambda: self.sources(peer)[-1] == "fe80::55")

    def test_address_with_80_as_second_byte_counts_as_link_local(self):
        peer = self.attach(address6="fd80::1/64")
        self.lab.router.ip("-6 address flush dev gi1_1 scope link")
        self.know_gateway()
        self.lab.start(one_uplink6(source=None))
        self.assertEqual(expect(lambda: self.sources(peer))[0], "fd80::1")

    def test_address_of_an_interface_with_a_longer_name_is_taken_when_it_comes_first(self):
        self.lab.uplink("gi1_10", address6="fe80::10/64", gateway6="fe80::1")
        self.lab.router.ip("-6 address flush dev gi1_10 scope link")
        self.lab.router.ip("address add fe80::10/64 dev gi1_10 nodad")
        peer = self.attach()
        self.know_gateway("02:00:5e:20:00:02")
        self.lab.start(one_uplink6(source=None))
        self.assertEqual(expect(lambda: self.sources(peer))[0], "fe80::10")

    def test_unreadable_source_sends_nothing_and_says_why(self):
        peer = self.attach()
        self.know_gateway()
        self.lab.start(one_uplink6(source="2001:db8::zz"))
        expect(lambda: "%WAN-W-ERR: inet_pton() failed.\nError message: Success"
               in self.lab.log.texts())
        self.assertEqual(peer.echo_requests(), [])


class Verdicts(Ipv6Test):
    def test_uplink_is_first_reported_inactive(self):
        self.attach()
        self.lab.start(one_uplink6())
        expect(lambda: ACTIVE6 in self.lab.log.texts())
        self.assertEqual(self.lab.log.texts()[0], INACTIVE6)

    def test_answers_bring_the_uplink_up_and_silence_down(self):
        peer = self.attach()
        daemon = self.lab.routing_daemon(ipv6=True)
        self.lab.start(one_uplink6())
        expect(lambda: daemon.fragments()[-1:] == [fragment6(VIA_6)])
        peer.echo = policy.silence
        expect(lambda: daemon.fragments()[-1:] == [fragment6()])
        peer.echo = policy.answer
        expect(lambda: daemon.fragments()[-1:] == [fragment6(VIA_6)])

    def test_no_fragment_of_the_other_family_is_written(self):
        self.attach()
        self.lab.start(one_uplink6())
        expect(lambda: self.lab.fragment(ipv6=True) == fragment6(VIA_6))
        self.assertIsNone(self.lab.fragment())

    def test_address_that_vanishes_and_returns_takes_the_uplink_down_and_up(self):
        self.attach()
        self.lab.start(one_uplink6())
        expect(lambda: ACTIVE6 in self.lab.log.texts())
        self.lab.router.ip(f"address del {ROUTER6}/64 dev gi1_1")
        expect(lambda: self.lab.log.count(INACTIVE6) == 2)
        self.lab.router.ip(f"address add {ROUTER6}/64 dev gi1_1 nodad")
        expect(lambda: self.lab.log.count(ACTIVE6) == 2)

    def test_failed_solicitation_ends_the_namespaces_solicitations_for_good(self):
        self.attach()
        self.lab.router.ip("link set gi1_1 down")
        daemon = self.lab.start(one_uplink6())
        expect(lambda: "sendto() failed: Network is down" in daemon.stderr)
        self.lab.router.ip("link set gi1_1 up")
        expect(lambda: daemon.stderr.count("sendto() failed: ") >= 3)
        self.assertEqual(self.solicitations(), [])
        self.know_gateway()
        self.lab.router.ip(f"address add {ROUTER6}/64 dev gi1_1 nodad", check=False)
        expect(lambda: ACTIVE6 in self.lab.log.texts())  # probes themselves go on

    def test_echo_replies_belong_to_an_established_connection(self):
        with open("/run/known.nft", "w", encoding="ascii") as file:
            file.write("table inet lab {\n counter known { }\n chain in {\n"
                       " type filter hook input priority 0; policy accept;\n"
                       " icmpv6 type echo-reply ct state established counter name known\n }\n}\n")
        self.attach()
        self.lab.router.run("nft", "-f", "/run/known.nft")
        self.lab.start(one_uplink6())

        def known():
            listed = json.loads(self.lab.router.run("nft", "-j", "list", "counter", "inet", "lab",
                                                    "known"))
            return listed["nftables"][-1]["counter"]["packets"]
        expect(lambda: known() >= 2)
        self.assertEqual([text for text in self.lab.log.texts() if "conntrack" in text], [])


class BesideIpv4(Ipv6Test):
    def start_both(self):
        peer = self.attach(address=ROUTER + "/24", gateway=GATEWAY, known=True)
        self.lab.start(one_uplink6(conf=one_uplink()))
        expect(lambda: {ACTIVE, ACTIVE6} <= set(self.lab.log.texts()))
        return peer

    def test_families_share_an_uplink_and_have_fragments_of_their_own(self):
        self.start_both()
        expect(lambda: self.lab.fragment() == fragment(VIA_1))
        expect(lambda: self.lab.fragment(ipv6=True) == fragment6(VIA_6))

    def test_outage_of_one_family_leaves_the_other_alone(self):
        peer = self.start_both()
        peer.echo = policy.only_to({TARGET6})
        expect(lambda: self.lab.log.count(INACTIVE) == 2)
        peer.echo = policy.answer
        expect(lambda: self.lab.log.count(ACTIVE) == 2)
        self.assertEqual(self.lab.log.count(INACTIVE6), 1)
        self.assertEqual(self.lab.log.count(ACTIVE6), 1)

    def test_two_namespaces_balance_both_families_at_once(self):
        blue = self.lab.namespace("blue")
        self.attach(address=ROUTER + "/24", gateway=GATEWAY, known=True)
        self.lab.uplink("gi1_2", ROUTER + "/24", GATEWAY, address6=ROUTER6 + "/64",
                        gateway6=GATEWAY6, namespace=blue)
        conf = one_uplink6(conf=one_uplink())
        conf = one_uplink6("gi1_2", conf=conf, namespace="blue", rule="2_ipv6")
        self.lab.start(conf)
        expect(lambda: self.lab.fragment() == fragment(VIA_1))
        expect(lambda: self.lab.fragment(ipv6=True) == fragment6(VIA_6))
        expect(lambda: self.lab.fragment("blue", ipv6=True) == fragment6(VIA_6))


if __name__ == "__main__":
    main()

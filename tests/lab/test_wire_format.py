"""Frames of the IPv4 probes, byte for byte and as scapy reads them.

    router                                     far
      gi1_1 192.0.2.10/24, 02:00:5e:10:00:01 --- peer 192.0.2.1, 02:00:5e:20:00:01
      gre_1 192.0.2.10 peer 192.0.2.1 ---------- the same behind a tunnel's name
"""
import golden
from golden import word
from kit import LabTest, expect, main, ping
from kit import packets
from scenes import GATEWAY, ROUTER, TARGET, one_uplink


class EchoFrame(LabTest):
    def first_echo(self):
        peer = self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY, known=True)
        daemon = self.lab.start(one_uplink())
        return daemon, expect(peer.echo_frames)[0]

    def test_has_46_bytes_in_the_order_of_the_table(self):
        daemon, frame = self.first_echo()
        self.assertEqual(frame.data.hex(), golden.echo("02005e100001", "02005e200001",
                                                       daemon.pid & 0xFFFF, 1))

    def test_is_an_echo_request_with_right_checksums_to_scapy(self):
        daemon, frame = self.first_echo()
        packet = frame.decoded()
        sums = packet["IP"].chksum, packet["ICMP"].chksum
        rebuilt = packet.copy()
        del rebuilt["IP"].chksum, rebuilt["ICMP"].chksum
        rebuilt = type(packet)(bytes(rebuilt))
        self.assertEqual(sums, (rebuilt["IP"].chksum, rebuilt["ICMP"].chksum))
        self.assertEqual((packet["IP"].src, packet["IP"].dst, packet["IP"].ttl, packet["IP"].len),
                         (ROUTER, TARGET, 255, 32))
        self.assertEqual((packet["ICMP"].type, packet["ICMP"].id, packet["ICMP"].seq),
                         (8, daemon.pid & 0xFFFF, 0))


class ArpRequest(LabTest):
    def first_request(self):
        peer = self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY)
        self.lab.start(one_uplink())
        return expect(peer.arp_requests)[0]

    def test_has_42_bytes_in_the_order_of_the_table(self):
        self.assertEqual(self.first_request().data.hex(), (
            "ffffffffffff" "02005e100001" "0806"
            "0001" "0800" "06" "04" "0001"
            "02005e100001" "c000020a" "000000000000" "c0000201"))

    def test_asks_for_the_next_hop_to_scapy(self):
        request = self.first_request().decoded()["ARP"]
        self.assertEqual((request.op, request.psrc, request.pdst), (1, ROUTER, GATEWAY))


class TunnelMessage(LabTest):
    def first_echo(self):
        peer = self.lab.uplink("gre_1", ROUTER, GATEWAY, point_to_point=GATEWAY)
        self.lab.router.ip(f"route add {TARGET} via {GATEWAY} dev gre_1")
        daemon = self.lab.start(one_uplink("gre_1", probes=[ping(TARGET, 1000)]))
        return daemon, expect(peer.echo_frames)[0]

    def test_has_24_bytes_with_sequence_1_and_zero_padding(self):
        daemon, frame = self.first_echo()
        identifier = word(daemon.pid & 0xFFFF)
        message = "0800" "0000" + identifier + "0001" "00000001"
        total = word(packets.checksum(bytes.fromhex(message)))
        self.assertEqual(frame.data[34:].hex(),
                         "0800" + total + identifier + "0001" "00000001" + "00" * 12)

    def test_is_an_echo_request_from_the_kernels_source_to_scapy(self):
        daemon, frame = self.first_echo()
        packet = frame.decoded()
        self.assertEqual((packet["IP"].src, packet["IP"].dst, packet["IP"].len),
                         (ROUTER, TARGET, 44))
        self.assertEqual((packet["ICMP"].id, packet["ICMP"].seq), (daemon.pid & 0xFFFF, 1))


if __name__ == "__main__":
    main()

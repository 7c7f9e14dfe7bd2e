"""Flows whose source was translated to an uplink's address are forgotten, others stay.

    client                      router, masquerades              far
      lan 10.0.0.2/24 --------- 10.0.0.1/24
          2001:db8:a::2/64      2001:db8:a::1/64
                                gi1_1 192.0.2.10/24 ------------ 192.0.2.1     (silent)
                                      2001:db8:1::10/64 -------- 2001:db8:1::1
                                gi1_2 198.51.100.10/24 --------- 198.51.100.1  (silent)

The entries are made by real packets and read by conntrack(8).
"""
import os
import re
import resource
import shutil
import socket
import struct
import sys

from kit import LabTest, expect, main
from kit.daemon import ROOT
from kit.netns import Namespace
from kit.sandbox import SKIPPED

FORGET = os.environ.get("LB_FORGET_FLOWS", os.path.join(ROOT, "build", "tests", "lab", "forget_flows"))
FIRST, SECOND, FIRST6 = "192.0.2.10", "198.51.100.10", "2001:db8:1::10"
SERVER, SERVER6 = "203.0.113.9", "2001:db8:5::9"
MASQUERADE = """
table inet nat {
    chain out { type nat hook postrouting priority 100; oifname "gi1_*" masquerade; }
}
"""
MANY = 20000


def udp_packet(source, destination, port):
    """An IPv4 packet with an empty datagram from the port."""
    header = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 28, 0, 0, 64, socket.IPPROTO_UDP, 0,
                         socket.inet_aton(source), socket.inet_aton(destination))
    return header + struct.pack("!HHHH", port, 9, 8, 0)


class Flows(LabTest):
    def setUp(self):
        super().setUp()
        router = self.lab.router
        self.client = Namespace.anonymous()
        self.addCleanup(self.client.close)
        for space in (router, self.client):
            for scope in ("all", "default"):
                space.sysctl(f"ipv6/conf/{scope}/disable_ipv6", "0")
        router.ip(f"link add lan up type veth peer name lan netns {self.client.path}")
        router.ip("address add 10.0.0.1/24 dev lan")
        router.ip("address add 2001:db8:a::1/64 dev lan nodad")
        self.client.ip("address add 10.0.0.2/24 dev lan")
        self.client.ip("address add 2001:db8:a::2/64 dev lan nodad")
        self.client.ip("link set lan up")
        expect(lambda: " state UP " in router.ip("link show lan"))
        self.client.ip("route add default via 10.0.0.1")
        self.client.ip("-6 route add default via 2001:db8:a::1")
        router.sysctl("ipv4/ip_forward", "1")
        router.sysctl("ipv6/conf/all/forwarding", "1")
        self.lab.uplink("gi1_1", FIRST + "/24", "192.0.2.1", address6=FIRST6 + "/64", known=True)
        router.ip("neigh replace 2001:db8:1::1 lladdr " + self.lab.macs()[1] + " dev gi1_1 nud permanent")
        self.lab.uplink("gi1_2", SECOND + "/24", "198.51.100.1", known=True)
        router.ip("-6 route add default via 2001:db8:1::1")
        self.route_over("192.0.2.1")
        path = os.path.join(self.folder, "nat.nft")
        with open(path, "w", encoding="ascii") as file:
            file.write(MASQUERADE)
        router.run("nft", "-f", path)

    def route_over(self, gateway):
        self.lab.router.ip(f"route replace default via {gateway}")

    def entries(self, *words):
        """conntrack's lines of the IPv4 (or, with -f ipv6, IPv6) table."""
        return self.lab.router.run("conntrack", "-L", *words).splitlines()

    def translated_to(self, address, *words):
        return [line for line in self.entries(*words) if len(re.findall(rf"dst={address}(?!\S)", line)) == 1
                and f"src={address} " not in line]

    def forget(self, *addresses):
        """How many were forgotten, as the program says."""
        return self.lab.router.run(FORGET, *addresses).strip()

    def client_socket(self, family, kind, protocol=0):
        made = self.client.socket(family, kind, protocol)
        self.addCleanup(made.close)
        made.setblocking(False)
        return made

    def send_udp(self, server=SERVER, family=socket.AF_INET):
        flow = self.client_socket(family, socket.SOCK_DGRAM)
        flow.connect((server, 5000))
        flow.send(b"")
        return flow

    def send_tcp(self, server=SERVER, family=socket.AF_INET):
        self.client_socket(family, socket.SOCK_STREAM).connect_ex((server, 5000))

    def send_echo(self):
        raw = self.client_socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)
        raw.sendto(struct.pack("!BBHHH", 8, 0, 0xffff - 0x0800 - 77, 77, 0), (SERVER, 0))

    def send_echo6(self):
        raw = self.client_socket(socket.AF_INET6, socket.SOCK_RAW, socket.IPPROTO_ICMPV6)
        raw.sendto(struct.pack("!BBHHH", 128, 0, 0, 77, 0), (SERVER6, 0))  # the kernel adds the checksum

    def test_flows_of_every_protocol_and_both_families_go(self):
        self.send_udp()
        self.send_tcp()
        self.send_echo()
        self.send_udp(SERVER6, socket.AF_INET6)
        self.send_tcp(SERVER6, socket.AF_INET6)
        self.send_echo6()
        expect(lambda: len(self.translated_to(FIRST)) == 3)
        expect(lambda: len(self.translated_to(FIRST6, "-f", "ipv6")) == 3)
        self.assertEqual(self.forget(FIRST, FIRST6), "6")
        self.assertEqual(self.translated_to(FIRST), [])
        self.assertEqual(self.translated_to(FIRST6, "-f", "ipv6"), [])

    def test_flows_of_another_uplink_stay(self):
        self.send_udp()
        self.route_over("198.51.100.1")
        self.send_udp()
        self.send_tcp()
        expect(lambda: len(self.translated_to(SECOND)) == 2)
        before = self.translated_to(SECOND)
        self.assertEqual(self.forget(FIRST), "1")
        self.assertEqual(self.translated_to(FIRST), [])
        # The lines but for the seconds that are left.
        self.assertEqual([re.sub(r" \d+ ", " ", line, count=1) for line in self.translated_to(SECOND)],
                         [re.sub(r" \d+ ", " ", line, count=1) for line in before])

    def test_flows_that_are_not_translated_stay(self):
        own = self.lab.router.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(own.close)
        own.connect((SERVER, 5001))
        own.send(b"")
        self.client_socket(socket.AF_INET, socket.SOCK_DGRAM).sendto(b"", ("10.0.0.1", 5002))
        expect(lambda: len(self.entries("-p", "udp", "--dport", "5001")) == 1)
        expect(lambda: len(self.entries("-p", "udp", "--dport", "5002")) == 1)
        self.assertEqual(self.forget(FIRST, SECOND, "10.0.0.1"), "0")
        self.assertEqual(len(self.entries("-p", "udp", "--dport", "5001")), 1)
        self.assertEqual(len(self.entries("-p", "udp", "--dport", "5002")), 1)

    def test_connection_forwarded_to_a_host_inside_stays(self):
        self.lab.router.run("conntrack", "-I", "-p", "tcp", "-s", SERVER, "-d", FIRST, "--sport", "4000",
                            "--dport", "8080", "-r", "10.0.0.2", "-q", SERVER, "--reply-port-src", "80",
                            "--reply-port-dst", "4000", "--state", "ESTABLISHED", "-t", "300")
        self.assertEqual(self.forget(FIRST), "0")
        self.assertEqual(len(self.entries("-p", "tcp", "--dport", "8080")), 1)

    def test_flow_that_keeps_talking_gets_the_address_of_its_new_uplink(self):
        flow = self.send_udp()
        expect(lambda: len(self.translated_to(FIRST)) == 1)
        self.route_over("198.51.100.1")
        flow.send(b"")
        self.assertEqual(self.translated_to(SECOND), [], "the entry outlives the change of the route")
        self.forget(FIRST)
        flow.send(b"")
        expect(lambda: len(self.translated_to(SECOND)) == 1)

    def test_many_entries_are_forgotten_at_once(self):
        raw = self.client.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW)
        self.addCleanup(raw.close)
        for i in range(MANY):
            raw.sendto(udp_packet("10.0.0.2", SERVER, 1024 + i), (SERVER, 0))

        def count():
            return int(self.lab.router.run("conntrack", "-C"))
        expect(lambda: count() >= MANY, within=30)
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        forgotten = self.forget(FIRST)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        # Of a processor: others may keep this machine busy.
        spent_s = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
        self.assertGreaterEqual(int(forgotten), MANY)
        self.assertLess(count(), 20)
        self.assertLess(spent_s, 2, "process start included")
        print(f"{forgotten} entries in {spent_s * 1000:.0f} ms", file=sys.stderr)

    def test_namespace_without_entries_has_nothing_to_forget(self):
        self.assertEqual(self.lab.far.run(FORGET, FIRST, FIRST6).strip(), "0")

    def test_process_without_the_right_says_so(self):
        with self.assertRaisesRegex(RuntimeError, "cannot delete connection-tracking entries: "
                                                  "Operation not permitted"):
            self.lab.router.run("setpriv", "--bounding-set", "-net_admin", FORGET, FIRST)


if __name__ == "__main__":
    missing = [tool for tool in ("conntrack", "nft") if shutil.which(tool) is None]
    if missing:
        print(f"skipped: {', '.join(missing)} missing; run: sudo scripts/deps test")
        sys.exit(SKIPPED)
    main()

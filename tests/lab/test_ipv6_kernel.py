"""Between the daemon and its kernel: what it asks, and what the kernel keeps away from it.

    router                                          far
      gi1_1 2001:db8::10/64, 02:00:5e:10:00:01 ----- peer 2001:db8::1:2:3, 02:00:5e:20:00:01
"""
import json
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import unittest

from kit import expect, main, packets
from kit import echo_policies as policy
from scenes6 import (ACTIVE6, GATEWAY6, INACTIVE6, NEAR_MAC, ROUTER6, Ipv6Test,
                     one_uplink6)

FLOOD = 2000
NEAR = packets.mac_bytes(NEAR_MAC)


class Filters(Ipv6Test):
    """The daemon stands still meanwhile, so whatever reaches a socket of it stays there to be seen."""

    def setUp(self):
        super().setUp()
        self.peer = self.attach()
        self.daemon = self.lab.start(one_uplink6())
        expect(self.logged(ACTIVE6))
        self.know_gateway()
        self.peer.echo = policy.silence
        expect(lambda: self.lab.log.count(INACTIVE6) == 2)
        self.addCleanup(os.kill, self.daemon.pid, signal.SIGCONT)
        os.kill(self.daemon.pid, signal.SIGSTOP)
        expect(self.stands_still)

    def stands_still(self):
        states = []
        for task in os.listdir(f"/proc/{self.daemon.pid}/task"):
            with open(f"/proc/{self.daemon.pid}/task/{task}/stat", encoding="ascii") as file:
                states.append(file.read().rpartition(") ")[2][0])
        return set(states) == {"T"}

    def unread(self):
        """Bytes that wait in the router's packet sockets and raw ICMPv6 sockets."""
        rows = {name: [line.split() for line in
                       self.lab.router.run("cat", f"/proc/net/{name}").splitlines()[1:]]
                for name in ("packet", "raw6")}
        self.assertTrue(rows["packet"] and rows["raw6"])
        return (sum(int(row[6]) for row in rows["packet"]),
                sum(int(row[4].partition(":")[2], 16) for row in rows["raw6"]))

    def received(self):
        link, = json.loads(self.lab.router.ip("-j -s link show gi1_1"))
        return link["stats64"]["rx"]["packets"]

    def flood(self, frames):
        before = self.received()
        for number in range(FLOOD):
            self.peer.send(frames[number % len(frames)])
        expect(lambda: self.received() >= before + FLOOD)

    def test_unrelated_frames_reach_no_socket_of_the_daemon(self):
        before = self.unread()
        udp = bytes.fromhex("1389138900080000")
        header = struct.pack("!IHBB", 6 << 28, len(udp), socket.IPPROTO_UDP, 64)
        datagram = packets.ethernet(NEAR, self.peer.mac, packets.IPV6, header
                                    + packets.packed(GATEWAY6) + packets.packed(ROUTER6) + udp)
        foreign = packets.Echo(self.peer.mac, GATEWAY6, ROUTER6, 1, 1, b"\xff" * 56, request=False)
        self.flood([datagram, packets.echo(foreign, self.peer.mac, NEAR),
                    packets.arp(2, self.peer.mac, "192.0.2.1", NEAR, "192.0.2.10")])
        self.assertEqual(self.unread(), before)

    def test_advertisement_reaches_the_daemon(self):
        before = self.unread()[0]
        self.peer.send(packets.advertisement(self.peer.mac, "2001:db8::77", NEAR, ROUTER6))
        expect(lambda: self.unread()[0] > before)

    def test_reply_to_a_probe_reaches_the_daemon(self):
        before = self.unread()[1]
        request = self.peer.echo_requests()[-1]
        self.peer.send(packets.echo(request.reply(), self.peer.mac, NEAR))
        expect(lambda: self.unread()[1] > before)


@unittest.skipUnless(shutil.which("strace"), "strace is not installed")
class NeighbourQuery(Ipv6Test):
    def query(self):
        """The first dump request of the neighbour table in strace's words, numbers as they are."""
        self.attach()
        daemon = self.lab.start(one_uplink6())
        path = "/run/calls"
        with subprocess.Popen(["strace", "-qq", "-f", "-v", "-xx", "-X", "raw", "-e", "trace=sendmsg",
                               "-o", path, "-p", str(daemon.pid)]) as strace:
            try:
                return expect(lambda: next((line for line in self.lines(path)
                                            if "nlmsg_type=0x1e" in line), None))
            finally:
                self.end(strace)

    @staticmethod
    def end(strace):
        """It may hang while it lets go of a busy process."""
        strace.send_signal(signal.SIGINT)
        try:
            strace.wait(5)
        except subprocess.TimeoutExpired:
            strace.kill()

    @staticmethod
    def lines(path):
        if not os.path.exists(path):
            return []
        with open(path, encoding="ascii") as file:
            return [line for line in file.read().split("\n")[:-1] if line.endswith("= 28")]

    def test_header_and_neighbour_message_are_two_buffers_of_one_message(self):
        sent = self.query()
        self.assertEqual(re.findall(r"iov_len=(\d+)", sent), ["16", "12"])
        head = re.search(r"nlmsg_len=(\w+), nlmsg_type=0x1e[^,]*, nlmsg_flags=(\w+)[^,]*, "
                         r"nlmsg_seq=(\w+), nlmsg_pid=(\w+)", sent)
        self.assertEqual([int(word, 0) for word in head.groups()], [28, 0x301, 0, 0])
        self.assertIn('"' + r"\x0a" + r"\x00" * 11 + '"', sent)


if __name__ == "__main__":
    main()

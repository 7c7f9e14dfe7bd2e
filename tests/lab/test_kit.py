"""What no test of the daemon would miss in the lab kit: lies that are not told, and failures that are not failed.

No daemon takes part; the kernel's own stack tries the peers.

    router                      far
      gi1_1 192.0.2.10/24 ------ scripted peer, answers as 192.0.2.1
"""
import os
import socket
import struct
import subprocess
import time
import unittest.mock

import soak_told as told

from kit import LabTest, expect, main
from kit import echo_policies as policy
from kit import packets
from kit.daemon import Daemon
from kit.peer import Peer


class KernelPing:
    """Echo requests through the router kernel's own stack."""

    def __init__(self, namespace, target, ident=0x4242):
        self._socket = namespace.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)
        self._target, self._ident = target, ident

    def send(self, sequence, payload=b"\0\0\0\1"):
        body = struct.pack("!HH", self._ident, sequence) + payload
        kind = bytes([packets.ECHO_REQUEST[4], 0])
        total = packets.checksum(kind + b"\0\0" + body)
        self._socket.sendto(kind + struct.pack("!H", total) + body, (self._target, 0))

    def replies(self, count=1, within=15):
        """(source, identifier, sequence, payload) of the next echo replies."""
        found, deadline = [], time.monotonic() + within
        while len(found) < count and (left := deadline - time.monotonic()) > 0:
            self._socket.settimeout(left)
            try:
                data, address = self._socket.recvfrom(2048)
            except TimeoutError:
                break
            icmp = data[(data[0] & 15) * 4:]
            if icmp[0] == packets.ECHO_REPLY[4]:
                found.append((address[0], *struct.unpack("!HH", icmp[4:8]), icmp[8:]))
        return found

    def close(self):
        self._socket.close()


class ScriptedPeer(LabTest):
    """Policies whose answers count like honest ones: a policy that did nothing would go unseen."""

    def setUp(self):
        super().setUp()
        self.peer = self.lab.uplink("gi1_1", "192.0.2.10/24", "192.0.2.1")
        self.ping = KernelPing(self.lab.router, "192.0.2.1")
        self.addCleanup(self.ping.close)

    def sequences(self, requests, replies=None):
        """The sequence numbers of as many replies, in the order in which they come."""
        for sequence in range(1, requests + 1):
            self.ping.send(sequence)
            # A link may reorder what leaves from two processors.
            expect(lambda count=sequence: len(self.peer.echo_requests()) >= count)
        found = self.ping.replies(requests if replies is None else replies)
        return [sequence for _, _, sequence, _ in found]

    def test_duplicates(self):
        self.peer.echo = policy.duplicated(2)
        self.assertEqual(self.sequences(2, replies=4), [1, 1, 2, 2])

    def test_reorders(self):
        self.peer.echo = policy.reordered(3)
        self.assertEqual(self.sequences(3), [3, 2, 1])

    def test_lies_about_source_sequence_and_identifier(self):
        self.peer.echo = policy.lying(source="203.0.113.9", sequence=77, identifier=5)
        self.ping.send(1)
        self.assertEqual(self.ping.replies(), [("203.0.113.9", 5, 77, b"\0\0\0\1")])

    def test_delays_its_arp_answers(self):
        self.peer.arp_delay_s = 0.5
        self.assertEqual(self.sequences(1), [1])
        self.assertGreaterEqual(self.peer.echo_frames()[0].time_s - self.peer.arp_requests()[0].time_s,
                                0.5)

    def test_saves_a_capture_that_scapy_reads(self):
        from scapy.layers import inet  # noqa: F401
        from scapy.utils import rdpcap
        self.sequences(1)
        path = os.path.join(self.folder, "seen.pcap")
        self.peer.recording.save(path)
        frames = rdpcap(path)
        self.assertEqual([kind for frame in frames if "ICMP" in frame
                          for kind in [frame["ICMP"].type]], [8, 0])


class DaemonThatStandsStill(LabTest):
    """A stand-in for the daemon's keep-alives, and no patience with it."""

    def setUp(self):
        super().setUp()
        patience = unittest.mock.patch("kit.cycles.patience_s", lambda cycles: 0.2)
        patience.start()
        self.addCleanup(patience.stop)

    def cycle(self):
        """One more cycle ends."""
        before = self.lab.cycles.count()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.sendto(b"WATCHDOG=1", self.lab.keep_alives.environment["NOTIFY_SOCKET"])
        expect(lambda: self.lab.cycles.count() > before)

    def test_fails_who_expects_nothing_to_happen(self):
        with self.assertRaisesRegex(AssertionError, "2 cycles pass by"):
            self.lab.cycles.never(lambda: False, cycles=2)

    def test_fails_who_lets_cycles_pass_by(self):
        with self.assertRaisesRegex(AssertionError, "1 cycles pass by"):
            self.lab.cycles.pass_by(1)

    def test_what_happens_after_all_is_not_waited_for(self):
        with self.assertRaisesRegex(AssertionError, "happened \\(7\\)"):
            self.lab.cycles.never(lambda: 7, cycles=2)

    def test_cycle_under_way_is_no_whole_one(self):
        looks = []

        def look():
            looks.append(self.lab.cycles.count())
            self.cycle()
        self.lab.cycles.never(look, cycles=2)
        self.assertEqual(looks, [0, 1, 2, 3])


class PeerThatFalls(LabTest):
    def test_far_end_that_falls_over_a_frame_fails_the_test(self):
        peer = Peer(self.lab.router, "lo", "02:00:5e:20:00:01", ["192.0.2.1"])
        truncated = packets.ethernet(packets.BROADCAST, peer.mac, packets.IPV4, bytes(9) + bytes([packets.ICMP]) + bytes(18))
        self.lab.router.ip("link set lo up")
        with self.lab.router.socket(socket.AF_PACKET, socket.SOCK_RAW, 0) as other:
            with self.lab.router.inside():
                other.bind(("lo", 0))
            other.send(truncated)
        expect(lambda: not peer._thread.is_alive())  # pylint: disable=protected-access
        with self.assertRaisesRegex(AssertionError, "the far end of lo fell over a frame"):
            peer.close()


class DaemonUnderTest(LabTest):
    def start(self, script):
        """A shell script in the daemon's place."""
        path = "/run/stand-in"
        with open(path, "w", encoding="ascii") as file:
            file.write("#!/bin/sh\n" + script)
        os.chmod(path, 0o755)
        environment = unittest.mock.patch.dict(os.environ, {"LB_BINARY": path})
        with environment:
            return Daemon(self.lab.router, [], self.folder)

    def test_report_of_a_sanitizer_fails_the_test(self):
        for report in ("echo 'WARNING: ThreadSanitizer: data race' >&2",
                       'echo "ERROR: AddressSanitizer" > "$(echo $ASAN_OPTIONS | sed "s/.*log_path=//; s/:.*//")".1'):
            with self.subTest(report):
                daemon = self.start(report + "\n")
                daemon.wait()
                with self.assertRaisesRegex(AssertionError, "sanitizer report"):
                    daemon.stop()

    def test_daemon_that_does_not_die_of_the_signal_fails_the_test(self):
        for script, said in (("trap '' TERM; while :; do sleep 0.1; done\n", "did not end"),
                             ("trap 'exit 7' TERM; while :; do sleep 0.1; done\n", "ended with 7 on SIGTERM")):
            with self.subTest(said), unittest.mock.patch("kit.daemon.END_S", 1):
                daemon = self.start(script.replace("; while", "; echo ready; while"))
                expect(lambda daemon=daemon: daemon.stdout)
                with self.assertRaisesRegex(AssertionError, said):
                    daemon.stop()

    @unittest.skipUnless(os.environ.get("LB_LEAK_CHECK"), "only the address sanitizer looks for leaks")
    def test_leak_of_a_daemon_that_a_signal_ends_fails_the_test(self):
        source = "/run/leak.cpp"
        with open(source, "w", encoding="ascii") as file:
            file.write("#include <unistd.h>\nint* kept;\n"
                       "int main() { kept = new int[1000]; kept = nullptr; write(1, \"x\", 1); pause(); }\n")
        subprocess.run(["clang++", "-fsanitize=address", "-O0", source, "-o", "/run/leak"], check=True)
        with unittest.mock.patch.dict(os.environ, {"LB_BINARY": "/run/leak"}):
            daemon = Daemon(self.lab.router, [], self.folder)
        expect(lambda: daemon.stdout)
        with self.assertRaisesRegex(AssertionError, "ERROR: LeakSanitizer"):
            daemon.stop()

    def test_daemon_that_ends_by_itself_fails_the_test(self):
        daemon = self.start("exit 3\n")
        expect(lambda: not daemon.running())
        with self.assertRaisesRegex(AssertionError, "ended with 3"):
            daemon.stop()


def uplink_event(before, after, at=0, **fields):
    return {"time": at, "event": "uplink", "uplink": "gi1_1", "family": 4, "namespace": "", "target": None, "rule": None,
            "destinations": [], "from": before, "to": after, **fields}


class SoakThatWasTold(unittest.TestCase):
    """The soak's reckoning finds what an hour of soaking should not show. The uplink works but from 100 to 200 s."""

    PAST = [(0, True), (100, False), (200, True)]

    def account(self, *told_states, past=None, was_late=lambda *_: False):
        account = told.Account()
        account.judge("gi1_1", past or self.PAST, [(-1, True), *told_states], 300, lambda at: at + 15, was_late)
        return account

    def test_all_is_well(self):
        account = self.account((106, False), (203, True))
        self.assertEqual((account.lines, account.stretches, account.outages), ([], 3, 1))

    def test_outage_that_is_not_told(self):
        self.assertEqual(len(self.account().lines), 1)

    def test_outage_that_is_told_too_late(self):
        self.assertEqual(len(self.account((120, False), (203, True)).lines), 2)

    def test_outage_that_never_was(self):
        self.assertEqual(len(self.account((50, False), (53, True), (106, False), (203, True)).lines), 1)

    def test_outage_shorter_than_the_daemon_sees_may_be_told_or_not(self):
        past = [(0, True), (100, False), (110, True)]
        for seen in ([], [(106, False), (113, True)]):
            account = self.account(*seen, past=past)
            self.assertEqual((account.lines, account.stretches, account.outages), ([], 2, 0))

    def test_far_end_that_was_late_itself_is_left_out_and_counted(self):
        account = self.account((50, False), (53, True), (106, False), (203, True), was_late=lambda begin, end: begin < 50 < end)
        self.assertEqual((account.lines, account.stretches, account.left_out), ([], 2, 1))

    def test_event_that_is_lost_or_doubled(self):
        events = [uplink_event("active", "failed", 1), uplink_event("failed", "active", 2)]
        self.assertEqual(told.differences("a", events[::-1], events), [])
        self.assertEqual(len(told.differences("a", events[1:], events)), 1)
        self.assertEqual(len(told.differences("a", events + events[:1], events)), 1)
        self.assertEqual(told.broken_chains(events), [])
        self.assertEqual(len(told.broken_chains(events + events[1:])), 1)
        self.assertEqual(len(told.broken_chains(events[:1] + events[:1])), 1)
        self.assertEqual(told.broken_chains(events[:1] + [uplink_event("active", "failed", 1, namespace="ns1")]), [])

    def test_time_down(self):
        self.assertEqual(told.down_s(self.PAST, 300), 100)
        self.assertEqual(told.down_s(self.PAST[:2], 300), 200)


class Sandbox(LabTest):
    def test_the_machines_own_paths_are_out_of_reach(self):
        for path in ("/usr/etc", "/run", "/var/db", "/var/vrfs", "/dev"):
            with open("/proc/self/mounts", encoding="utf-8") as mounts:
                kinds = [line.split()[2] for line in mounts if line.split()[1] == path]
            self.assertEqual(kinds[-1:], ["tmpfs"], path)

    def test_a_named_namespace_is_gone_after_its_lab(self):
        self.lab.namespace("blue")
        self.assertTrue(os.path.exists("/var/run/netns/blue"))
        self.lab.close()
        self.assertFalse(os.path.exists("/var/run/netns/blue"))


if __name__ == "__main__":
    main()

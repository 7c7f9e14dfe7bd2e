"""The lab kit itself, tried by the kernel's own stack: no daemon takes part.

    router                      far
      gi1_1 192.0.2.10/24 ------ scripted peer, answers as 192.0.2.1
      gi1_2 2001:db8::10/64 ---- scripted peer, answers as 2001:db8::1
"""
import os
import signal
import socket
import struct
import subprocess
import sys
import time
import unittest.mock

from kit import LabTest, expect, main
from kit import echo_policies as policy
from kit import packets
from kit.daemon import Daemon
from kit.routing_daemon import fragment_path


class KernelPing:
    """Echo requests through the router kernel's own stack."""

    def __init__(self, namespace, target, ident=0x4242):
        self.version = packets.ipaddress.ip_address(target).version
        family, protocol = {4: (socket.AF_INET, 1), 6: (socket.AF_INET6, 58)}[self.version]
        self._socket = namespace.socket(family, socket.SOCK_RAW, protocol)
        self._target, self._ident = target, ident

    def send(self, sequence, payload=b"\0\0\0\1"):
        body = struct.pack("!HH", self._ident, sequence) + payload
        kind = bytes([packets.ECHO_REQUEST[self.version], 0])
        total = packets.checksum(kind + b"\0\0" + body)
        self._socket.sendto(kind + struct.pack("!H", total) + body, (self._target, 0))

    def replies(self, count=1, within=5):
        """(source, identifier, sequence, payload) of the next echo replies."""
        found, deadline = [], time.monotonic() + within
        while len(found) < count and (left := deadline - time.monotonic()) > 0:
            self._socket.settimeout(left)
            try:
                data, address = self._socket.recvfrom(2048)
            except TimeoutError:
                break
            icmp = data if self.version == 6 else data[(data[0] & 15) * 4:]
            if icmp[0] == packets.ECHO_REPLY[self.version]:
                found.append((address[0], *struct.unpack("!HH", icmp[4:8]), icmp[8:]))
        return found

    def close(self):
        self._socket.close()


class ScriptedPeer(LabTest):
    def setUp(self):
        super().setUp()
        self.peer = self.lab.uplink("gi1_1", "192.0.2.10/24", "192.0.2.1")
        self.ping = KernelPing(self.lab.router, "192.0.2.1")
        self.addCleanup(self.ping.close)

    def sequences(self, requests, replies=None):
        """The sequence numbers of as many replies, in the order in which they come."""
        before = len(self.peer.echo_requests())
        for sequence in range(1, requests + 1):
            self.ping.send(sequence)
            # A link may reorder what leaves from two processors.
            expect(lambda count=before + sequence: len(self.peer.echo_requests()) >= count)
        found = self.ping.replies(requests if replies is None else replies)
        return [sequence for _, _, sequence, _ in found]

    def test_answers_arp_and_echo_of_the_kernel(self):
        self.assertEqual(self.sequences(1), [1])
        self.assertEqual(self.peer.echo_requests()[0].source, "192.0.2.10")
        self.assertEqual(len(self.peer.arp_requests("192.0.2.1")), 1)

    def test_scapy_decodes_what_was_seen(self):
        self.sequences(1)
        frame = self.peer.echo_frames()[0].decoded()
        self.assertEqual((frame["IP"].dst, frame["ICMP"].seq), ("192.0.2.1", 1))

    def test_drops_every_third(self):
        self.peer.echo = policy.drop_every(3)
        self.assertEqual(self.sequences(6, replies=4), [1, 2, 4, 5])

    def test_delays(self):
        self.peer.echo = policy.delayed(0.3)
        begin = time.monotonic()
        self.assertEqual(self.sequences(1), [1])
        self.assertGreaterEqual(time.monotonic() - begin, 0.3)

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

    def test_sends_ip_options(self):
        self.peer.echo = policy.lying(ip_options=b"\x01\x01\x01\x01")
        self.assertEqual(self.sequences(1), [1])

    def test_is_silent_for_arp_only(self):
        self.peer.arp_silent = True
        self.ping.send(1)
        self.assertEqual(self.ping.replies(within=0.4), [])
        self.lab.router.ip("neigh replace 192.0.2.1 lladdr 02:00:5e:20:00:01 dev gi1_1")
        self.assertIn(1, self.sequences(1))

    def test_answers_arp_from_the_third_request_on(self):
        self.peer.arp_answers_from = 3
        self.ping.send(1)
        self.assertEqual(len(self.ping.replies(within=15)), 1)
        self.assertGreaterEqual(len(self.peer.arp_requests("192.0.2.1")), 3)

    def test_delays_its_arp_answers(self):
        self.peer.arp_delay_s = 0.5
        self.assertEqual(self.sequences(1), [1])
        self.assertGreaterEqual(self.peer.echo_frames()[0].time_s - self.peer.arp_requests()[0].time_s,
                                0.5)

    def test_takes_nothing_that_is_meant_for_another_hardware_address(self):
        self.lab.router.ip("neigh replace 192.0.2.1 lladdr 02:00:5e:20:00:99 dev gi1_1")
        self.ping.send(1)
        expect(self.peer.echo_requests)
        self.assertEqual(self.ping.replies(within=0.4), [])

    def test_link_down_takes_the_carrier(self):
        self.peer.link("down")
        expect(lambda: "NO-CARRIER" in self.lab.router.ip("link show gi1_1"))
        self.peer.link("up")
        expect(lambda: "NO-CARRIER" not in self.lab.router.ip("link show gi1_1"))
        self.assertEqual(self.sequences(1), [1])

    def test_saves_a_capture_that_scapy_reads(self):
        from scapy.layers import inet  # noqa: F401
        from scapy.utils import rdpcap
        self.sequences(1)
        path = os.path.join(self.folder, "seen.pcap")
        self.peer.recording.save(path)
        frames = rdpcap(path)
        self.assertEqual([kind for frame in frames if "ICMP" in frame
                          for kind in [frame["ICMP"].type]], [8, 0])


class ScriptedPeerOfIPv6(LabTest):
    def test_answers_solicitations_and_echo_of_the_kernel(self):
        peer = self.lab.uplink("gi1_2", address6="2001:db8::10/64", gateway6="2001:db8::1")
        ping = KernelPing(self.lab.router, "2001:db8::1")
        self.addCleanup(ping.close)
        ping.send(9)
        self.assertEqual([reply[:3] for reply in ping.replies()],
                         [("2001:db8::1", 0x4242, 9)])
        self.assertEqual(peer.echo_requests()[0].source, "2001:db8::10")


class Captures(LabTest):
    def test_system_log_keeps_severity_identity_and_pid(self):
        child = subprocess.Popen([sys.executable, "-c", (
            "import syslog\n"
            "syslog.openlog('wan_lb', syslog.LOG_PID, syslog.LOG_DAEMON)\n"
            "syslog.syslog(4, 'two\\nlines')")])
        child.wait()
        line = expect(self.lab.log.lines)[0]
        self.assertEqual((line.facility, line.severity, line.identity, line.pid, line.text),
                         (3, 4, "wan_lb", child.pid, "two\nlines"))

    def test_routing_daemon_records_signal_sender_and_fragment(self):
        captured = self.lab.routing_daemon()
        with open(fragment_path(), "w", encoding="ascii") as file:
            file.write("first")
        os.kill(captured.pid, signal.SIGHUP)
        hup = expect(captured.hups)[0]
        self.assertEqual((hup["fragment"], hup["sender"]), ("first", os.getpid()))

    def test_pid_files_lie_where_routers_have_them(self):
        self.lab.namespace("blue")
        default, blue = self.lab.routing_daemon(), self.lab.routing_daemon("blue", ipv6=True)
        with open("/var/run/routing.pid", encoding="ascii") as file:
            self.assertEqual(file.read(), f"{default.pid}\n")
        with open("/var/vrfs/blue/usr/var/run/routing6.pid", encoding="ascii") as file:
            self.assertEqual(file.read(), f"{blue.pid}\n")

    def test_keep_alives_are_kept(self):
        alive = self.lab.keep_alives()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.sendto(b"READY=1\nWATCHDOG=1", alive.environment["NOTIFY_SOCKET"])
        expect(lambda: alive.times("READY=1") and alive.times("WATCHDOG=1"))


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

    def test_daemon_that_ends_by_itself_fails_the_test(self):
        daemon = self.start("exit 3\n")
        expect(lambda: not daemon.running())
        with self.assertRaisesRegex(AssertionError, "ended with 3"):
            daemon.stop()

    def test_daemon_that_runs_until_it_is_stopped_is_fine(self):
        daemon = self.start("exec sleep 60\n")
        daemon.stop()
        self.assertFalse(daemon.running())


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

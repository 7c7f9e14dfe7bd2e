"""Extended pings over real devices whose far end's kernel loses and delays, held to the frames that came through.

Four routers, each a namespace with a worker of its own and one uplink, and each with a provider in another one:

    vlan     gi1_1 = VLAN 10 of bond0 of w0, w1  == two veths ==  w0, w1 of bond0, VLAN 10 is v10
    bridge   gi1_2 = bridge with the port w0     -- veth --       w0
    gre      gre_1     198.51.100.1 peer .2      == GRE on w0 ==  gre_1
    ipip     ip4ip4_1  198.51.100.1 peer .2      == IPIP on w0 == ip4ip4_1

The provider's kernel answers; netem stands before the answers, on the provider's last device. What it lost is told by its
own counters, what came through and when by a capture on the router's device.
"""
import collections
import dataclasses
import json
import re
import socket
import struct
import subprocess
import threading
import time

from guest_lab import Conf, GuestTest, expect, main

from kit import ping_ext
from kit.lbshow import lbshow

LOSS_PERCENT, DELAY_MS, VARIATION_MS = 30, 300, 200
COUNT, TIMEOUT_MS = 10, 1000
# Without netem answers take a millisecond or two; with it a mean is above 300 ms, whatever is lost.
LIMITS = {"loss": 20, "rtt": 150, "jitter": 900}
# The capture sees a frame before the daemon does, and the guest is slow.
TOLERANCE_MS = 60
RUNS = 6  # judged while netem is at work
ALL_FRAMES, IPV4, ARP = 0x0003, 0x0800, 0x0806
ECHO_REQUEST, ECHO_REPLY = 8, 0
TIMESTAMPS = 35  # SO_TIMESTAMPNS


@dataclasses.dataclass
class Frame:
    at_s: float
    is_sent: bool
    protocol: int
    packet: bytes  # from its network header on


class Recorder:
    """Every frame of an interface with the kernel's time of it, taken in by a thread."""

    def __init__(self, namespace, interface):
        self._socket = namespace.socket(socket.AF_PACKET, socket.SOCK_DGRAM, 0)
        self._socket.setsockopt(socket.SOL_SOCKET, TIMESTAMPS, 1)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        with namespace.inside():
            self._socket.bind((interface, ALL_FRAMES))
        self._socket.settimeout(0.2)
        self._ended = threading.Event()
        self.frames = []
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def _run(self):
        while not self._ended.is_set():
            try:
                packet, told, _, address = self._socket.recvmsg(2048, 64)
            except TimeoutError:
                continue
            seconds, nanoseconds = struct.unpack("qq", told[0][2][:16])
            self.frames.append(Frame(seconds + nanoseconds / 1e9, address[2] == socket.PACKET_OUTGOING,
                                     address[1], packet))

    def close(self):
        self._ended.set()
        self._thread.join()
        self._socket.close()


def echo_of(frame):
    """(ICMP type, packet identifier, sequence number), None for anything else."""
    if frame.protocol != IPV4 or len(frame.packet) < 32 or frame.packet[9] != socket.IPPROTO_ICMP:
        return None
    sequence, packet_id = struct.unpack_from("!2xH4s", frame.packet, 24)
    return frame.packet[20], packet_id, sequence


def runs_of(frames):
    """{packet identifier: {sequence: round-trip time in ms, None without an answer}} in the order of the runs."""
    sent, runs = {}, collections.defaultdict(dict)
    for frame in frames:
        echo = echo_of(frame)
        if echo is None:
            continue
        kind, *key = echo
        if frame.is_sent and kind == ECHO_REQUEST:
            sent[tuple(key)] = frame.at_s
            runs[key[0]][key[1]] = None
        elif not frame.is_sent and kind == ECHO_REPLY:
            runs[key[0]][key[1]] = (frame.at_s - sent[tuple(key)]) * 1000
    return runs


def figures_of(run):
    """(loss, mean, jitter) as the daemon tells them: what is lost counts with its whole wait (B67)."""
    answered = [time_ms for time_ms in run.values() if time_ms is not None]
    times = [TIMEOUT_MS if time_ms is None else time_ms for _, time_ms in sorted(run.items())]
    mean = sum(times) / COUNT
    return round(100 * (COUNT - len(answered)) / COUNT), mean, max(times) - mean


def are_alike(told, seen):
    return told[0] == seen[0] and all(abs(one - other) <= TOLERANCE_MS for one, other in zip(told[1:], seen[1:]))


@dataclasses.dataclass
class Uplink:
    name: str
    router: object
    provider: object
    far_device: str  # where netem stands
    recorder: object = None

    def netem(self, *settings):
        command = ["tc", "qdisc", "replace", "dev", self.far_device, "root", "netem", "limit", "100000", *settings]
        subprocess.run(self.provider.command(*command), check=True)

    def netem_counters(self):
        told = subprocess.run(self.provider.command("tc", "-s", "qdisc", "show", "dev", self.far_device),
                              check=True, capture_output=True, text=True).stdout
        packets, dropped = re.search(r"(\d+) pkt \(dropped (\d+)", told).groups()
        (waiting,) = re.search(r"backlog \S+ (\d+)p", told).groups()
        return int(packets), int(dropped), int(waiting)


class RealWire(GuestTest):
    def setUp(self):
        super().setUp()
        self.uplinks = [self.vlan_on_bond(), self.bridge(), self.tunnel("gre", "gre_1"), self.tunnel("ipip", "ip4ip4_1")]
        for uplink in self.uplinks:
            uplink.recorder = Recorder(uplink.router, uplink.name)
            self.addCleanup(uplink.recorder.close)

    def pair(self, kind, veths=1):
        router, provider = self.namespace(kind), self.namespace(kind + "-isp")
        for number in range(veths):
            self.link(f"w{number}", f"w{number}", provider, router)
        return router, provider

    @staticmethod
    def know_each_other(router, device, provider, far_device):
        """Addresses, and entries that never time out: netem would lose answers to ARP as well."""
        hardware = {}
        for namespace, name, number in ((router, device, 1), (provider, far_device, 2)):
            namespace.ip(f"address add 198.51.100.{number}/24 dev {name}")
            shown = subprocess.run(namespace.command("ip", "-j", "link", "show", name), check=True, capture_output=True)
            hardware[number] = json.loads(shown.stdout)[0]["address"]
        router.ip(f"neighbour replace 198.51.100.2 lladdr {hardware[2]} dev {device} nud permanent")
        provider.ip(f"neighbour replace 198.51.100.1 lladdr {hardware[1]} dev {far_device} nud permanent")

    def vlan_on_bond(self):
        router, provider = self.pair("vlan", veths=2)
        for namespace, device in ((router, "gi1_1"), (provider, "v10")):
            namespace.ip("link add bond0 type bond mode active-backup miimon 50")
            for member in ("w0", "w1"):
                namespace.ip(f"link set {member} down")
                namespace.ip(f"link set {member} master bond0")
            namespace.ip("link set bond0 type bond primary w0")
            namespace.ip("link set bond0 up")
            namespace.ip(f"link add {device} link bond0 type vlan id 10")
            namespace.ip(f"link set {device} up")
        self.know_each_other(router, "gi1_1", provider, "v10")
        return Uplink("gi1_1", router, provider, "v10")

    def bridge(self):
        router, provider = self.pair("bridge")
        router.ip("link add gi1_2 type bridge")
        router.ip("link set w0 master gi1_2")
        router.ip("link set gi1_2 up")
        self.know_each_other(router, "gi1_2", provider, "w0")
        return Uplink("gi1_2", router, provider, "w0")

    def tunnel(self, kind, device):
        router, provider = self.pair(kind)
        for namespace, own, far in ((router, 1, 2), (provider, 2, 1)):
            namespace.ip(f"address add 192.0.2.{own}/24 dev w0")
            namespace.ip(f"link add {device} type {kind} local 192.0.2.{own} remote 192.0.2.{far}")
            namespace.ip(f"address add 198.51.100.{own} peer 198.51.100.{far} dev {device}")
            namespace.ip(f"link set {device} up")
        return Uplink(device, router, provider, device)

    def conf(self):
        conf = Conf()
        for number, uplink in enumerate(self.uplinks, 1):
            conf.rule(f"{number}_ipv4", {uplink.name: 1}, {"0.0.0.0/0": None}, namespace=uplink.router.name)
            conf.interface(uplink.name, nexthop="198.51.100.2", namespace=uplink.router.name, probes=[
                ping_ext("198.51.100.2", period=1, count=COUNT, timeout=TIMEOUT_MS, **LIMITS)])
        return conf

    def shown(self):
        """{interface: what lbshow tells of it}."""
        done = lbshow("--json", "--all", "-o", self.folder, "interfaces")
        return {one["name"]: one for one in json.loads(done.stdout or '{"interfaces": []}')["interfaces"]}

    def expect_all(self, active, within=60):
        names = {uplink.name for uplink in self.uplinks}
        expect(lambda: {name for name, one in self.shown().items() if one["active"] == active} == names, within,
               f"every uplink is {'active' if active else 'inactive'}")

    def figures_of_runs(self, within):
        """{interface: [the figures of one run after the other]}, so many runs of each that lost something."""
        told = collections.defaultdict(list)
        ends = time.monotonic() + within
        while min((len(told[uplink.name]) for uplink in self.uplinks)) < RUNS:
            self.assertLess(time.monotonic(), ends, f"figures so far: {dict(told)}")
            for name, one in self.shown().items():
                quality = one["probes"][0]["quality"]
                figures = quality["loss_percent"], quality["rtt_ms"], quality["jitter_ms"]
                if figures[1] >= LIMITS["rtt"] and figures not in told[name]:
                    told[name].append(figures)
            time.sleep(0.3)
        return told

    def test_figures_and_verdicts_are_those_of_what_netem_let_through(self):
        daemon = self.start(self.conf())
        self.expect_all(active=True)

        for uplink in self.uplinks:
            uplink.netem("delay", f"{DELAY_MS}ms", f"{VARIATION_MS}ms", "loss", f"{LOSS_PERCENT}%")
        self.expect_all(active=False)
        told = self.figures_of_runs(within=240)
        inactive = [one["active"] for one in self.shown().values()]
        self.assertEqual(inactive, [False] * 4)

        daemon.stop()
        for uplink in self.uplinks:
            with self.subTest(uplink.name):
                self.check(uplink, told[uplink.name])

    def check(self, uplink, told):
        expect(lambda: uplink.netem_counters()[2] == 0, what="netem has let go of everything")
        passed, dropped, _ = uplink.netem_counters()
        frames = uplink.recorder.frames
        expect(lambda: self.lost(frames) == dropped, 5,
               f"netem tells {dropped} lost, {self.lost(frames)} answers are missing")
        share = 100 * dropped / (passed + dropped)
        seen = [figures_of(run) for run in runs_of(frames).values() if len(run) == COUNT]
        unseen = [figures for figures in told if not any(are_alike(figures, one) for one in seen)]
        times = [time_ms for run in runs_of(frames).values() for time_ms in run.values() if time_ms and time_ms > 50]
        print(f"{uplink.name}: netem passed {passed} and lost {dropped} ({share:.0f} %); answers took"
              f" {min(times):.0f} to {max(times):.0f} ms; figures of {len(told)} runs: {told}", flush=True)
        self.assertEqual(unseen, [], f"no run on the wire has these figures; runs: {seen}")
        self.assertGreater(max(times) - min(times), VARIATION_MS)
        # Of some 70 answers each: nearly four standard deviations to either side.
        self.assertTrue(LOSS_PERCENT - 20 < share < LOSS_PERCENT + 20, share)

    @staticmethod
    def lost(frames):
        """Every frame of the router has one answer from the provider's kernel."""
        asked = sum(1 for frame in frames if frame.is_sent and (frame.protocol == ARP or echo_of(frame)))
        came = sum(1 for frame in frames if not frame.is_sent and (frame.protocol == ARP or echo_of(frame)))
        return asked - came

    def test_uplink_stays_active_when_a_member_of_its_bond_fails_and_netem_goes(self):
        self.start(self.conf())
        for uplink in self.uplinks:
            uplink.netem("loss", "100%")
        self.expect_all(active=False)

        vlan = self.uplinks[0]
        vlan.router.ip("link set w0 down")
        for uplink in self.uplinks:
            uplink.netem("delay", "10ms")

        self.expect_all(active=True)


if __name__ == "__main__":
    main()

"""The uplinks of a soak, the configuration over them, and the truth about each at any time.

    router (default namespace, ns1)            far
      gi1_N 10.N.0.10/24      ------------------ scripted peer 10.N.0.1, where N has a lease 10.N.0.2 too
      gi1_N 2001:db8:N::10/64 ------------------ scripted peer 2001:db8:N::1
"""
import contextlib
import dataclasses
import fcntl
import struct
import time

from kit import Conf, lb_lease, ping, ping_ext
from kit import echo_policies as policy
from kit.recording import Frame, Recording

RESPONSE_TIME_MS = 1000
EXTENDED_LIMIT_MS = 490
SUCCESS_CT, FAILURE_CT = 2, 3
PREFIXES = {"ipv4": "198.18.0.0/15", "ipv6": "2001:db8:ffff::/48"}
NAMESPACES = ("", "ns1")
# Of the uplinks in tenths, and how many of them the extended ping probes.
SHARES = (("", "ipv4", 4, 0), ("", "ipv6", 2, 0), ("ns1", "ipv4", 2, 1), ("ns1", "ipv6", 2, 0))
# One change in so many is one of a lease, where there are leases.
LEASE_CHANGE_IN = 12


class Punctuality(Recording):
    """Keeps no frame, hours of them would fill the machine; but when the far end came too late to one, by the kernel's
    time of it. A busy machine may keep an answer back so long that the daemon rightly misses it."""

    SIOCGSTAMPNS = 0x8907

    def __init__(self, link, allowed_s):
        super().__init__()
        self._link, self._allowed_s = link, allowed_s
        self.late_at = []  # monotonic
        self.worst_s = 0.0
        with contextlib.suppress(OSError):
            self._stamp_s()  # the first asks the kernel for stamps from then on

    def _stamp_s(self):
        seconds, nanoseconds = struct.unpack("qq", fcntl.ioctl(self._link, self.SIOCGSTAMPNS, bytes(16)))
        return seconds + nanoseconds / 1e9

    def add(self, data, sent=False):
        now_s = time.monotonic()
        if not sent:
            with contextlib.suppress(FileNotFoundError):  # it came before the kernel stamped
                late_s = time.time() - self._stamp_s()
                self.worst_s = max(self.worst_s, late_s)
                if late_s > self._allowed_s:
                    self.late_at.append(now_s)
        return Frame(now_s, bytes(data), sent)

    def was_late(self, begin, end):
        return any(begin <= at <= end for at in self.late_at)


@dataclasses.dataclass
class Uplink:  # pylint: disable=too-many-instance-attributes
    name: str
    family: str
    namespace: str
    gateways: tuple  # what the lease may name; one without a lease
    peer: object
    gateway: str = ""
    works: bool = True
    has_lease: bool = False
    changed_in_cycle: int = 0
    carrier_changed_at: float = 0.0
    past: list = dataclasses.field(default_factory=list)  # (monotonic time, works)
    leased: list = dataclasses.field(default_factory=list)  # the routers that its lease named, in their order

    @property
    def key(self):
        return self.namespace, self.family, self.name

    def right_gateways(self):
        return {self.gateway} if self.works else set()


class Network:
    """So many uplinks; with `with_leases` every sixth of IPv4 has a lease. (An IPv6 uplink is probed only where its next
    hop is configured.)"""

    def __init__(self, lab, dice, count, with_leases=False):
        self._lab, self._dice, self._with_leases = lab, dice, with_leases
        self.uplinks = []
        self.conf = Conf()
        self.changes = self.lease_changes = 0
        self.spaces = {"": lab.router, "ns1": lab.namespace("ns1")}
        for rule, (namespace, family, share, extended) in enumerate(SHARES, 1):
            made = [self._attach(namespace, family, i < extended, with_leases and family == "ipv4" and i % 6 == 1)
                    for i in range(count * share // 10)]
            members = {"interfaces6" if family == "ipv6" else "interfaces": {one.name: 1 for one in made}}
            self.conf.rule(f"{rule}_{family}", targets={PREFIXES[family]: None}, namespace=namespace, **members)
        lab.write_conf(self.conf)
        for one in self.uplinks:
            if one.has_lease:
                self._lease(one, one.gateway)

    def _attach(self, namespace, family, is_extended, has_lease):
        number = len(self.uplinks) + 1
        name, ipv6 = f"gi1_{number}", family == "ipv6"
        net = f"2001:db8:{number}::" if ipv6 else f"10.{number}.0."
        own, gateways = net + "10", (net + "1", net + "2") if has_lease else (net + "1",)
        links = {"address6": own + "/64", "gateway6": gateways[0]} if ipv6 else \
            {"address": own + "/24", "gateway": gateways[0]}
        peer = self._lab.uplink(name, namespace=self.spaces[namespace], **links)
        peer.addresses.update(gateways)
        # What the kernel cannot take out of its own way of the frame is left: half of what the daemon waits.
        peer.recording = Punctuality(peer._link,  # pylint: disable=protected-access
                                     (EXTENDED_LIMIT_MS if is_extended else RESPONSE_TIME_MS) / 2000)
        # Without a target a probe would go on asking the router of the first lease.
        target = f"198.51.100.{number}" if has_lease else None
        probe = ping_ext(gateways[0], count=2, period=0, timeout=500, rtt=EXTENDED_LIMIT_MS, jitter=EXTENDED_LIMIT_MS,
                         loss=40) if is_extended else ping(target, RESPONSE_TIME_MS)
        self.conf.interface(name, nexthop="dhcp" if has_lease else gateways[0], source=own, probes=[probe],
                            namespace=namespace, ipv6=ipv6, success=SUCCESS_CT, failure=FAILURE_CT)
        self.uplinks.append(Uplink(name, family, namespace, gateways, peer, gateways[0], has_lease=has_lease))
        return self.uplinks[-1]

    def begin_past(self):
        """From now on what happens counts."""
        for one in self.uplinks:
            one.past = [(time.monotonic(), one.works)]

    def change_one(self, cycles, settled):
        """Breaks or mends an uplink, or changes the lease of one that is `settled`; `cycles` tells the daemon's."""
        candidates = [one for one in settled if one.has_lease]
        if candidates and self._dice.randrange(LEASE_CHANGE_IN) == 0:
            self._change_lease(self._dice.choice(candidates), cycles)
            return
        uplink = self._dice.choice(self.uplinks)
        uplink.works = not uplink.works
        uplink.past.append((time.monotonic(), uplink.works))
        self.changes += 1
        (self._mend if uplink.works else self._break)(uplink)
        uplink.changed_in_cycle = cycles()  # a busy machine takes its time to do it

    def _mend(self, uplink):
        uplink.peer.echo = self._dice.choice((policy.answer, policy.delayed(0.05), policy.duplicated(2)))
        uplink.peer.link("up")
        uplink.carrier_changed_at = time.monotonic()

    def _break(self, uplink):
        faults = [lambda: self._echo(uplink, policy.silence),
                  lambda: self._echo(uplink, policy.delayed(RESPONSE_TIME_MS / 1000 + 3)),
                  lambda: self._echo(uplink, policy.lying(payload=b""))]
        if uplink.family == "ipv4":
            faults.append(lambda: self._unplug(uplink))
        self._dice.choice(faults)()

    @staticmethod
    def _echo(uplink, echo):
        uplink.peer.echo = echo

    @staticmethod
    def _unplug(uplink):
        uplink.peer.link("down")
        uplink.carrier_changed_at = time.monotonic()

    def _change_lease(self, uplink, cycles):
        self.lease_changes += 1
        if self._dice.randrange(4) == 0:
            # The lease goes and comes again with the same router: what was learnt holds, nothing changes.
            self._call_lb_lease(uplink.name, "--gone")
            self._call_lb_lease(uplink.name, uplink.gateway)
        else:
            self._lease(uplink, next(one for one in uplink.gateways if one != uplink.gateway))
            uplink.changed_in_cycle = cycles()

    def _lease(self, uplink, router):
        uplink.gateway = router
        uplink.leased.append(router)
        self._call_lb_lease(uplink.name, router)

    @staticmethod
    def _call_lb_lease(*words):
        status, said = lb_lease.run("-f", "/run/lb.conf", *words)
        if status != 0:
            raise AssertionError(f"lb-lease {' '.join(words)} ended with {status}: {said}")

"""What the daemon and the kernel do in a soak, compared with the truth; and what each program takes of the machine."""
import collections
import dataclasses
import os
import pathlib
import re
import time

from kit.expect import expect
from kit.lbshow import state
from kit.lbroute import path_of
from kit.routing_daemon import fragment_path
from soak_network import NAMESPACES, PREFIXES

LINES_ABOUT_ERRORS = 20
# An uplink whose far end was late to a frame is not judged for so long afterwards.
AFTER_LATE_S = 30


class Errors:
    """How many of each kind; the first are told with their words."""

    def __init__(self):
        self.counts = collections.Counter()

    def add(self, kind, text):
        self.counts[kind] += 1
        if self.counts[kind] <= LINES_ABOUT_ERRORS:
            print(f"wrong {kind}: {text}", flush=True)


@dataclasses.dataclass(frozen=True)
class Usage:
    rss_kb: int
    descriptors: int
    threads: int
    cpu_s: float

    def __str__(self):
        return f"RSS {self.rss_kb} kB, {self.descriptors} descriptors, {self.threads} threads"


def usage_of(pid):
    """None of a process that is gone."""
    folder = pathlib.Path(f"/proc/{pid}")
    try:
        fields = dict(re.findall(r"^(VmRSS|Threads):\s+(\d+)", (folder / "status").read_text("ascii"), re.MULTILINE))
        times = (folder / "stat").read_text("utf-8").rpartition(")")[2].split()[11:13]
        return Usage(int(fields["VmRSS"]), len(os.listdir(folder / "fd")), int(fields["Threads"]),
                     sum(map(int, times)) / os.sysconf("SC_CLK_TCK"))
    except (OSError, KeyError):
        return None


def read_fragment(namespace, family):
    """(text, time of its last change in ns) of a fragment that is whole: it is rewritten in place."""
    path = fragment_path(namespace, family == "ipv6")

    def whole():
        try:
            with open(path, encoding="ascii") as file:
                changed_ns = os.fstat(file.fileno()).st_mtime_ns
                text = file.read()
        except FileNotFoundError:
            return "", 0
        return (text, changed_ns) if not text or text.endswith("};\n") and text.startswith("protocol") else None

    return expect(lambda: (found := whole()) is not None and found, within=10, what=f"{path} is whole")


class Watch:
    """The daemon's verdicts and fragments, once an uplink has had its cycles to settle."""

    def __init__(self, lab, network, settle_cycles, errors):
        self._network, self.settle_cycles, self._errors = network, settle_cycles, errors
        self.keep_alives = lab.keep_alives
        self._daemon = lab.start(network.conf)
        self.pid = self._daemon.pid
        self.compared = self.left_out = 0

    def running(self):
        return self._daemon.running()

    def settled(self, more=0):
        cycle = self.keep_alives.cycles()
        return [one for one in self._network.uplinks if cycle - one.changed_in_cycle > self.settle_cycles + more]

    def noticed_by(self, at):
        """When the daemon had had its cycles to notice what happened at that (monotonic) time; None while it has not."""
        ends = [one for one in self.keep_alives.times("WATCHDOG=1") if one > at]
        return ends[self.settle_cycles] if len(ends) > self.settle_cycles else None

    @staticmethod
    def published():
        """{key: active} from the daemon's dumps."""
        return {(one["namespace"], f"ipv{one['family']}", one["name"]): one["active"]
                for one in state()["interfaces"]}

    @staticmethod
    def is_excused(one):
        """Its far end answers too late to be called working, by its own measurement."""
        now = time.monotonic()
        return one.peer.recording.was_late(now - AFTER_LATE_S, now)

    def compare(self):
        settled = self.settled()
        published = self.published()
        fragments = {}
        for space in NAMESPACES:
            for family in PREFIXES:
                fragments[space, family] = set(re.findall(r"via (\S+) weight", read_fragment(space, family)[0]))
        for one in settled:
            if self.is_excused(one):
                self.left_out += 1
                continue
            self.compared += 1
            if published.get(one.key) is not one.works:
                self._errors.add("verdict", f"{one.key} is {published.get(one.key)}, {one.works} is right")
            used = fragments[one.key[:2]] & set(one.gateways)
            if used != one.right_gateways():
                self._errors.add("fragment", f"{one.key} goes over {used or 'none'}, "
                                 f"{one.right_gateways() or 'none'} is right")

    def was_wrong(self):
        return bool(self._errors.counts)

    def text(self):
        counts = self._errors.counts
        late = f", {self.left_out} left out (a far end was late)" if self.left_out else ""
        return (f"{counts['verdict']} of {self.compared} verdicts wrong, "
                f"{counts['fragment']} of {self.compared} fragments wrong{late}")


class KernelRoutes:
    """The kernel's routes, compared with the truth for uplinks that have settled, and with the fragment for the others
    once it has not changed for as long as its reader may take."""

    def __init__(self, network, watch, errors, promise_s):
        self._network, self._watch, self._errors, self._promise_s = network, watch, errors, promise_s
        self.compared = self.agreed = 0

    def compare(self):
        """Only while the routing daemon has had its time since its start."""
        # A cycle takes a second: what settled so many more of them ago has reached the kernel, too.
        settled = {one.key for one in self._watch.settled(more=self._promise_s) if not self._watch.is_excused(one)}
        for namespace, space in self._network.spaces.items():
            for family, prefix in PREFIXES.items():
                self._compare_route(namespace, space, family, prefix, settled)

    def _compare_route(self, namespace, space, family, prefix, settled):
        text, changed_ns = read_fragment(namespace, family)
        is_calm = time.time_ns() - changed_ns > self._promise_s * 1e9
        path = path_of(space, prefix) or {}  # none while no uplink works
        if not isinstance(path, dict):
            self._errors.add("kernel route", f"several to {prefix} in '{namespace}': {path}")
            return
        is_calm = is_calm and read_fragment(namespace, family)[1] == changed_ns
        for one in self._network.uplinks:
            if one.key[:2] != (namespace, family):
                continue
            used = {gateway for gateway, device in path if device == one.name}
            if one.key in settled:
                self.compared += 1
                if used != one.right_gateways():
                    self._errors.add("kernel route", f"{one.key} goes over {used or 'none'}, "
                                     f"{one.right_gateways() or 'none'} is right")
            elif is_calm and time.monotonic() - one.carrier_changed_at > AFTER_LATE_S:
                # (With its carrier the kernel itself takes a next hop away, before anybody else knows.)
                self.agreed += 1
                wanted = {gateway for gateway in one.gateways if f"via {gateway} weight" in text}
                if used != wanted:
                    self._errors.add("kernel route", f"{one.key} goes over {used or 'none'}, the fragment over "
                                     f"{wanted or 'none'}")

    def text(self):
        return (f"{self._errors.counts['kernel route']} wrong kernel routes of {self.compared} by the script and "
                f"{self.agreed} by the fragment")

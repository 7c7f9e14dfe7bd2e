"""The program that puts fragments into force, and the kernel's routes as ip(8) tells them."""
import json
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import time

from . import sanitizers
from .daemon import binary
from .expect import POLL_S, expect, text_of
from .routing_daemon import fragment_path

LBROUTE = os.environ.get("LBROUTE_BINARY", os.path.join(os.path.dirname(binary()), "lbroute"))
OWN = "76"


def hop(gateway, weight=1):
    return f" via {gateway} weight {weight}"


def route(prefix, *hops, metric=None):
    """A route line as `lb` writes it; a hop is an address or (address, weight)."""
    vias = "".join(hop(*one) if isinstance(one, tuple) else hop(one) for one in hops)
    return f"route {prefix} multipath{vias}{'' if metric is None else f' metric {metric}'};"


def fragment_text(*routes, check_link=True):
    head = "protocol static {\n" + ("check link 1;\n" if check_link else "")
    return head + "".join(f"{one}\n" for one in routes) + "};\n"


def write_fragment(*routes, namespace="", ipv6=False, check_link=None):
    """In place, as `lb` does."""
    path = fragment_path(namespace, ipv6)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="ascii") as file:
        file.write(fragment_text(*routes, check_link=not ipv6 if check_link is None else check_link))


def standing(space, prefix, table="main", family=None):
    """The one route to a prefix as ip(8) tells it, None without; of several all."""
    family = family or ("-6" if ":" in prefix else "-4")
    found = json.loads(space.run("ip", "-N", family, "-j", "route", "show", "exact", prefix, "table", table,
                                 check=False) or "[]")
    return found[0] if len(found) == 1 else found or None


def assert_stays(condition, during):
    """Fails as soon as the condition is not true within so many seconds: for what must not happen,
    longer than it would take."""
    deadline = time.monotonic() + during
    while time.monotonic() < deadline:
        if not condition():
            raise AssertionError(f"it did not stay so: {text_of(condition, '')}")
        time.sleep(POLL_S)


def own_routes(space):
    """Everything of protocol 76, of all tables and both families; in numbers, as the package may be
    installed, which names it."""
    return [one for family in ("-4", "-6")
            for one in json.loads(space.run("ip", "-N", family, "-j", "route", "show", "table",
                                            "all", "protocol", OWN) or "[]")]


def own_objects(space):
    """The next-hop objects and groups of protocol 76."""
    return [one for one in json.loads(space.run("ip", "-N", "-j", "-d", "nexthop", "show") or "[]")
            if one.get("protocol") == OWN]


def path_of(space, prefix, table="main"):
    """{(gateway, device): weight} of a route, entries of one next hop counted together; the weights
    of a pair halved again."""
    found = standing(space, prefix, table)
    if not isinstance(found, dict):
        return found
    hops = found.get("nexthops") or [found]
    path = {}
    for one in hops:
        place = (one.get("gateway") or one["via"]["host"], one["dev"])
        path.setdefault(place, []).append(one.get("weight", 1))
    return {place: weights[0] for place, weights in path.items()}


def buckets(space, group):
    """The next-hop object of each bucket of a group, by index."""
    lines = json.loads(space.run("ip", "-j", "nexthop", "bucket", "show", "id", str(group)) or "[]")
    return {one["bucket"]["index"]: one["bucket"]["nhid"] for one in lines}


class Lbroute:
    """One run of the program in a namespace, in the foreground. `folder` keeps its log."""

    _runs = 0

    def __init__(self, space, folder, *arguments, environment=None, prefix=()):
        Lbroute._runs += 1
        self.space = space
        self._log = os.path.join(folder, f"lbroute{Lbroute._runs}.log")
        self.stopped = False
        with open(self._log, "wb") as log:
            self._process = subprocess.Popen(
                [*space.command(), *prefix, LBROUTE, *arguments], stdin=subprocess.DEVNULL,
                stdout=log, stderr=log, env={**os.environ, **(environment or {})})

    @property
    def pid(self):
        return self._process.pid

    def log(self):
        with open(self._log, encoding="utf-8", errors="replace") as file:
            return file.read()

    def lines(self, words):
        """The lines of the log that hold these words."""
        return [line for line in self.log().splitlines() if words in line]

    def running(self):
        return self._process.poll() is None

    def hup(self):
        self._process.send_signal(signal.SIGHUP)

    def wakes(self):
        """How often it went to sleep so far: it wakes as often."""
        with open(f"/proc/{self.pid}/status", encoding="ascii") as file:
            return int(next(line for line in file if line.startswith("voluntary_ctxt")).split()[1])

    def processor_s(self):
        """Seconds of a processor that it took so far."""
        with open(f"/proc/{self.pid}/stat", encoding="ascii") as file:
            return sum(map(int, file.read().rpartition(")")[2].split()[11:13])) / os.sysconf("SC_CLK_TCK")

    def is_asleep(self):
        with open(f"/proc/{self.pid}/stat", encoding="ascii") as file:
            return file.read().rpartition(")")[2].split()[0] == "S"

    def wait(self, within=15):
        expect(lambda: not self.running(), within, "lbroute ends by itself")
        self.stopped = True
        return self._process.returncode

    def end(self, number=signal.SIGTERM):
        """Ends it by a signal; its exit status."""
        self.stopped = True
        self._process.send_signal(number)
        self._process.wait(10)
        sanitizers.check(self.log(), "lbroute")
        return self._process.returncode

    def close(self):
        """Ends it; fails where it had ended before, or on a sanitizer's report."""
        if not self.stopped:
            if not self.running():
                raise AssertionError(f"lbroute ended with {self._process.returncode}:\n{self.log()}")
            status = self.end()
            if status != 0:
                raise AssertionError(f"lbroute ended with {status} on SIGTERM:\n{self.log()}")
        sanitizers.check(self.log(), "lbroute")


def start(lab, *arguments, environment=None, prefix=(), space=None):
    """Starts the program and waits until it has put the fragments into force."""
    path = f"/run/notify-{time.monotonic_ns()}"
    ready = lab.keep_alives_at(path)
    program = Lbroute(space or lab.router, lab.folder, "-f", "/run/lb.conf", *arguments,
                      environment={**ready.environment, **(environment or {})}, prefix=prefix)
    lab.own(program.close)
    expect(lambda: ready.times("READY=1") or not program.running(), what="lbroute is ready")
    if not program.running():
        raise AssertionError(f"lbroute does not run: {program.log()}")
    return program


def run(space, *words, check=None):
    """Runs the program as a command; the completed process. `check` is the expected exit status."""
    done = subprocess.run([*space.command(), LBROUTE, *words], capture_output=True, text=True,
                          timeout=60, check=False)
    if check is not None and done.returncode != check:
        raise AssertionError(f"lbroute {' '.join(words)} gave {done.returncode}:\n"
                             + done.stdout + done.stderr)
    sanitizers.check(done.stderr, "lbroute")
    return done


def status(space, *words):
    """(exit status, what `lbroute status --json` shows)."""
    done = run(space, "status", "--json", "-f", "/run/lb.conf", *words)
    return done.returncode, json.loads(done.stdout or "{}")


def shown_route(shown, prefix, namespace=""):
    """A route in what status shows."""
    return next(one for space in shown["namespaces"] if space["name"] == namespace
                for one in space["routes"] if one["prefix"] == prefix)


class NextHopMonitor:
    """Counts what the kernel announces of next-hop objects and groups (rtnetlink(7))."""

    NEW_NEXT_HOP, GROUP, ADD_MEMBERSHIP, SOL_NETLINK = 104, 32, 1, 270

    def __init__(self, space):
        self._socket = space.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE)
        self._socket.bind((0, 0))
        self._socket.setsockopt(self.SOL_NETLINK, self.ADD_MEMBERSHIP, self.GROUP)
        self._socket.settimeout(10)

    def wait_for(self, count):
        """When the kernel has announced so many of them: a time of the monotonic clock."""
        seen = 0
        while seen < count:
            data = self._socket.recv(65536)
            at = 0
            while at + 16 <= len(data):
                length, kind = struct.unpack_from("=IH", data, at)
                seen += kind == self.NEW_NEXT_HOP
                at += (length + 3) & ~3
        return time.monotonic()

    def close(self):
        self._socket.close()


class RouteMonitor:
    """What `ip monitor route` tells in a namespace, as lines."""

    def __init__(self, space, folder, *words):
        self._path = os.path.join(folder, f"monitor{time.monotonic_ns()}.log")
        self._stdbuf = [shutil.which("stdbuf"), "-oL"] if shutil.which("stdbuf") else []
        with open(self._path, "wb") as out:
            self._process = subprocess.Popen(
                [*space.command(), *self._stdbuf, "ip", *words, "monitor", "route"],
                stdout=out, stderr=out, stdin=subprocess.DEVNULL)
        self._space, self._marks = space, 0
        self._family, self._mark = (("-6", "2001:db8:dead::1") if "-6" in words
                                    else ("-4", "192.0.2.254"))
        self.settle()  # it listens once it tells a change

    def settle(self):
        """Returns when everything that happened so far is told."""
        self._marks += 1
        place = f"{self._mark} table 4242 metric {self._marks}"

        def has_told():
            for verb in ("add", "del"):
                self._space.ip(f"{self._family} route {verb} blackhole {place}", check=False)
            return re.search(rf"^Deleted blackhole {self._mark} .*metric {self._marks}\b", self.text(),
                             re.MULTILINE)
        expect(has_told, what="ip monitor tells a change")

    def text(self):
        with open(self._path, encoding="utf-8", errors="replace") as file:
            return file.read()

    def about(self, prefix):
        """The lines that begin with the prefix or tell its removal, of all that happened so far."""
        self.settle()
        name = "default" if prefix in ("0.0.0.0/0", "::/0") else prefix
        return [line for line in self.text().splitlines()
                if line.startswith((name + " ", f"Deleted {name} "))]

    def removals(self, prefix):
        return [line for line in self.about(prefix) if line.startswith("Deleted")]

    def close(self):
        self._process.kill()
        self._process.wait()

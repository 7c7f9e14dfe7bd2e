"""The companion program that follows the daemon, a child of the lab, and dumps written by script."""
import json
import os
import signal
import struct
import subprocess
import threading

from . import sanitizers
from .daemon import binary
from .expect import expect

LBWATCH = os.environ.get("LB_LBWATCH", os.path.join(os.path.dirname(binary()), "lbwatch"))
HISTORY = "/run/lbwatch/history.db"


def lbwatch(*arguments, environment=None):
    """One that ends by itself."""
    done = subprocess.run([LBWATCH, *arguments], capture_output=True, text=True, check=False,
                          timeout=60, env={**os.environ, **(environment or {})})
    sanitizers.check(done.stderr, "lbwatch")
    return done


class Lbwatch:
    """One run of `lbwatch run`; `folder` keeps its output."""

    _runs = 0

    def __init__(self, folder, *arguments, history=HISTORY, environment=None, prefix=(), program=LBWATCH):
        Lbwatch._runs += 1
        self._base = os.path.join(folder, f"lbwatch{Lbwatch._runs}")
        self._closed = False
        with open(self._base + ".out", "wb") as out, open(self._base + ".err", "wb") as err:
            self.process = subprocess.Popen(
                [*prefix, program, "run", "--json", "--history", history, *arguments],
                stdin=subprocess.DEVNULL, stdout=out, stderr=err,
                env={**os.environ, **(environment or {})})

    def _read(self, suffix):
        with open(self._base + suffix, encoding="utf-8", errors="replace") as file:
            return file.read()

    def events(self, kind=None, **fields):
        """The objects told so far, of that kind and with these values."""
        lines = self._read(".out").split("\n")[:-1]
        found = [json.loads(line) for line in lines]
        return [one for one in found if kind in (None, one["event"])
                and all(one[key] == value for key, value in fields.items())]

    def changes(self, kind, uplink=None):
        """(from, to) of the events of a kind."""
        return [(one["from"], one["to"]) for one in self.events(kind)
                if uplink in (None, one["uplink"])]

    @property
    def notices(self):
        return self._read(".err")

    def expect_change(self, kind, before, after, uplink=None, within=20):
        return expect(lambda: [one for one in self.events(kind) if uplink in (None, one["uplink"])
                               and (one["from"], one["to"]) == (before, after)], within,
                      f"{kind} {uplink or ''} {before} -> {after}")[-1]

    def expect_state(self, uplink, state, within=20):
        """Waits until the latest event of an uplink says so; that event."""
        return expect(lambda: [one for one in self.events("uplink", uplink=uplink)[-1:]
                               if one["to"] == state], within, f"{uplink} is {state}")[0]

    def running(self):
        return self.process.poll() is None

    def cpu_s(self):
        """Of all its threads, in the scheduler's own nanoseconds."""
        tasks = f"/proc/{self.process.pid}/task"
        total = 0
        for task in os.listdir(tasks):
            with open(f"{tasks}/{task}/schedstat", encoding="ascii") as file:
                total += int(file.read().split()[0])
        return total / 1e9

    def rss_kb(self):
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as file:
            return next(int(line.split()[1]) for line in file if line.startswith("VmRSS"))

    def kill(self, number=signal.SIGKILL):
        self._closed = True
        if self.running():
            self.process.send_signal(number)
        self.process.wait(10)
        sanitizers.check(self.notices, "lbwatch")
        return self.process.returncode

    def close(self):
        """Ends it; fails where it had ended before, or does not end well."""
        if self._closed:
            return
        ended_before = not self.running()
        status = self.kill(signal.SIGTERM)
        if ended_before or status != 0:
            raise AssertionError(f"lbwatch ended with {status}:\n{self.notices}")


class Dumps:
    """Dumps as the daemon writes them, made of plain values, rewritten in place like its own."""

    def __init__(self, out_dir):
        self.folder = os.path.join(out_dir, "wlb_dump")
        os.makedirs(self.folder, exist_ok=True)
        self.uplinks = []
        self.rules = []

    def uplink(self, name, **fields):
        """One more record; its fields may be changed between writes."""
        one = {"name": name, "namespace": "", "family": 4, "nexthop": "192.0.2.1", "source": "",
               "targets": [{"address": "198.51.100.1", "result": 1, "success": 3, "failure": 0}],
               "since_success": 0, "since_failure": 0,
               "success_ct": 3, "failure_ct": 3, "active": True, **fields}
        self.uplinks.append(one)
        return one

    @staticmethod
    def _probe(target):
        quality = target.get("quality")
        return struct.pack("=46siiBBBB6i", target["address"].encode("latin-1"),
                           target["success"], target["failure"], target["result"],
                           1 if quality else 0, 0, 0, *(quality or [0] * 6))

    def record(self, one):
        probes = b"".join(self._probe(target) for target in one["targets"])
        return (one["name"].encode("latin-1").ljust(64, b"\0") + one["namespace"].encode().ljust(32, b"\0")
                + one["nexthop"].encode().ljust(46, b"\0") + one["source"].encode().ljust(46, b"\0")
                + probes.ljust(50 * 82, b"\0")
                + struct.pack("=BiiiiiBBB", len(one["targets"]), one["since_success"],
                              one["since_failure"], 0, one["success_ct"], one["failure_ct"], 0, 0, one["active"]))

    def rule(self, number, members, prefixes, family=4, failover=False, namespace=""):
        self.rules.append({"number": number, "members": members, "prefixes": prefixes,
                           "family": family, "failover": failover, "namespace": namespace,
                           "chosen": ""})
        return self.rules[-1]

    @staticmethod
    def _rule(one):
        members = b"".join(name.encode().ljust(64, b"\0") + bytes((1, one["family"] == 6))
                           for name in one["members"])
        return (members.ljust(3300, b"\0") + bytes((len(one["members"]),))
                + one["namespace"].encode().ljust(32, b"\0")
                + struct.pack("=iiBB", 0, one["number"], one["failover"], one["family"] == 6))

    @staticmethod
    def _routes(one):
        return b"".join(prefix.encode().ljust(50, b"\0") + one["chosen"].encode().ljust(46, b"\0")
                        + struct.pack("=iiiB", -1, position, one["number"], one["family"] == 6)
                        for position, prefix in enumerate(one["prefixes"], 1))

    def path(self, name):
        return os.path.join(self.folder, f"wlb_{name}.bin")

    def put(self, name, data):
        with open(self.path(name), "wb") as file:
            file.write(data)

    def write(self):
        """One cycle of the daemon."""
        for family in (4, 6):
            records = [self.record(one) for one in self.uplinks if one["family"] == family]
            if records:
                self.put(f"ipv{family}_outbounds", b"".join(records))
        self.put("rules", b"".join(self._rule(one) for one in self.rules))
        self.put("routes", b"".join(self._routes(one) for one in self.rules))

    @staticmethod
    def answer(one):
        for target in one["targets"]:
            target.update(result=1, success=one["success_ct"], failure=0)
        one.update(active=True, since_success=0, since_failure=1)

    @staticmethod
    def fail(one):
        for target in one["targets"]:
            target.update(result=2, success=0, failure=one["failure_ct"])
        one.update(active=False, since_success=1, since_failure=0)


class ScriptedDaemon(Dumps):
    """A process that is called like the daemon, and a thread that rewrites its dumps."""

    program = "import signal\nsignal.pause()\n"

    def __init__(self, out_dir, period_s=0.25):
        super().__init__(out_dir)
        self.period_s = period_s
        self.lock = threading.Lock()  # held by whoever changes more than one thing at a time
        self._ending = threading.Event()
        self._thread = None
        self.cycles = 0
        self._script = os.path.join(out_dir, "lb")
        self._command = [self._script, "-f", "/dev/null", "-o", out_dir]
        self.process = None

    def start(self):
        # The kernel names a script's process after the script.
        with open(self._script, "w", encoding="ascii") as file:
            file.write(f"#!/usr/bin/python3\n{self.program}")
        os.chmod(self._script, 0o755)
        self.process = subprocess.Popen(self._command)  # pylint: disable=consider-using-with
        self._ending.clear()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()
        return self

    def _run(self):
        while not self._ending.wait(self.period_s):
            with self.lock:
                self.write()
                self.cycles += 1

    def pass_by(self, number):
        """Waits until so many more cycles have been written."""
        last = self.cycles + number
        expect(lambda: self.cycles >= last, 10 + 5 * number * self.period_s, f"{number} cycles pass by")

    def pause(self):
        """Writes nothing more; the process stays."""
        self._ending.set()
        self._thread.join()

    def stop(self):
        if self.process is None:
            return
        self.pause()
        self.process.kill()
        self.process.wait()
        self.process = None

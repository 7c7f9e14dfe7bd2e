"""Who runs beside the daemon in a soak: the routing daemon that is killed, the follower with its hook, a page that is
open, and Prometheus."""
import json
import os
import signal
import socket
import subprocess
import threading
import time

from kit.lbroute import Lbroute
from kit.lbwatch import HISTORY, Lbwatch
from kit.prometheus import ask, program, query, run_prometheus

LISTEN_PORT = 9837
HOOKS, HOOKED = "/run/hooks.d", "/run/hooked.json"


class RoutingDaemon:
    """lbroute, killed at random moments and started anew within two seconds, until it is left alone."""

    BETWEEN_KILLS_S = (20, 100)

    def __init__(self, lab, dice, errors, promise_s):
        self._lab, self._dice, self._errors, self._promise_s = lab, dice, errors, promise_s
        self._ready = lab.keep_alives_at("/run/notify-lbroute")
        self.kills = 0
        self.ready_after_s = []
        self._program = None
        lab.own(self._close)
        self._start()

    @property
    def pid(self):
        return self._program.pid

    def _start(self):
        self._program = Lbroute(self._lab.router, self._lab.folder, "-f", "/run/lb.conf",
                                environment=self._ready.environment)
        self._started_at, self._start_at = time.monotonic(), None
        self._kill_at = self._started_at + self._dice.uniform(*self.BETWEEN_KILLS_S)
        self._told_ready = False

    def is_up(self):
        return self._start_at is None and self._program.running()

    def has_had_its_time(self):
        return self.is_up() and time.monotonic() - self._started_at > self._promise_s

    def pass_time(self, may_kill):
        now = time.monotonic()
        if self._start_at is not None:
            if now >= self._start_at:
                self._start()
            return
        if not self._told_ready:
            self._look_whether_ready(now)
        if not self._program.running():
            self._errors.add("end", f"lbroute ended by itself: {self._program.log()[-500:]}")
            self._start()
        elif may_kill and now >= self._kill_at:
            self._program.end(signal.SIGKILL)
            self.kills += 1
            self._start_at = now + self._dice.uniform(0, 2)

    def _look_whether_ready(self, now):
        ready = [at for at in self._ready.times("READY=1") if at > self._started_at]
        if ready:
            self.ready_after_s.append(ready[0] - self._started_at)
        elif now - self._started_at > self._promise_s:
            self._errors.add("start", f"lbroute is not ready after {self._promise_s} s")
        self._told_ready = bool(ready) or now - self._started_at > self._promise_s

    def _close(self):
        if self.is_up():
            self._program.close()


class Follower:
    """lbwatch with a hook that keeps each event's object."""

    def __init__(self, lab):
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        os.mkdir(HOOKS, 0o755)
        hook = os.path.join(HOOKS, "note")
        with open(hook, "w", encoding="ascii") as file:
            file.write(f"#!/bin/sh\ncat >> {HOOKED}\n")
        os.chmod(hook, 0o755)
        self.program = Lbwatch(lab.folder, "--hooks", HOOKS, "--listen", f"127.0.0.1:{LISTEN_PORT}")
        lab.own(self.program.close)

    @property
    def pid(self):
        return self.program.process.pid

    @staticmethod
    def hooked():
        """What the hook was given."""
        with open(HOOKED, encoding="utf-8") as file:
            return [json.loads(line) for line in file.read().splitlines()]

    @staticmethod
    def sizes_text():
        sizes = [os.path.getsize(HISTORY + suffix) // 1024 if os.path.exists(HISTORY + suffix) else 0
                 for suffix in ("", "-wal")]
        return f"history {sizes[0]} kB, its WAL {sizes[1]} kB"


class OpenPage:
    """A browser's part: it holds the stream of events, reads the state every few seconds and the page now and then."""

    STATE_EVERY_S, PAGE_EVERY = 3, 10

    def __init__(self, lab):
        self.events, self.problems = [], []
        self.states = self.pages = 0
        self._ending = threading.Event()
        self._socket = socket.create_connection(("127.0.0.1", LISTEN_PORT), timeout=60)
        # From the first event of this run on, as one that comes back asks.
        self._socket.sendall(b"GET /events HTTP/1.1\r\nHost: soak\r\nLast-Event-ID: 0\r\n\r\n")
        self._threads = [threading.Thread(target=one, daemon=True) for one in (self._read_stream, self._read_pages)]
        for one in self._threads:
            one.start()
        lab.own(self.close)

    def _read_stream(self):
        try:
            with self._socket.makefile("rb") as stream:
                for line in stream:
                    if line.startswith(b"data: "):
                        self.events.append(json.loads(line[len(b"data: "):]))
        except (OSError, ValueError) as problem:
            if not self._ending.is_set():
                self.problems.append(f"the stream of events broke: {problem!r}")
            return
        if not self._ending.is_set():
            self.problems.append("the stream of events ended")

    def _read_pages(self):
        while not self._ending.wait(self.STATE_EVERY_S):
            try:
                self.states += bool(json.loads(ask(LISTEN_PORT, "/api/state"))["uplinks"])
                if self.states % self.PAGE_EVERY == 0:
                    self.pages += "</html>" in ask(LISTEN_PORT, "/")
            except (OSError, ValueError, KeyError) as problem:
                if not self._ending.is_set():
                    self.problems.append(f"a request failed: {problem!r}")

    def close(self):
        self._ending.set()
        try:
            self._socket.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        for one in self._threads:
            one.join()
        self._socket.close()


class Scraper:
    """The real Prometheus."""

    def __init__(self, lab):
        with open(os.path.join(lab.folder, "prometheus.yml"), "w", encoding="ascii") as file:
            file.write("global: {scrape_interval: 5s}\nscrape_configs: [{job_name: lb, static_configs: "
                       f"[{{targets: ['127.0.0.1:{LISTEN_PORT}']}}]}}]\n")
        self._process = run_prometheus(lab.folder)
        lab.own(self._close)

    @staticmethod
    def is_there():
        return program("prometheus") is not None

    @staticmethod
    def transitions():
        """{(namespace, family, name, to): count} as Prometheus knows them."""
        return {tuple(one["metric"].get(key, "") for key in ("namespace", "family", "uplink", "to")):
                int(float(one["value"][1])) for one in query("lb_uplink_transitions_total")}

    @staticmethod
    def scrapes():
        """(all, those that failed) so far."""
        counts = [query(f"{word}_over_time(up[1d])") for word in ("count", "sum")]
        made, good = (int(float(one[0]["value"][1])) if one else 0 for one in counts)
        return made, made - good

    def _close(self):
        self._process.terminate()
        self._process.wait(30)

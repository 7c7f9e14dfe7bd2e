"""The three programs on the stage of the faults (fault_scene.py), and whether all that they tell and do is right.

The second uplink has outages in both families. The kernel's routes are lbroute's, by the daemon's fragments; lbwatch
follows the daemon, keeps a history, and serves a page that is asked throughout.
"""
import contextlib
import glob
import http.client
import json
import os
import sqlite3
import threading

from fault_scene import BOTH, FIRST_ALONE, FaultTest
from kit import echo_policies as policy
from kit import expect
from kit.lbroute import path_of
from kit.lbroute import start as start_lbroute
from kit.lbshow import state
from kit.lbwatch import HISTORY, Lbwatch
from scenes import GATEWAY, GATEWAY_2, PREFIX
from scenes6 import GATEWAY6, GATEWAY6_2, PREFIX6

PAGE = ("127.0.0.1", 9837)
SECOND = "gi1_2"
POLL_S = 0.25


def metrics():
    """What the page's metrics answer with: a status, None without an answer."""
    connection = http.client.HTTPConnection(*PAGE, timeout=3)
    with contextlib.closing(connection), contextlib.suppress(OSError, http.client.HTTPException):
        connection.request("GET", "/metrics")
        return connection.getresponse().status
    return None


def history():
    """(kind, name, family, before, after) of each event that the history file holds; none before there is one."""
    if not os.path.exists(HISTORY):
        return []
    with contextlib.closing(sqlite3.connect(f"file:{HISTORY}?mode=ro", uri=True)) as database:
        try:
            return database.execute("SELECT kind, name, family, before, after FROM event ORDER BY id").fetchall()
        except sqlite3.OperationalError:  # it is just being made, or written
            return []


class InjectionTest(FaultTest):
    """setUp ends with all three running and everything right."""

    def setUp(self):
        super().setUp()
        os.system("ip link set lo up")
        self.second = self.lab.peers[f"default-{SECOND}"]
        self.routes_daemon = start_lbroute(self.lab)
        self.watch = self.start_watch()
        self._asking = True
        self._asker = threading.Thread(target=self._ask_page, daemon=True)
        self._asker.start()
        self.lab.own(self._stop_asking)
        self.expect_right(True)

    def start_watch(self):
        watch = Lbwatch(self.folder, "--listen", f"{PAGE[0]}:{PAGE[1]}")
        self.lab.own(watch.close)
        return watch

    def _ask_page(self):
        wait = threading.Event()
        while self._asking:
            metrics()
            wait.wait(0.5)

    def _stop_asking(self):
        self._asking = False
        self._asker.join()

    def program(self, name):
        """The (pid, whether it runs, its words) of one of the three."""
        one = {"lb": self.daemon, "lbroute": self.routes_daemon, "lbwatch": self.watch}[name]
        process = one.process if name == "lbwatch" else one
        words = {"lb": lambda: one.stderr, "lbroute": lambda: one.log(), "lbwatch": lambda: one.notices}[name]
        return process.pid, one.running, words

    def restart(self, name):
        """The operator's: ends one of the three, however it is, and starts it anew."""
        if name == "lb":
            self.daemon.kill()
            self.daemon = self.lab.start(self.conf)
        elif name == "lbroute":
            self.routes_daemon.end(9)
            self.routes_daemon = start_lbroute(self.lab)
        else:
            self.watch.kill()
            for path in glob.glob(HISTORY + "*"):  # a new one tells what it meets, all of it
                os.unlink(path)
            self.watch = self.start_watch()

    # What happens.

    def let_second(self, work):
        """An outage of the second uplink begins, with its next hops forgotten, or ends."""
        self.second.arp_silent = not work
        self.second.echo = policy.answer if work else policy.silence
        if not work:
            self.lab.forget_neighbours(SECOND)
            self.lab.router.ip(f"-6 neigh flush dev {SECOND}")

    # What is right.

    def faults(self, second):
        """What is not right, by who is wrong; empty where everything is."""
        if self.routes() != (BOTH if second else FIRST_ALONE):
            return ["fragments"]
        shown = {(one["name"], one["family"]): one["active"] for one in state()["interfaces"]}
        wanted = {(name, family): second or name != SECOND
                  for name in ("gi1_1", SECOND) for family in (4, 6)}
        if shown != wanted:
            return [f"dumps {shown}"]
        paths = [path_of(self.lab.router, prefix) for prefix in (PREFIX, PREFIX6)]
        right = [{(one, "gi1_1"): 1, **({(two, SECOND): 3} if second else {})}
                 for one, two in ((GATEWAY, GATEWAY_2), (GATEWAY6, GATEWAY6_2))]
        if paths != right:
            return [f"kernel routes {paths}"]
        return self._watch_faults(second)

    def _watch_faults(self, second):
        events = self.watch.events()
        last = {(one["uplink"], one["family"]): one["to"] for one in events if one["event"] == "uplink"}
        wanted = {(name, family): "active" if second or name != SECOND else "failed"
                  for name in ("gi1_1", SECOND) for family in (4, 6)}
        if last != wanted:
            return [f"events {last}"]
        told = [(one["event"], one["uplink"] or "", one["family"] or 0, one["from"] or "", one["to"] or "")
                for one in events]
        kept = history()[-len(told):]
        if [one[:2] + one[3:] for one in kept] != [one[:2] + one[3:] for one in told]:
            return [f"history: told {told[-3:]} kept {kept[-3:]}"]
        return [] if metrics() == 200 else ["no metrics"]

    def expect_right(self, second, within=8):
        """Within so many cycles, and however slow the machine is."""
        found = []

        def is_right():
            threading.Event().wait(POLL_S)
            found[:] = self.faults(second)
            return not found
        try:
            self.lab.cycles.expect(is_right, within, "everything is right")
        except AssertionError as late:
            raise AssertionError(f"{late}; {json.dumps(found)}") from None

"""Twenty scripted outages of several kinds, two of each of ten uplinks: events, hooks, history, report and metrics agree
with the script and with the daemon's log, to the cycle.

    gi1_1 -- 10.1.0.1, ..., gi1_10 -- 10.10.0.1        one rule over all
"""
import collections
import http.client
import json
import os
import re
import sqlite3
import time
from datetime import datetime

from kit import Conf, LabTest, expect, main, ping
from kit import echo_policies as policy
from kit.lbwatch import HISTORY, Lbwatch, lbwatch
from scenes import PREFIX, changed

UPLINKS = [f"gi1_{number}" for number in range(1, 11)]
HOOKS = "/run/hooks.d"
HOOKED = "/run/hooked"
# How far an event may lie behind the line in the log: the time that several dumps of one cycle are waited for, and what a
# busy machine holds up. A cycle takes a second.
LATE_S = 1.0

# Each takes an uplink's far end and makes it fail; the first outage of an uplink is of another kind than its second.
FAULTS = [
    lambda peer: setattr(peer, "echo", policy.silence),
    lambda peer: setattr(peer, "echo", policy.delayed(3)),
    lambda peer: setattr(peer, "echo", policy.lying(payload=b"")),
    lambda peer: peer.link("down"),
]


def mend(peer):
    peer.echo = policy.answer
    peer.link("up")


def time_s(text):
    return datetime.fromisoformat(text.replace("Z", "+00:00")).timestamp()


def metrics():
    """{(name, uplink, to): value}"""
    connection = http.client.HTTPConnection("127.0.0.1", 9837, timeout=15)
    try:
        connection.request("GET", "/metrics")
        text = connection.getresponse().read().decode()
    finally:
        connection.close()
    samples = {}
    for name, labels, value in re.findall(r"^(lb_\w+)\{(.*)\} (\S+)$", text, re.M):
        told = dict(re.findall(r'(\w+)="([^"]*)"', labels))
        samples[name, told.get("uplink"), told.get("to")] = float(value)
    return samples


class Outages(LabTest):
    def setUp(self):
        super().setUp()
        os.system("ip link set lo up")
        os.mkdir(HOOKS)
        hook = os.path.join(HOOKS, "note")
        with open(hook, "w", encoding="ascii") as file:
            file.write(f'#!/bin/sh\necho "$LB_UPLINK $LB_TIME $LB_FROM $LB_TO" >> {HOOKED}.$LB_EVENT\n')
        os.chmod(hook, 0o755)
        conf = Conf()
        self.peers = {}
        for number, name in enumerate(UPLINKS, 1):
            own, gateway, target = f"10.{number}.0.10", f"10.{number}.0.1", f"198.51.100.{number}"
            self.peers[name] = self.lab.uplink(name, own + "/24", gateway, known=True)
            conf.interface(name, nexthop=gateway, probes=[ping(target, 300)], success=1, failure=2)
        conf.rule("1_ipv4", {name: 1 for name in UPLINKS}, {PREFIX: None})
        self.lab.start(conf)
        self.watch = Lbwatch(self.folder, "--hooks", HOOKS, "--listen", "127.0.0.1:9837")
        self.addCleanup(self.watch.close)
        for name in UPLINKS:
            self.watch.expect_state(name, "active")
        # Their targets' first outcomes are known too, and the routes are settled.
        expect(lambda: self.watch.events("uplink", to="active"))
        self.begin = time.time()
        self.first_cycle = self.lab.cycles.count()

    def logged(self):
        """{uplink: [(state, wall-clock time)]} of the daemon's own lines since the script's begin."""
        offset = time.time() - time.monotonic()
        words = {changed(f"gigabitethernet 1/0/{number}", word): (name, state)
                 for number, name in enumerate(UPLINKS, 1)
                 for word, state in (("inactive", "failed"), ("active", "active"))}
        changes = collections.defaultdict(list)
        for line in self.lab.log.lines():
            name, state = words.get(line.text, (None, None))
            if name and line.time_s + offset > self.begin:
                changes[name].append((state, line.time_s + offset))
        return changes

    def told(self, name):
        return [one for one in self.watch.events("uplink", uplink=name) if one["from"] in ("active", "failed")]

    def play(self):
        """Five steps; in each one half of the uplinks fails and the other half returns."""
        halves = UPLINKS[::2], UPLINKS[1::2]
        for step in range(5):
            failing, returning = halves[step % 2], halves[1 - step % 2]
            if step < 4:
                for i, name in enumerate(failing):
                    FAULTS[(i + step // 2) % len(FAULTS)](self.peers[name])
            if step > 0:
                for name in returning:
                    mend(self.peers[name])
            for name in UPLINKS:
                outages = (step + 1) // 2 if name in halves[1] else step // 2 + 1
                outages = min(outages, 2)
                is_down = step < 4 and name in failing
                if outages:
                    states = (["failed", "active"] * outages)[:2 * outages - is_down]
                    expect(lambda name=name, states=states: [one for one, _ in self.logged()[name]] == states, within=60,
                           what=f"step {step}: {name} is {states} in the log")

    def test_everything_agrees_with_the_script(self):
        self.play()
        logged = self.logged()
        for name in UPLINKS:
            self.watch.expect_state(name, "active")
        self.assertEqual(sum(len(states) for states in logged.values()), 40)
        self.lab.cycles.pass_by(2)  # the last state is seen for a while, too

        self.check_events(logged)
        self.check_hooks()
        self.check_metrics()
        cycles = self.lab.cycles.count() - self.first_cycle
        self.watch.kill(15)
        self.check_history(cycles)
        self.check_report()

    def check_events(self, logged):
        late = []
        for name in UPLINKS:
            told = self.told(name)
            self.assertEqual([one["to"] for one in told], [state for state, _ in logged[name]], name)
            late += [time_s(one["time"]) - at for one, (_, at) in zip(told, logged[name])]
            for one, before in zip(told[1:], told):
                self.assertAlmostEqual(one["after_s"], time_s(one["time"]) - time_s(before["time"]), delta=0.6)
            for one in told:
                number = name.removeprefix("gi1_")
                count = "no answer (2 in a row)" if one["to"] == "failed" else "answered (1 in a row)"
                self.assertEqual(one["reason"], f"198.51.100.{number} {count}")
        print(f"\nevents behind the log: {min(late):.2f} to {max(late):.2f} s", flush=True)
        self.assertLess(max(late), LATE_S)
        self.assertGreater(min(late), -LATE_S)

    def check_hooks(self):
        """Each event once; those of one uplink in their order."""
        events = self.watch.events("uplink")

        def hooked():
            with open(HOOKED + ".uplink", encoding="ascii") as file:
                return [line.split() for line in file.read().splitlines()]

        expect(lambda: len(hooked()) >= len(events), within=60)
        for name in UPLINKS:
            self.assertEqual([line for line in hooked() if line[0] == name],
                             [[one[key] for key in ("uplink", "time", "from", "to")] for one in events
                              if one["uplink"] == name])

    def check_metrics(self):
        samples = metrics()
        for name in UPLINKS:
            told = self.told(name)
            down_s = sum(time_s(two["time"]) - time_s(one["time"]) for one, two in zip(told[::2], told[1::2]))
            self.assertEqual(samples["lb_uplink_transitions_total", name, "failed"], 2)
            self.assertEqual(samples["lb_uplink_transitions_total", name, "active"], 2)
            self.assertAlmostEqual(samples["lb_uplink_down_seconds_total", name, None], down_s, delta=0.1)

    def check_history(self, cycles):
        done = lbwatch("events", "--history", HISTORY, "--json", "--since", "1h")
        self.assertEqual([json.loads(line) for line in done.stdout.splitlines()], self.watch.events())
        with sqlite3.connect(f"file:{HISTORY}?mode=ro", uri=True) as database:
            counted = dict(database.execute(
                "SELECT uplink.name, sum(answered + missed) FROM minute JOIN target ON target.id = minute.target "
                "JOIN uplink ON uplink.id = target.uplink GROUP BY uplink.name"))
        self.assertEqual(sorted(counted), sorted(UPLINKS))
        # One worker serves all: each of its cycles counts once for each, beside some before the script's begin.
        self.assertGreaterEqual(min(counted.values()), cycles - 2)
        self.assertLessEqual(max(counted.values()), self.lab.cycles.count() + 1)

    def check_report(self):
        report = json.loads(lbwatch("report", "--json", "--since", "1h", "--history", HISTORY).stdout)
        self.assertEqual([one["uplink"] for one in report["uplinks"]], sorted(UPLINKS))
        for one in report["uplinks"]:
            told = self.told(one["uplink"])
            self.assertEqual([(outage["begin"], outage["end"], outage["reason"]) for outage in one["outages"]],
                             [(down["time"], up["time"], down["reason"]) for down, up in zip(told[::2], told[1::2])])
            self.assertEqual(one["flaps"], 4)
            down_s = sum(time_s(up["time"]) - time_s(down["time"]) for down, up in zip(told[::2], told[1::2]))
            self.assertEqual(one["failed_s"], int(down_s + 0.001))  # whole seconds


if __name__ == "__main__":
    main()

"""A night that lbwatch recorded beside the daemon, replayed by lbsim: the same changes of each uplink, and no others.

    gi1_1 -- 10.1.0.1, dead for 20 s within one minute       gi1_2 -- 10.2.0.1, which drops every ninth echo of each target
"""
import json
import os
import subprocess
import time
from datetime import datetime

from kit import Conf, LabTest, expect, main, ping
from kit import echo_policies as policy
from kit.lbwatch import HISTORY, Lbwatch
from scenes import PREFIX

LBSIM = os.environ.get("LB_LBSIM", os.path.join(os.path.dirname(__file__), "../../build/lbsim"))
UPLINKS = ("gi1_1", "gi1_2")
RESP_TIME_MS = 2500
FAILURE_S = 4  # from one unanswered echo to the next: given up after the time above, in the third cycle
OUTAGE_S = 20
# The begin of an outage is known to a cycle either way, since an echo leaves every second one; the verdict comes within a
# cycle, and is read within the next one. The same of its end, of which the echo that waits then tells no more.
TOLERANCE_S = 3
ROUND_TRIP = policy.delayed(0.05)


def targets(number):
    return [f"198.51.100.{10 * number + one}" for one in (1, 2)]


def configuration(failure=3):
    conf = Conf()
    for number, name in enumerate(UPLINKS, 1):
        conf.interface(name, nexthop=f"10.{number}.0.1", success=3, failure=failure,
                       probes=[ping(target, RESP_TIME_MS) for target in targets(number)])
    conf.rule("1_ipv4", {name: 1 for name in UPLINKS}, {PREFIX: None})
    return conf


def time_s(text):
    return datetime.fromisoformat(text.replace("Z", "+00:00")).timestamp()


class Replay(LabTest):
    def record(self):
        """Plays the night: when it was begun, when the outage began and ended."""
        os.system("ip link set lo up")
        peers = [self.lab.uplink(name, f"10.{number}.0.10/24", f"10.{number}.0.1", known=True)
                 for number, name in enumerate(UPLINKS, 1)]
        lossy = {target: policy.drop_every(9, ROUND_TRIP) for target in targets(2)}
        counts = dict.fromkeys(targets(2), 0)

        def answer(request, _number):
            counts[request.destination] += 1
            return lossy[request.destination](request, counts[request.destination])
        peers[0].echo, peers[1].echo = ROUND_TRIP, answer
        self.lab.start(configuration())
        watch = Lbwatch(self.folder, "--hooks", "none")
        self.addCleanup(watch.close)
        for name in UPLINKS:
            watch.expect_state(name, "active")
        self.lab.cycles.pass_by(1)
        begun = time.time()
        # The simulated daemon, which starts then, has judged, and outage and return are one minute's.
        expect(lambda: time.time() > begun + 12 and 2 < time.time() % 60 < 24, 60, "a minute has begun")
        dead = time.time()
        peers[0].echo = policy.silence
        watch.expect_state("gi1_1", "failed", within=3 * FAILURE_S + 5)
        expect(lambda: time.time() > dead + OUTAGE_S, OUTAGE_S, "the outage is over")
        alive = time.time()
        peers[0].echo = ROUND_TRIP
        watch.expect_state("gi1_1", "active", within=FAILURE_S + 10)
        self.lab.cycles.pass_by(3)
        watch.kill(15)
        return watch, begun, dead, alive

    def lbsim(self, begun, *arguments):
        """(what is told, of the second 0)"""
        answer = subprocess.run([LBSIM, "--json", "--replay", HISTORY, "--since", f"{begun:.3f}", *arguments], check=True,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=30)
        self.assertEqual(answer.stderr.count(b"\n"), 1, answer.stderr)  # nothing is doubtful
        return json.loads(answer.stdout)

    def conf(self, name, made):
        path = os.path.join(self.folder, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(made.text())
        return path

    def test_outage_within_a_minute_comes_back_as_it_was(self):
        watch, begun, dead, alive = self.record()
        conf = self.conf("as_it_was.conf", configuration())

        told = self.lbsim(begun, conf)

        for name in UPLINKS:
            seen = [(one["to"] == "active", time_s(one["time"]) - begun) for one in watch.events("uplink", uplink=name)
                    if one["from"] in ("active", "failed")]
            states = [(one["active"], one["t"]) for one in told["events"]
                      if one["event"] == "state" and one["uplink"] == name]
            shown = f"{name}\ntold: {states}\nseen: {seen}"
            self.assertTrue(states[0][0] and states[0][1] < dead - begun, shown)  # it has started
            self.assertEqual([active for active, _ in states[1:]], [active for active, _ in seen], shown)
            self.assertEqual(len(seen), 2 if name == "gi1_1" else 0, shown)
            for (_, told_s), (_, seen_s) in zip(states[1:], seen):
                self.assertLess(abs(told_s - seen_s), TOLERANCE_S, shown)
                print(f"\ntold {told_s:.1f} s, seen {seen_s:.1f} s", flush=True)
        rows = [row for row in told["summary"]["rows"] if row["uplink"] == "gi1_1" and row["event"] != "start"]
        self.assertEqual([row["condition"] for row in rows], ["dead", "good"], rows)
        for row, true_s in zip(rows, (dead - begun, alive - begun)):
            self.assertLess(abs(row["t"] - true_s), TOLERANCE_S, rows)
        self.assertEqual([row["flaps"] for row in told["summary"]["rows"]], [0] * len(told["summary"]["rows"]))
        self.assertEqual([one["unwatched_s"] for one in told["summary"]["uplinks"]], [0, 0])
        # A loss that changed no verdict is there too: a ninth of the echoes.
        losses = [int(row["event"].rsplit("loss ", 1)[1].split("%")[0]) for row in told["summary"]["rows"]
                  if row["uplink"] == "gi1_2" and "loss" in row["event"]]
        self.assertTrue(losses and all(0 < loss < 40 for loss in losses), losses)

        # What would have been: seven unanswered echoes take longer than that outage was.
        patient = self.lbsim(begun, "--compare", self.conf("patient.conf", configuration(failure=7)), conf)
        self.assertEqual(patient["events"], told["events"])
        self.assertEqual([one["changes"] for one in patient["summary"]["uplinks"]], [3, 1])
        self.assertEqual([one["changes"] for one in patient["summary"]["compared"]["uplinks"]], [1, 1])


if __name__ == "__main__":
    main()

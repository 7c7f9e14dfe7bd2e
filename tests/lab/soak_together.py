"""The soak of all programs together: one minute after the other, and the reckoning at the end."""
import collections
import json
import statistics
import time
from datetime import datetime

import soak_told as told
from kit import expect
from kit.lbroute import status
from kit.lbwatch import HISTORY, lbwatch
from soak_companions import Follower, OpenPage, RoutingDaemon, Scraper
from soak_network import Network
from soak_watch import Errors, KernelRoutes, Watch, usage_of

# How soon the kernel's routes are right after a fragment's change or a start of lbroute.
PROMISE_S = 5
# How far lbwatch may lie behind the dump that it tells of, on a busy machine.
TOLD_WITHIN_S = 2
WARM_UP_MINUTES = {"lb": 5, "lbroute": 5, "lbwatch": 10}
# What an allocator, and a database's page cache, may still take after the warm-up without anything growing for good.
MEMORY_ALLOWANCE_KB = {"lb": 512, "lbroute": 512, "lbwatch": 1024}
# lbwatch makes its page from the states of the last day, which are more with every change until a day has passed.
MEMORY_A_CHANGE_KB = {"lb": 0, "lbroute": 0, "lbwatch": 1}
# lbroute is left alone for the last part, so that it has the time to grow.
SHARE_WITH_KILLS = 2 / 3
# Time down by the report and by the script: what an uplink may differ for each of its changes, and all on average. (Down
# is told after three missed answers, up after two that came: 5 to 10 s and 2 to 5 s later.)
DIFFERENCE_S_A_CHANGE = 8
MEAN_DIFFERENCE_S_A_CHANGE = 2.5
# Hooks and requests that are under way hold a descriptor or two: so many minutes at either end are compared.
MINUTES_COMPARED = 5
FAILED_SCRAPES_ALLOWED = 0.01


def transitions_of(events):
    """{(namespace, family, name, to): how often it was told}"""
    changes = (("active", "failed"), ("failed", "active"))
    return {(*key, state): sum((one["from"], one["to"]) in changes and one["to"] == state for one in of_one)
            for key, of_one in told.per_uplink(events).items() for state in ("active", "failed")}


class Together:  # pylint: disable=too-many-instance-attributes
    def __init__(self, lab, dice, uplinks, settle_cycles):
        self.lab, self.dice = lab, dice
        self.errors = Errors()
        self.network = Network(lab, dice, uplinks, with_leases=True)
        self.watch = Watch(lab, self.network, settle_cycles, self.errors)
        self.routing = RoutingDaemon(lab, dice, self.errors, PROMISE_S)
        self.routes = KernelRoutes(self.network, self.watch, self.errors, PROMISE_S)
        expect(lambda: (found := self.watch.published()) and len(found) == uplinks and all(found.values()), within=60,
               what="all uplinks are active")
        self.follower = Follower(lab)
        expect(lambda: sum(one["to"] == "active" for one in self.follower.program.events("uplink")) == uplinks,
               within=30, what="lbwatch tells all uplinks as active")
        self.page = OpenPage(lab)
        self.scraper = Scraper(lab)
        expect(self.scraper.transitions, within=60, what="Prometheus scrapes lbwatch")
        self.wall_minus_monotonic = time.time() - time.monotonic()
        self.network.begin_past()
        self.usages = collections.defaultdict(list)  # program: [(minute, pid, Usage, changes so far)]

    def programs(self):
        return {"lb": self.watch.pid, "lbroute": self.routing.pid, "lbwatch": self.follower.pid}

    def running(self):
        return self.watch.running() and self.follower.program.running()

    def run(self, minutes):
        """False when the daemon or lbwatch ended before."""
        begin = time.monotonic()
        kills_end = begin + minutes * 60 * SHARE_WITH_KILLS
        for minute in range(1, minutes + 1):
            while time.monotonic() < begin + minute * 60 and self.running():
                self.network.change_one(self.watch.keep_alives.cycles, self.watch.settled())
                time.sleep(self.dice.uniform(0.2, 1.8))
                self.look(may_kill=time.monotonic() < kills_end)
            if not self.running():
                return False
            self.tell(minute)
        return True

    def look(self, may_kill):
        self.watch.compare()
        self.routing.pass_time(may_kill)
        if self.routing.has_had_its_time():
            self.routes.compare()

    def tell(self, minute):
        cycles_s = self.watch.keep_alives.cycle_lengths_s()[-60:]
        print(f"minute {minute:3d}: {self.network.changes} changes, {self.network.lease_changes} of leases, "
              f"{self.routing.kills} kills of lbroute, {self.watch.text()}, {self.routes.text()}, "
              f"cycle {statistics.median(cycles_s):.3f} s (up to {max(cycles_s):.3f}), far ends late by up to "
              f"{max(one.peer.recording.worst_s for one in self.network.uplinks):.2f} s")
        for name, pid in self.programs().items():
            usage = usage_of(pid)
            if usage is not None:
                self.usages[name].append((minute, pid, usage, self.network.changes))
                more = f", {self.follower.sizes_text()}" if name == "lbwatch" else ""
                print(f"  {name:8s}{usage}, {usage.cpu_s:.1f} s of a processor{more}", flush=True)

    def come_to_rest(self):
        """Nothing changes any more until all that changed is noticed, in the kernel and told."""
        end = self.watch.keep_alives.cycles() + self.watch.settle_cycles + PROMISE_S + TOLD_WITHIN_S + 2

        def rested():
            self.routing.pass_time(may_kill=False)
            return self.watch.keep_alives.cycles() >= end
        expect(rested, within=120, what="the cycles to settle pass by")
        expect(self.routing.has_had_its_time, within=30, what="lbroute runs")
        self.look(may_kill=False)

    # The reckoning.

    def reckon(self):
        """Lines about what was wrong."""
        lines = []
        events = self.follower.program.events()
        hooked = self.events_once(lambda: self.follower.hooked(), len(events))
        lines += told.differences("what the hook was given", hooked, events)
        lines += told.differences("the stream of events", self.events_once(lambda: self.page.events, len(events)), events)
        done = lbwatch("events", "--history", HISTORY, "--json", "--since", "1w")
        kept = [json.loads(line) for line in done.stdout.splitlines()]
        lines += told.differences("the history", kept, events)
        lines += told.broken_chains(events)
        print(f"{len(events)} events: {len(hooked)} by the hook, {len(self.page.events)} by the stream, {len(kept)} in the "
              f"history; {self.page.states} states and {self.page.pages} pages were read")
        lines += self.page.problems
        if self.page.pages == 0 or self.page.states == 0:
            lines.append("no page was read")
        lines += [line for line in self.follower.program.notices.splitlines()]
        lines += self.judge_uplinks(events)
        lines += self.judge_leases(events)
        lines += self.judge_prometheus(events)
        lines += self.judge_report(events)
        code, shown = status(self.lab.router)
        if code != 0:
            lines.append(f"lbroute status ended with {code}: {json.dumps(shown)[:500]}")
        return lines

    @staticmethod
    def events_once(read, count):
        """What was read once it is as many, or does not become so."""
        try:
            expect(lambda: len(read()) >= count, within=60)
        except AssertionError:
            pass
        return read()

    def _time(self, event):
        """Of the monotonic clock."""
        return datetime.fromisoformat(event["time"].replace("Z", "+00:00")).timestamp() - self.wall_minus_monotonic

    def judge_uplinks(self, events):
        account, end, found = told.Account(), time.monotonic(), told.per_uplink(events)

        def noticed_by(at):
            noticed = self.watch.noticed_by(at)
            return None if noticed is None else noticed + TOLD_WITHIN_S
        for one in self.network.uplinks:
            account.judge(one.key, one.past, [(self._time(event), event["to"] == "active") for event in found[one.key]],
                          end, noticed_by, one.peer.recording.was_late)
        print(f"{account.stretches} states of uplinks lasted long enough to be told, {account.outages} outages among them; "
              f"{len(account.lines)} were told wrongly, {account.left_out} left out (a far end was late)")
        if account.outages == 0:
            account.lines.append("no outage was long enough")
        return account.lines

    def judge_leases(self, events):
        lines, changes = [], 0
        for one in self.network.uplinks:
            if one.has_lease:
                seen = [event["to"] for event in events if event["event"] == "nexthop" and event["uplink"] == one.name]
                changes += len(seen)
                if seen != one.leased[1:]:
                    lines.append(f"next hops of {one.key} are told as {seen}, the leases were {one.leased[1:]}")
        print(f"{changes} changes of next hops by leases were told")
        return lines

    def judge_report(self, events):
        """The report of the whole run against the script and the events. Ends lbwatch, which then has written all."""
        end, lines, points, differences_s = time.monotonic(), [], [], []
        self.follower.program.close()
        report = json.loads(lbwatch("report", "--json", "--since", "1d", "--history", HISTORY).stdout)
        told_of = {(one["namespace"], f"ipv{one['family']}", one["uplink"]): one for one in report["uplinks"]}
        transitions = transitions_of(events)
        for one in self.network.uplinks:
            of_one = told_of[one.key]
            flaps = transitions[(*one.key, "active")] + transitions[(*one.key, "failed")]
            if of_one["flaps"] != flaps:
                lines.append(f"the report has {of_one['flaps']} flaps of {one.key}, {flaps} were told")
            length_s = end - one.past[0][0]
            script_s = told.down_s(one.past, end)
            differences_s.append(abs(of_one["failed_s"] - script_s))
            points.append(abs(of_one["availability_percent"] - 100 * (1 - script_s / length_s)))
            if differences_s[-1] > DIFFERENCE_S_A_CHANGE * len(one.past):
                lines.append(f"the report has {one.key} down for {of_one['failed_s']} s, the script for {script_s:.0f} s "
                             f"in {len(one.past) - 1} changes")
        a_change_s = sum(differences_s) / sum(len(one.past) for one in self.network.uplinks)
        print(f"availability by the report and by the script differs by {statistics.mean(points):.2f} points on average, "
              f"{max(points):.2f} at most, {a_change_s:.2f} s for each change")
        if a_change_s > MEAN_DIFFERENCE_S_A_CHANGE:
            lines.append("the report's availability is not the script's")
        return lines

    def judge_prometheus(self, events):
        wanted = transitions_of(events)
        try:
            expect(lambda: self.scraper.transitions() == wanted, within=60)
        except AssertionError:
            known = self.scraper.transitions()
            return [f"Prometheus has {known.get(key)} transitions of {key}, {count} were told"
                    for key, count in wanted.items() if known.get(key) != count]
        scrapes, failed = self.scraper.scrapes()
        print(f"{sum(wanted.values())} transitions of {len(self.network.uplinks)} uplinks are the same in Prometheus, by "
              f"{scrapes} scrapes, {failed} of which failed")
        # Each has 5 s, which a busy machine may use up.
        return [f"{failed} of {scrapes} scrapes failed"] if failed > scrapes * FAILED_SCRAPES_ALLOWED else []

    def judge_growth(self):
        lines = []
        for name, seen in self.usages.items():
            last_pid = seen[-1][1]
            same = [one for one in seen if one[1] == last_pid]
            settled = [one for one in same if one[0] >= same[0][0] + WARM_UP_MINUTES[name] - 1]
            if len(settled) < 2:
                print(f"{name}: the run was too short to tell growth from warming up")
                continue
            first, last = settled[0][2], settled[-1][2]
            most_kb = max(one[2].rss_kb for one in settled)
            allowed_kb = MEMORY_ALLOWANCE_KB[name] + MEMORY_A_CHANGE_KB[name] * (settled[-1][3] - settled[0][3])
            print(f"{name} from minute {settled[0][0]} to {settled[-1][0]}: RSS {first.rss_kb} -> {last.rss_kb} kB "
                  f"(at most {most_kb}, {first.rss_kb + allowed_kb} allowed), descriptors {first.descriptors} -> "
                  f"{last.descriptors}, threads {first.threads} -> {last.threads}")
            if most_kb > first.rss_kb + allowed_kb:
                lines.append(f"the memory of {name} grew")
            early, late = ([one[2] for one in part] for part in (settled[:MINUTES_COMPARED],
                                                                        settled[-MINUTES_COMPARED:]))
            if any(min(getattr(one, what) for one in late) > max(getattr(one, what) for one in early)
                   for what in ("descriptors", "threads")):
                lines.append(f"descriptors or threads of {name} grew")
        return lines


def soak(lab, dice, minutes, uplinks, settle_cycles):
    """The exit status."""
    run = Together(lab, dice, uplinks, settle_cycles)
    leases = sum(one.has_lease for one in run.network.uplinks)
    print(f"soak: {uplinks} uplinks, {leases} of them with leases, {minutes} min, "
          f"{settle_cycles} cycles to notice, {PROMISE_S} s for the kernel's routes", flush=True)
    lines = []
    if run.run(minutes):
        run.come_to_rest()
        lines = run.reckon()
    else:
        lines.append("lb or lbwatch ended")
    lines += run.judge_growth()
    if run.routing.ready_after_s:
        print(f"lbroute was killed {run.routing.kills} times; all routes were in the kernel "
              f"{statistics.median(run.routing.ready_after_s):.2f} s after a start, "
              f"{max(run.routing.ready_after_s):.2f} s at most")
    lines += [f"{count} times wrong: {kind}" for kind, count in run.errors.counts.items() if count]
    for line in lines[:100]:
        print("fault: " + line)
    print("soak: " + (f"{len(lines)} faults" if lines else "nothing grew, nothing was wrong, nothing was lost"))
    return 1 if lines else 0

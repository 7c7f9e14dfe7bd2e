"""Every system call that the programs make in steady state fails, with each plausible error, while an outage begins and
while it ends; when the errors have ended, everything is right within the promised cycles.

    test_injected_errors.py          a choice of the cases, LB_INJECT_CASES of them, drawn by LB_INJECT_SEED
    test_injected_errors.py --all    all of them (or LB_INJECT_ALL=1); with programs behind it, all of these
    test_injected_errors.py lbroute:sendmsg:ENOBUFS:each ...

A case is PROGRAM:CALL:ERROR:OCCASION. The calls come from a trace of the three programs through an outage and its end.
Several cases run side by side, in sandboxes of their own.
"""
import json
import os
import random
import subprocess
import sys
import tempfile
import time

from injection_scene import InjectionTest
from kit import expect, main, sandbox
from kit.cycles import patience_s
from kit.injection import EXCLUDED, OCCASIONS, calls_of, count_injected, errors_of, inject, trace
from kit.lab import results_folder

PROGRAMS = ("lb", "lbroute", "lbwatch")
WORK, RESULTS = "LB_INJECT_WORK", "LB_INJECT_RESULTS"
CYCLES_OF_ERRORS = 3

# What by design stays wrong after the errors have ended, until the operator does what docs/behaviour.md says.
RESTART, NEXT_CHANGE = "restart", "the next change of the routes"
REMEDIES = {
    ("lb", "sendto"): RESTART,  # B83: the namespace's solicitations have ended
    ("lb", "recvfrom", "ENOBUFS"): RESTART,  # B84: so has a receiver of answers to them, or to ARP requests
    ("lb", "recvfrom", "ENETDOWN"): RESTART,  # B84
    ("lb", "poll"): RESTART,  # B84
    ("lb", "openat"): NEXT_CHANGE,  # B102: the fragment could not be written
    ("lb", "write"): NEXT_CHANGE,  # B102
}


def remedy_of(case):
    name, call, error, _ = case.split(":")
    return REMEDIES.get((name, call)) or REMEDIES.get((name, call, error))


def tell(**result):
    with open(os.environ[RESULTS], "a", encoding="utf-8") as file:
        file.write(json.dumps(result) + "\n")


class Traced(InjectionTest):
    def test_calls(self):
        logs = {name: trace(self.program(name)[0], f"{self.folder}/{name}.strace") for name in PROGRAMS}
        self.lab.cycles.pass_by(2)
        for works in (False, True):
            self.let_second(works)
            self.expect_right(works)
        calls = {name: calls_of(log.end()) for name, log in logs.items()}
        for name, found in calls.items():
            self.assertTrue(found, name)
            tell(program=name, calls=sorted(found))


class Injected(InjectionTest):
    def test_cases(self):
        self.before = ""
        for case in os.environ[WORK].split():
            with self.subTest(case=case):
                self.run_case(case)

    def run_case(self, case):
        name, call, error, occasion = case.split(":")
        result = {"case": case, "before": self.before, "injected": 0, "remedies": [], "fault": "it did not end"}
        self.before = case
        began = time.monotonic()
        try:
            for works in (False, True):
                result["injected"] += self.errors_meanwhile(works, name, call, error, occasion)
                self.assert_alive(name)
                self.expect_right_or_remedied(works, result)
            result["fault"] = ""
            if remedy_of(case) == RESTART:
                self.restart(name)  # its error may show in a later case only
                self.expect_right(True, 20)
        except Exception as wrong:
            _, _, words = self.program(name)
            result["fault"] = f"{type(wrong).__name__}: {wrong}\n{words()[-1500:]}"
            self.before = ""
            self.begin_anew()
            raise
        finally:
            tell(seconds=round(time.monotonic() - began, 1), **result)

    def errors_meanwhile(self, works, name, call, error, occasion):
        """The outage begins or ends while the calls fail; how many failed."""
        log = f"{self.folder}/{name}.strace"
        tracing = inject(self.program(name)[0], log, call, error, occasion)
        end = self.lab.cycles.count() + CYCLES_OF_ERRORS
        deadline = time.monotonic() + CYCLES_OF_ERRORS + 2  # also of a daemon whose cycles stand still by the errors
        try:
            self.let_second(works)
            expect(lambda: self.lab.cycles.count() >= end or time.monotonic() > deadline,
                   patience_s(CYCLES_OF_ERRORS))
        finally:
            lines = tracing.end()
        return count_injected(lines)

    def assert_alive(self, name):
        for program in PROGRAMS:
            _, is_running, _ = self.program(program)
            self.assertTrue(is_running(), f"{program} has ended, while {name} had errors")

    def expect_right_or_remedied(self, works, result):
        remedy = remedy_of(result["case"])
        name = result["case"].split(":")[0]
        try:
            self.expect_right(works)
        except AssertionError:
            if remedy is None:
                raise
            result["remedies"].append(remedy)
            if remedy == RESTART:
                self.restart(name)
            else:
                self.let_second(not works)
                self.lab.cycles.pass_by(5)
                self.let_second(works)
            self.expect_right(works)
        self.assert_alive(name)

    def begin_anew(self):
        self.let_second(True)
        for name in PROGRAMS:
            self.restart(name)
        self.expect_right(True, 20)


# The one that runs the others.

class Worker:
    def __init__(self, test, folder, number, cases=()):
        self.cases = cases
        self._base = os.path.join(folder, str(number))
        environment = {**os.environ, WORK: " ".join(cases), RESULTS: self._base + ".results",
                       "LB_LAB_RESULTS": os.path.join(results_folder(), f"injected{number}")}
        with open(self._base + ".out", "wb") as out:
            self._process = subprocess.Popen([sys.executable, os.path.abspath(__file__), test], env=environment,
                                             stdin=subprocess.DEVNULL, stdout=out, stderr=out)

    def wait(self):
        """Its exit status and its results."""
        status = self._process.wait()
        results = []
        if os.path.exists(self._base + ".results"):
            with open(self._base + ".results", encoding="utf-8") as file:
                results = [json.loads(line) for line in file]
        if status != 0:
            with open(self._base + ".out", encoding="utf-8", errors="replace") as file:
                print(file.read(), file=sys.stderr)
        return status, results


def all_cases(traced):
    return [f"{one['program']}:{call}:{error}:{occasion}" for one in traced for call in one["calls"]
            if call not in EXCLUDED for error in errors_of(call) for occasion in OCCASIONS]


def choose(cases, rng, number):
    """So many, each of another call of a program as long as there are such."""
    rng.shuffle(cases)
    chosen, calls = [], set()
    for case in cases:
        call = tuple(case.split(":")[:2])
        if call not in calls:
            calls.add(call)
            chosen.append(case)
    return (chosen + [case for case in cases if case not in chosen])[:number]


def coordinate(words):
    if os.geteuid() != 0:
        print("skipped: a lab test makes network namespaces and needs root")
        return sandbox.SKIPPED
    seed = os.environ.get("LB_INJECT_SEED", "1")
    is_all = "--all" in words or bool(os.environ.get("LB_INJECT_ALL"))
    cases = [word for word in words if ":" in word]
    side_by_side = int(os.environ.get("LB_INJECT_JOBS", "5"))
    began = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="lb-injected-") as folder:
        if not cases:
            status, traced = Worker("Traced", folder, "trace").wait()
            if status != 0 or len(traced) != len(PROGRAMS):
                return status or 1
            for one in traced:
                left = sorted(set(one["calls"]) & set(EXCLUDED))
                print(f"{one['program']}: {len(one['calls'])} calls, left alone: {' '.join(left)}; failing: "
                      + " ".join(sorted(set(one["calls"]) - set(left))))
            cases = all_cases(traced)
            programs = [word for word in words if word in PROGRAMS] or PROGRAMS
            cases = [case for case in cases if case.split(":")[0] in programs]
            total = len(cases)
            rng = random.Random(seed)
            cases = rng.sample(cases, total) if is_all else choose(cases, rng, int(os.environ.get("LB_INJECT_CASES", "10")))
            print(f"{len(cases)} of {total} cases, seed {seed}", flush=True)
        workers = [Worker("Injected", folder, number, cases[number::side_by_side])
                   for number in range(min(side_by_side, len(cases)))]
        ended = [worker.wait() for worker in workers]
    results = [one for _, found in ended for one in found]
    return judge(cases, results, time.monotonic() - began) or max(status for status, _ in ended)


def judge(cases, results, seconds):
    """Prints what was found; 1 where something is wrong."""
    for one in sorted(results, key=lambda one: one["case"]):
        word = "FAILED" if one["fault"] else "met no call" if not one["injected"] else "ok"
        remedies = f", after: {', '.join(one['remedies'])}" if one["remedies"] else ""
        print(f"{one['case']}: {word}, {one['injected']} errors, {one['seconds']} s{remedies}")
        if one["fault"]:
            print(f"    (before it: {one['before'] or 'a new start'})")
            print("    " + one["fault"].replace("\n", "\n    "))
    failed = sum(bool(one["fault"]) for one in results)
    met = sum(bool(one["injected"]) for one in results)
    print(f"{len(results)} of {len(cases)} cases run, {met} met calls, "
          f"{sum(one['injected'] for one in results)} errors, {failed} failed, in {seconds:.0f} s")
    # Some calls come too seldom to meet an error; where most do, no error came.
    return int(failed > 0 or len(results) != len(cases) or met * 2 <= len(results))


if __name__ == "__main__":
    if os.environ.get(RESULTS):
        main()
    else:
        sys.exit(coordinate(sys.argv[1:]))

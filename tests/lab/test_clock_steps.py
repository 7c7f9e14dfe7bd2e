"""The wall clock of the daemon jumps by a day and back again (see running.py).

A preloaded library (stepped_clock.cpp) adds an offset to that one process's clock.
"""
import mmap
import os
import re
import struct
import unittest

from kit import main
from kit.daemon import preload
from kit.lbshow import state
from kit.routing_daemon import text_of
from running import REPORT, RunningTest
from scenes import INACTIVE, INACTIVE_2

LIBRARY = os.environ.get("LB_STEPPED_CLOCK", "")
DAY_S = 86400
OFFSET = "/run/clock-offset"


@unittest.skipUnless(os.path.exists(LIBRARY), "LB_STEPPED_CLOCK names no library")
class ClockSteps(RunningTest):
    def setUp(self):
        super().setUp()
        with open(OFFSET, "wb") as file:
            file.write(bytes(8))
        with open(OFFSET, "r+b") as file:
            self.offset = mmap.mmap(file.fileno(), 8)
        self.start(environment={
            **preload(LIBRARY), "LB_CLOCK_OFFSET": OFFSET,
            # The sanitizer's library does not mind not being the first one.
            "ASAN_OPTIONS": "verify_asan_link_order=0:" + os.environ.get("ASAN_OPTIONS", "")})
        # The loader only warns of a library that it does not find, and no clock would ever be stepped.
        self.assertIn(os.path.realpath(LIBRARY), text_of(f"/proc/{self.daemon.pid}/maps"))
        self.cycles.pass_by(2)

    def step(self, days):
        """Sets the clock so many days from the machine's."""
        self.offset[:] = struct.pack("=q", days * DAY_S)

    def ages_s(self, interface="gi1_1"):
        """(since the last success, since the last failure) as lbshow tells them."""
        one = next(one for one in state()["interfaces"] if one["name"] == interface)
        return one["since_success_s"], one["since_failure_s"]

    def shown_in_report(self, what):
        """The ages of both interfaces in the report for people."""
        return re.findall(rf"Last Interface {what}:  (\S+)\t", text_of(REPORT) or "")

    def assert_pace_is_kept_over(self, step):
        """A step changes neither how often targets are asked nor what is thought of them."""
        self.cycles.pass_by(1)
        step()
        before = len(self.one.echo_frames())
        self.cycles.pass_by(5)
        times = [frame.time_s for frame in self.one.echo_frames()[before:]]
        self.assertIn(len(times), (2, 3, 4, 5, 6))
        self.assertGreater(min(b - a for a, b in zip(times, times[1:])), 0.9)
        self.assertEqual([text for text in self.lab.log.texts()[2:] if text in (INACTIVE, INACTIVE_2)],
                         [])

    def test_pace_and_verdicts_do_not_notice_steps(self):
        for days in (1, 0, -1, 0):
            with self.subTest(days):
                self.assert_pace_is_kept_over(lambda: self.step(days))  # pylint: disable=cell-var-from-loop
        self.assert_everything_follows()

    def test_ages_are_right_again_after_the_next_outcomes(self):
        self.lose_second_uplink()
        self.return_second_uplink()
        for days in (1, -1):
            with self.subTest(days):
                self.step(days)
                self.cycles.expect(lambda: self.ages_s()[0] in range(0, 6), what="the success is new")
                self.lose_second_uplink()
                self.cycles.expect(lambda: self.ages_s("gi1_2")[1] in range(0, 6),
                                   what="the failure is new")
                self.return_second_uplink()
                self.expect_everywhere(True)

    def step_after_a_failure(self, days):
        self.lose_second_uplink()
        self.return_second_uplink()
        self.step(days)

    def test_age_of_a_failure_is_off_by_the_step(self):
        self.step_after_a_failure(1)
        self.cycles.expect(lambda: any(age.startswith("1d") for age in self.shown_in_report("Failure")),
                           what="the report tells an age of a day")
        self.step(0)
        self.cycles.expect(lambda: not any("d" in age for age in self.shown_in_report("Failure")),
                           what="the report tells the true age")

    def test_failure_of_the_future_is_ages_old_and_a_success_is_new(self):
        self.step_after_a_failure(-1)
        self.cycles.expect(lambda: any("d" in age for age in self.shown_in_report("Failure")),
                           what="the report tells an age that wraps round")
        self.assertFalse(any("d" in age for age in self.shown_in_report("Success")))

    def test_failure_after_a_step_back_is_new(self):
        self.step_after_a_failure(-1)
        self.lose_second_uplink()
        self.cycles.expect(lambda: "0s" in self.shown_in_report("Failure")
                           or "1s" in self.shown_in_report("Failure"), what="the failure is new")


if __name__ == "__main__":
    main()

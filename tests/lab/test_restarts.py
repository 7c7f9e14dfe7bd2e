"""The daemon is ended at any moment, again and again; each next start comes up right (see running.py).

The moments are drawn with a fixed seed.
"""
import os
import random
import signal
import time

from kit import expect, main
from kit.lab import CONF
from kit.routing_daemon import fragment_path, text_of
from running import DUMPS, REPORT, RunningTest, published
from scenes import ACTIVE, ACTIVE_2, VIA_BOTH, fragment, two_uplinks

PID_FILE = "/run/lb.pid"
ROUNDS = 10


def halve(path):
    """Leaves the first half of a file, as an end in the middle of its writing would."""
    if os.path.exists(path):
        os.truncate(path, os.path.getsize(path) // 2)


class Restarts(RunningTest):
    def setUp(self):
        super().setUp()
        self.lab.write_conf(two_uplinks())
        self.draw = random.Random(41)

    def run_once(self):
        return self.lab.run_daemon("-f", CONF, "-i", PID_FILE)

    def end_within(self, seconds, daemon):
        """Ends it at a moment of so many seconds, by either signal; neither is handled."""
        number = self.draw.choice((signal.SIGTERM, signal.SIGINT))
        time.sleep(self.draw.uniform(0, seconds))  # the moment is the matter here
        self.assertEqual(daemon.kill(number), -number)

    def expect_right(self, daemon):
        """All that this very run says and writes."""
        expect(lambda: {ACTIVE, ACTIVE_2} <= {line.text for line in self.lab.log.lines()
                                              if line.pid == daemon.pid})
        expect(lambda: self.lab.fragment() == fragment(VIA_BOTH))
        expect(lambda: published(True, True))
        self.assertEqual(text_of(PID_FILE), f"{daemon.pid}\n")

    def test_start_after_an_end_at_any_moment_comes_up_right(self):
        for number in range(ROUNDS):
            with self.subTest(number):
                self.end_within(1.5, self.run_once())  # while it starts, probes or writes
                daemon = self.run_once()
                self.expect_right(daemon)
                self.end_within(1.0, daemon)
        self.assertEqual(self.lab.log.errors(), [])

    def test_files_stay_when_a_signal_ends_the_daemon(self):
        for number in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(number):
                daemon = self.run_once()
                self.expect_right(daemon)
                self.assertEqual(daemon.kill(number), -number)
                self.assertEqual(self.lab.fragment(), fragment(VIA_BOTH))
                self.assertTrue(published(True, True))
                self.assertEqual(text_of(PID_FILE), f"{daemon.pid}\n")

    def test_half_written_files_of_an_earlier_run_are_replaced(self):
        first = self.run_once()
        self.expect_right(first)
        self.end_within(1.0, first)
        files = [fragment_path(), REPORT, PID_FILE, *(entry.path for entry in os.scandir(DUMPS))]
        self.assertEqual(len(files), 6)
        for path in files:
            halve(path)
        self.expect_right(self.run_once())
        self.assertEqual(self.lab.log.errors(), [])


if __name__ == "__main__":
    main()

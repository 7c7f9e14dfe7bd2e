"""Pid files that are not what they should be: the daemon's own at its start, the routing daemon's while
it runs (see running.py)."""
import os
import signal
import subprocess

from kit import expect, main
from running import RunningTest
from scenes import VIA_1, VIA_BOTH, fragment

OWN = "/run/lb.pid"


class OwnPidFile(RunningTest):
    """What an earlier run, or anybody, left in the daemon's pid file hinders and hurts nobody."""

    def assert_starts_over(self, text):
        with open(OWN, "w", encoding="latin-1") as file:
            file.write(text)
        self.start(None, "-i", OWN)
        with open(OWN, encoding="ascii") as file:
            self.assertEqual(file.read(), f"{self.daemon.pid}\n")
        expect(lambda: self.lab.fragment() == fragment(VIA_BOTH))
        self.assertEqual(self.lab.log.errors(), [])

    def test_of_a_dead_process_is_taken_over(self):
        dead = subprocess.Popen(["true"])
        dead.wait()
        self.assert_starts_over(f"{dead.pid}\n")

    def test_of_another_live_program_is_taken_over_and_the_program_left_alone(self):
        with subprocess.Popen(["sleep", "1000"]) as other:
            self.addCleanup(other.kill)
            self.assert_starts_over(f"{other.pid}\n")
            self.assertIsNone(other.poll())
            other.kill()

    def test_with_garbage_is_taken_over(self):
        self.assert_starts_over("\0\xff garbage without an end")

    def test_that_is_empty_is_taken_over(self):
        self.assert_starts_over("")


class RoutingDaemonsPidFile(RunningTest):
    def assert_next_change_finds(self, captured):
        before = len(captured.hups())
        self.assert_everything_follows()
        expect(lambda: captured.fragments()[before:] == [fragment(VIA_1), fragment(VIA_BOTH)])

    def test_of_a_stranger_has_the_stranger_signalled(self):
        with subprocess.Popen(["sleep", "1000"]) as stranger:
            self.addCleanup(stranger.kill)
            with open(self.lab.pid_file(), "w", encoding="ascii") as file:
                file.write(f"{stranger.pid}\n")
            self.start()
            self.assertEqual(stranger.wait(), -signal.SIGHUP)

    def test_that_vanishes_costs_the_notice_until_it_is_back(self):
        captured = self.lab.routing_daemon()
        self.start()
        expect(captured.hups)
        os.rename(self.lab.pid_file(), "/run/moved.pid")
        before = len(captured.hups())
        self.lose_second_uplink()
        expect(lambda: "LBDecision::run() can't execute 'cat /var/run/routing.pid'"
               in self.lab.log.texts())
        self.return_second_uplink()
        self.expect_everywhere(True)
        self.assertEqual(len(captured.hups()), before)
        os.rename("/run/moved.pid", self.lab.pid_file())
        self.assert_next_change_finds(captured)

    def test_of_a_routing_daemon_that_died_is_replaced_by_the_next_ones(self):
        died = self.lab.routing_daemon()
        self.start()
        expect(died.hups)
        os.kill(died.pid, signal.SIGKILL)
        self.assert_everything_follows()
        self.assert_next_change_finds(self.lab.routing_daemon())
        self.assertEqual(self.lab.log.errors(), [])


if __name__ == "__main__":
    main()

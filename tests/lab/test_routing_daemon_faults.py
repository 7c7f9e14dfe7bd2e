"""The routing daemon dies and comes back, the command that flushes the route cache is missing for a while,
and the balancing daemon runs on (see running.py)."""
import os
import shutil
import signal
import unittest

from kit import expect, main
from kit.routing_daemon import bird_binary, next_hops, why_no_bird
from running import RunningTest
from scenes import GATEWAY, GATEWAY_2, PREFIX, ROUTER, VIA_1, VIA_BOTH, fragment

BOTH, FIRST = {GATEWAY: 1, GATEWAY_2: 3}, {GATEWAY: 1}


@unittest.skipUnless(bird_binary(), why_no_bird())
class RealRoutingDaemon(RunningTest):
    def setUp(self):
        super().setUp()
        self.bird = self.lab.bird(ROUTER)
        self.start()
        self.expect_kernel(BOTH)

    def next_hops(self):
        return next_hops(self.lab.router, "-4", PREFIX)

    def expect_kernel(self, hops):
        self.cycles.expect(lambda: self.next_hops() == hops, what=f"the kernel routes by {hops}")

    def assert_changes_reach_the_kernel(self):
        self.lose_second_uplink()
        self.expect_kernel(FIRST)
        self.return_second_uplink()
        self.expect_kernel(BOTH)

    def test_killed_and_started_again_routes_by_what_changed_meanwhile(self):
        self.bird.end(signal.SIGKILL)
        self.lose_second_uplink()
        self.expect_everywhere(False)
        self.assertEqual(self.next_hops(), BOTH)  # what it left in the kernel
        self.bird = self.lab.bird(ROUTER)
        self.expect_kernel(FIRST)
        self.return_second_uplink()
        self.expect_kernel(BOTH)
        self.assertEqual(self.lab.log.errors(), [])

    def test_ended_and_started_again_routes_as_before_and_follows_the_next_changes(self):
        self.bird.end()
        self.cycles.pass_by(2)
        self.assertEqual(self.next_hops(), {})  # it took its routes with it
        self.bird = self.lab.bird(ROUTER)
        self.expect_kernel(BOTH)
        self.assert_changes_reach_the_kernel()
        self.assertEqual(self.lab.log.errors(), [])


class RouteCacheFlush(RunningTest):
    COMMANDS = "/run/bin"

    def put_ip(self):
        path = os.path.join(self.COMMANDS, "ip")
        with open(path + ".new", "w", encoding="ascii") as script:
            script.write(f'#!/bin/sh\necho "$@" >> {self.record}\n')
        os.chmod(path + ".new", 0o755)
        os.rename(path + ".new", path)

    def flushes(self):
        if not os.path.exists(self.record):
            return 0
        with open(self.record, encoding="ascii") as file:
            return file.read().count("route flush cache\n")

    def setUp(self):
        super().setUp()
        self.record = os.path.join(self.folder, "commands")
        os.mkdir(self.COMMANDS)
        for name in ("nsenter", "cat"):
            os.symlink(shutil.which(name), os.path.join(self.COMMANDS, name))
        self.put_ip()
        self.captured = self.lab.routing_daemon()
        self.start(environment={"PATH": self.COMMANDS})
        expect(lambda: self.flushes() >= 1)
        os.unlink(os.path.join(self.COMMANDS, "ip"))

    def test_command_that_is_missing_costs_the_flush_alone(self):
        hups, flushes = len(self.captured.hups()), self.flushes()
        self.assert_everything_follows()
        expect(lambda: self.captured.fragments()[hups:] == [fragment(VIA_1), fragment(VIA_BOTH)])
        self.cycles.pass_by(1)
        self.assertEqual(self.flushes(), flushes)
        self.assertEqual(self.lab.log.errors(), [])

    def test_command_that_is_back_is_run_again(self):
        self.lose_second_uplink()
        self.cycles.pass_by(1)  # past the flush that follows the line in the log
        flushes = self.flushes()
        self.put_ip()
        self.return_second_uplink()
        self.cycles.expect(lambda: self.flushes() == flushes + 1, what="one more flush")


if __name__ == "__main__":
    main()

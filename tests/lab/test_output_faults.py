"""The folders that the daemon writes to are removed, read-only or full while it runs (see running.py)."""
import collections
import json
import os
import shutil
import unittest

from kit import expect, main
from kit import echo_policies as policy
from kit.lab import OUTPUT_DIRECTORY
from kit.lbshow import lbshow
from kit.routing_daemon import bird_binary, why_no_bird
from running import DUMPS, NOT_OPENED, OUTBOUNDS, RunningTest, published, reported
from scenes import GATEWAY, GATEWAY_2, ROUTER, VIA_1, VIA_BOTH, error, fragment, two_uplinks

ROUTES = 150  # more of them than a page holds
NO_FOLDER = error(f"wan_lb: error create directory: {DUMPS}, errno = 2")
NOT_WRITTEN = [error("wan_lb: <dump_outbounds> error writing data block"),
               error("wan_lb: <dump_rules_and_routes> error writing data block")]


class OutputDirectory(RunningTest):
    def expect_each_logged_again(self, *messages):
        """Every cycle of the fault says so, once."""
        before = self.cycles.count(), [self.lab.log.count(message) for message in messages]
        self.cycles.pass_by(3)
        cycles = self.cycles.count() - before[0]
        for message, count in zip(messages, before[1]):
            self.assertIn(self.lab.log.count(message) - count, range(cycles - 1, cycles + 2), message)

    def expect_no_more_errors(self):
        """The cycle in which the fault ended may still have met it."""
        self.cycles.pass_by(1)
        before = len(self.lab.log.errors())
        self.cycles.pass_by(2)
        self.assertEqual(self.lab.log.errors()[before:], [])

    def expect_routes_to_follow(self):
        self.lose_second_uplink()
        self.cycles.expect(lambda: self.lab.fragment() == fragment(VIA_1), what="the routes follow")

    def test_removed_directory_costs_its_files_alone_until_it_is_made_again(self):
        self.start()
        os.rename(OUTPUT_DIRECTORY, "/run/removed")
        shutil.rmtree("/run/removed")
        self.expect_each_logged_again(NO_FOLDER)
        self.expect_routes_to_follow()
        os.mkdir(OUTPUT_DIRECTORY)
        self.expect_everywhere(False)
        self.expect_no_more_errors()

    def test_removed_folder_of_the_dumps_comes_back_by_itself(self):
        self.start()
        os.rename(DUMPS, "/run/removed")
        self.expect_everywhere(True)
        self.expect_no_more_errors()

    def test_read_only_directory_keeps_its_whole_files_until_it_is_writable(self):
        disk = self.lab.disk(OUTPUT_DIRECTORY)
        self.start()
        disk.set_read_only(True)
        self.expect_each_logged_again(*NOT_OPENED)
        self.expect_routes_to_follow()
        self.assertTrue(published(True, True))  # of before the fault
        disk.set_read_only(False)
        self.expect_everywhere(False)
        self.expect_no_more_errors()

    def test_full_disk_is_reported_and_shown_as_no_state_until_there_is_space(self):
        self.start()
        disk = self.lab.disk(OUTPUT_DIRECTORY, free_pages=0)
        self.expect_each_logged_again(*NOT_WRITTEN)
        self.expect_routes_to_follow()
        self.assertEqual(reported(), [])
        self.assert_nothing_is_shown("is empty")
        disk.empty()
        self.expect_everywhere(False)
        self.expect_no_more_errors()

    def test_half_a_dump_on_a_full_disk_is_not_shown_as_a_whole_one(self):
        self.start()
        disk = self.lab.disk(OUTPUT_DIRECTORY, free_pages=2)  # of the three that two records need
        self.expect_each_logged_again(*NOT_WRITTEN)
        self.assertGreater(os.path.getsize(OUTBOUNDS), 4312)
        self.assert_nothing_is_shown("ends within a record")
        disk.empty()
        self.expect_everywhere(True)

    def assert_nothing_is_shown(self, reason):
        done = lbshow("--json")
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertIn(f"{OUTBOUNDS} {reason}", done.stderr)


class FragmentDirectory(RunningTest):
    DIRECTORY = "/usr/etc"

    def test_fragment_on_a_read_only_disk_stays_whole_and_the_next_change_is_handed_over(self):
        disk = self.lab.disk(self.DIRECTORY)
        captured = self.lab.routing_daemon()
        self.start()
        expect(lambda: self.lab.fragment() == fragment(VIA_BOTH))
        disk.set_read_only(True)
        before = len(captured.hups())
        self.lose_second_uplink()
        self.cycles.expect(lambda: captured.fragments()[before:] == [fragment(VIA_BOTH)],
                           what="the routing daemon is signalled and finds the fragment before")
        disk.set_read_only(False)
        self.return_second_uplink()
        self.assert_everything_follows()
        self.assertEqual(captured.fragments()[-1], fragment(VIA_BOTH))

    @unittest.skipUnless(bird_binary(), why_no_bird())
    def test_fragment_cut_by_a_full_disk_is_refused_and_the_routes_before_it_stay(self):
        disk = self.lab.disk(self.DIRECTORY)
        self.bird = self.lab.bird(ROUTER)
        self.two.echo = policy.silence
        conf = two_uplinks()
        for number in range(ROUTES):
            conf.rule(f"{number + 2}_ipv4", {"gi1_1": 1, "gi1_2": 3}, {f"10.0.{number}.0/24": None})
        self.start(conf, states=(True, False))
        expect(lambda: self.routed_via() == {GATEWAY: ROUTES})
        disk.fill()
        self.return_second_uplink()
        expect(lambda: "syntax error" in self.bird.log())
        self.assertFalse(self.lab.fragment().endswith("};\n"))
        self.assertEqual(self.routed_via(), {GATEWAY: ROUTES})
        disk.empty()
        self.lose_second_uplink()
        self.return_second_uplink()
        self.cycles.expect(lambda: self.routed_via() == {GATEWAY: ROUTES, GATEWAY_2: ROUTES},
                           what="the routes of the second uplink")

    def routed_via(self):
        """{gateway: how many of the kernel's routes to 10.0/16 it carries}"""
        routes = json.loads(self.lab.router.run("ip", "-j", "route", "show", "root", "10.0.0.0/16"))
        hops = [hop["gateway"] for route in routes for hop in route.get("nexthops") or [route]]
        return collections.Counter(hops)


if __name__ == "__main__":
    main()

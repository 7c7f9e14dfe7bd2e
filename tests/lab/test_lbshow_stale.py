"""lbshow where the daemon runs no more, or serves a family no more: it shows nothing old as if it were new.

    gi1_1 -- GATEWAY, GATEWAY6   (default namespace)        gi1_2 -- GATEWAY_2
"""
import datetime
import json
import os
import time

from kit import Conf, LabTest, expect, main, ping
from kit.lab import OUTPUT_DIRECTORY
from kit.lbshow import active, lbshow, state
from scenes import (ACTIVE, ACTIVE_2, GATEWAY, PREFIX, ROUTER, attach_two, one_uplink, two_uplinks)
from scenes6 import GATEWAY6, ROUTER6

DUMPS = os.path.join(OUTPUT_DIRECTORY, "wlb_dump")
IPV6_DUMP = os.path.join(DUMPS, "wlb_ipv6_outbounds.bin")


def make_older(by_s):
    """As if that much time had passed since the dumps were written."""
    for name in os.listdir(DUMPS):
        path = os.path.join(DUMPS, name)
        written_s = os.stat(path).st_mtime
        os.utime(path, (written_s - by_s, written_s - by_s))


class DeadDaemon(LabTest):
    def setUp(self):
        super().setUp()
        attach_two(self.lab)
        self.daemon = self.lab.start(two_uplinks(failover=True))
        expect(lambda: {ACTIVE, ACTIVE_2} <= set(self.lab.log.texts()))
        expect(lambda: active() == [True, True])
        self.assertEqual(lbshow().returncode, 0)

    def kill(self):
        self.daemon.kill()

    def test_tables_say_so_in_their_first_line(self):
        self.kill()
        make_older(20)
        done = lbshow()
        self.assertEqual(done.returncode, 3)
        self.assertRegex(done.stdout, r"\ASTALE: ipv4 written 2\d s ago, at ")
        self.assertNotIn("gi1_1", done.stdout)

    def test_it_is_found_without_any_help_once_the_limit_has_passed(self):
        self.kill()
        killed = time.monotonic()
        expect(lambda: lbshow("--stale-after", "2").returncode == 3, within=20)
        self.assertGreater(time.monotonic() - killed, 1)
        self.assertEqual(lbshow("--stale-after", "600").returncode, 0)

    def test_all_shows_what_was_as_past(self):
        self.kill()
        make_older(20)
        done = lbshow("--all")
        self.assertEqual(done.returncode, 3)
        self.assertRegex(done.stdout, r"gi1_1 +ipv4 +- +was active ")
        self.assertNotRegex(done.stdout, r"gi1_1 +ipv4 +- +active ")

    def test_json_tells_when_and_how_old(self):
        self.kill()
        make_older(20)
        done = lbshow("--json")
        self.assertEqual(done.returncode, 3)
        shown = json.loads(done.stdout)
        family = shown["families"]["ipv4"]
        self.assertTrue(family["stale"])
        self.assertEqual((shown["interfaces"], shown["rules"], shown["routes"]), ([], [], []))
        written = datetime.datetime.strptime(family["written"], "%Y-%m-%dT%H:%M:%S%z")
        self.assertAlmostEqual(time.time() - written.timestamp(), family["age_s"], delta=3)
        everything = json.loads(lbshow("--json", "--all").stdout)
        self.assertEqual([one["stale"] for one in everything["interfaces"]], [True, True])

    def test_metrics_are_left_out_but_that_it_is_down(self):
        self.kill()
        make_older(20)
        done = lbshow("--metrics")
        self.assertEqual(done.returncode, 3)
        self.assertIn('lb_up{family="ipv4"} 0\n', done.stdout)
        self.assertRegex(done.stdout, r'lb_dump_age_seconds\{family="ipv4"\} 2\d\n')
        names = {line.partition("{")[0] for line in done.stdout.splitlines() if not line.startswith("#")}
        self.assertEqual(names, {"lb_up", "lb_dump_age_seconds", "lb_build_info"})

    def test_a_clock_that_was_set_back_makes_nothing_fresh(self):
        self.kill()
        make_older(-3600)
        done = lbshow()
        self.assertEqual(done.returncode, 3)
        self.assertRegex(done.stdout, r"\ASTALE: ipv4 written 3[56]\d\d s in the future")

    def test_a_living_daemon_whose_dumps_look_old_is_soon_fresh_again(self):
        """As after a step of the clock, either way."""
        for by_s in (3600, -3600):
            make_older(by_s)
            expect(lambda: lbshow().returncode == 0, within=20)
            self.assertEqual(active(), [True, True])


class Ghosts(LabTest):
    """An IPv6 uplink that the next start's configuration has no more."""

    def test_uplinks_of_the_run_before_are_no_uplinks_of_this_one(self):
        self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY, address6=ROUTER6 + "/64", gateway6=GATEWAY6,
                        known=True)
        both = (Conf().interface("gi1_1", nexthop=GATEWAY, probes=[ping(None, 900)])
                .interface("gi1_1", nexthop=GATEWAY6, source=ROUTER6, probes=[ping(None, 900)], ipv6=True)
                .rule("1_ipv4", {"gi1_1": 1}, {PREFIX: None})
                .rule("1_ipv6", interfaces6={"gi1_1": 1}, targets={"2001:db8::/32": None}))
        daemon = self.lab.start(both)
        expect(lambda: active() == [True, True])
        daemon.kill()
        self.lab.start(one_uplink(probes=[ping(None, 900)]))
        started_s = time.time()
        expect(lambda: os.stat(os.path.join(DUMPS, "wlb_ipv4_outbounds.bin")).st_mtime > started_s)
        written_s = os.stat(IPV6_DUMP).st_mtime
        os.utime(IPV6_DUMP, (written_s - 60, written_s - 60))

        done = lbshow()
        self.assertEqual(done.returncode, 3)
        self.assertRegex(done.stdout, r"\ASTALE: ipv6 written \d+ s ago, .*: rm " + IPV6_DUMP + r"\n")
        self.assertEqual([one["family"] for one in json.loads(lbshow("--json").stdout)["interfaces"]], [4])
        self.assertEqual([one["family"] for one in state()["interfaces"]], [4, 6])
        metrics = lbshow("--metrics").stdout
        self.assertIn('lb_up{family="ipv4"} 1\n', metrics)
        self.assertIn('lb_up{family="ipv6"} 0\n', metrics)
        self.assertNotIn('interface="gi1_1",family="ipv6"', metrics)

        os.unlink(IPV6_DUMP)
        self.assertEqual(lbshow().returncode, 0)


if __name__ == "__main__":
    main()

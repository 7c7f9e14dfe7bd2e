"""lbwatch beside the real daemon: what it tells of uplinks, targets, next hops, routes and the daemon.

    gi1_1 -- GATEWAY   (default namespace)        gi1_2 -- GATEWAY_2
"""
import json
import os
import signal
import time

from kit import Conf, LabTest, expect, main, ping, ping_ext
from kit import echo_policies as policy
from kit.lab import OUTPUT_DIRECTORY
from kit.lbshow import lbshow, state
from kit.lbwatch import HISTORY, Lbwatch, lbwatch
from kit.prometheus import ask
from scenes import (GATEWAY, GATEWAY_2, PREFIX, ROUTER, TARGET, TARGET_2, attach_two, one_uplink,
                    two_uplinks)

KEYS = ["time", "event", "uplink", "family", "namespace", "target", "rule", "destinations", "from",
        "to", "after_s", "reason"]


class Watched(LabTest):
    def watch(self, *arguments, **options):
        watch = Lbwatch(self.folder, *arguments, **options)
        self.addCleanup(watch.close)
        return watch


class Events(Watched):
    def setUp(self):
        super().setUp()
        self.peers = attach_two(self.lab)

    def start(self, **options):
        daemon = self.lab.start(two_uplinks(**{"failure": 2, **options}))
        return daemon

    def settled(self, *arguments, **options):
        """A watch over a daemon whose uplinks are both active."""
        daemon = self.start(**options)
        watch = self.watch(*arguments)
        for name in ("gi1_1", "gi1_2"):
            watch.expect_state(name, "active")
        return daemon, watch

    def test_outage_is_told_from_begin_to_end(self):
        # Since when it has been active is only known of an uplink that was something else before.
        self.peers[1].echo = policy.silence
        self.start()
        watch = self.watch()
        watch.expect_state("gi1_2", "failed")
        self.peers[1].echo = policy.answer
        for name in ("gi1_1", "gi1_2"):
            watch.expect_state(name, "active")
        self.peers[1].echo = policy.silence

        failed = watch.expect_change("uplink", "active", "failed", "gi1_2")

        self.assertEqual(list(failed), KEYS)
        self.assertEqual((failed["family"], failed["namespace"], failed["target"]), (4, "", None))
        self.assertEqual(failed["reason"], f"{TARGET_2} no answer (2 in a row)")
        self.assertIsInstance(failed["after_s"], int)
        self.assertRegex(failed["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
        target = watch.expect_change("target", "success", "failure", "gi1_2")
        self.assertEqual((target["target"], target["reason"]), (TARGET_2, "no answer (2 in a row)"))
        self.assertEqual(watch.changes("uplink", "gi1_1")[-1][1], "active")
        routes = watch.expect_change("routes", "gi1_1, gi1_2", "gi1_1")
        self.assertEqual((routes["rule"], routes["destinations"], routes["uplink"]), ("1_ipv4", [PREFIX], None))
        self.peers[0].echo = policy.silence
        watch.expect_change("routes", "gi1_1", "none")

        self.peers[1].echo = policy.answer

        active = expect(lambda: [one for one in watch.events("uplink", uplink="gi1_2", to="active")
                                 if one["time"] > failed["time"]])[0]
        self.assertEqual(active["reason"], f"{TARGET_2} answered (1 in a row)")
        self.assertAlmostEqual(active["after_s"], seconds(active["time"]) - seconds(failed["time"]), delta=1)
        watch.expect_change("routes", "none", "gi1_2")
        self.check_past(watch)
        self.lab.cycles.pass_by(2)
        self.assertEqual(watch.kill(signal.SIGTERM), 0)  # what was seen in the minute so far is kept, too
        self.check_lbshow()

    def check_past(self, watch):
        """The history tells the same."""
        done = lbwatch("events", "--history", HISTORY, "--json", "--since", "1h")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual([json.loads(line) for line in done.stdout.splitlines()], watch.events())
        text = lbwatch("events", "--history", HISTORY, "--uplink", "gi1_2").stdout
        self.assertRegex(text, r"(?m)^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d  gi1_2 ipv4 active -> failed after "
                               rf"\d+s: {TARGET_2} no answer \(2 in a row\)$")
        self.assertNotIn("gi1_1 ipv4", text)

    def test_routes_of_a_failover_rule_name_the_chosen_uplink(self):
        _, watch = self.settled(failover=True)
        self.peers[1].echo = policy.silence

        watch.expect_change("routes", "gi1_2", "gi1_1")

    def test_daemon_that_is_killed_is_told_at_once_and_is_no_outage(self):
        daemon, watch = self.settled()
        daemon.kill(signal.SIGKILL)

        told = watch.expect_change("daemon", "running", "stopped", within=5)

        self.assertEqual(told["reason"], f"its process {daemon.pid} has ended")
        self.assertIsNone(told["family"])
        self.start()
        watch.expect_change("daemon", "stopped", "running")
        # Until it has judged again, nothing is known, and nothing has changed.
        expect(lambda: lbwatch_states() == {"gi1_1": True, "gi1_2": True})
        self.lab.cycles.never(lambda: watch.events("uplink", **{"from": "active"}), cycles=3)

    def test_changes_while_nothing_was_watched_are_told_as_such(self):
        _, watch = self.settled()
        self.assertEqual(watch.kill(signal.SIGTERM), 0)
        self.peers[1].echo = policy.silence
        expect(lambda: lbwatch_states()["gi1_2"] is False)

        again = self.watch()

        told = again.expect_change("uplink", "active", "failed", "gi1_2")
        self.assertIn("changed while nothing was watched", told["reason"])
        self.assertIsNone(told["after_s"])
        # What is as it was is no event.
        self.assertEqual(again.changes("uplink", "gi1_1"), [])
        self.assertEqual(again.changes("daemon"), [])


    def test_line_that_loses_every_other_echo_is_failed_behind_a_restart(self):
        os.system("ip link set lo up")
        daemon, watch = self.settled("--listen", "127.0.0.1:9837", success=3, failure=3)
        daemon.kill(signal.SIGTERM)
        watch.expect_change("daemon", "running", "stopped")
        self.peers[1].echo = policy.drop_every(2)
        begin = time.monotonic()
        self.start(success=3, failure=3)

        told = watch.expect_change("uplink", "active", "failed", "gi1_2", within=90)

        self.assertGreater(time.monotonic() - begin, 29, "before the daemon had time to judge")
        self.assertEqual(told["reason"], f"{TARGET_2} no 3 answers in a row since the daemon started; "
                         "changed while nothing was watched")
        self.assertEqual(watch.events("uplink", uplink="gi1_1")[-1]["to"], "active")
        expect(lambda: 'lb_uplink_state{uplink="gi1_2",family="ipv4",namespace="",state="failed"} 1\n'
               in ask(9837, "/metrics"))
        # It is no verdict for ever.
        self.peers[1].echo = policy.answer
        watch.expect_change("uplink", "failed", "active", "gi1_2")

    def check_lbshow(self):
        """lbshow tells since when, by the same history."""
        def uplinks():
            return {one["name"]: one for one in state("--history", HISTORY)["interfaces"]}

        two = uplinks()["gi1_2"]
        self.assertLess(two["state_since_s"], 60)
        self.assertEqual((two["active"], two["state_begin_seen"], two["flaps_today"]), (True, True, 3))
        self.assertIn("SINCE  FLAPS TODAY\n", lbshow("--history", HISTORY, "interfaces").stdout)
        self.assertNotIn("SINCE", lbshow("--history", "none", "interfaces").stdout)
        missing = lbshow("--history", "/nonexistent", "interfaces")
        self.assertEqual(missing.returncode, 1)
        self.assertIn("there is no history at /nonexistent", missing.stderr)
        self.assertIn("gi1_2", missing.stdout)


class Configurations(Watched):
    def test_uplink_that_leaves_the_configuration_vanishes_and_one_that_joins_appears(self):
        attach_two(self.lab)
        daemon = self.lab.start(one_uplink(success=1, failure=1))
        watch = self.watch()
        watch.expect_state("gi1_1", "active")
        daemon.stop()
        watch.expect_change("daemon", "running", "stopped")

        self.lab.start(Conf().interface("gi1_2", nexthop=GATEWAY_2, probes=[ping(TARGET_2, 300)])
                       .rule("1_ipv4", {"gi1_2": 1}, {PREFIX: None}))

        watch.expect_change("uplink", "active", "absent", "gi1_1")
        self.assertEqual(watch.changes("uplink", "gi1_2")[0][0], "absent")

    def test_limit_that_an_extended_ping_reached_is_the_reason(self):
        peer = self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY, known=True)
        self.lab.start(one_uplink(probes=[ping_ext(TARGET, period=0, count=4, timeout=400, loss=50,
                                                   rtt=100, jitter=300)]))
        watch = self.watch()
        watch.expect_state("gi1_1", "active")
        peer.echo = policy.delayed(0.2)

        told = watch.expect_change("uplink", "active", "failed", "gi1_1")

        self.assertRegex(told["reason"],
                         rf"^{TARGET} round-trip time 2\d\d ms \(limit 100 ms\) \(1 in a row\)$")


def lbwatch_states():
    return {one["name"]: one["active"] for one in state()["interfaces"]}


def seconds(text):
    from datetime import datetime  # pylint: disable=import-outside-toplevel
    return datetime.fromisoformat(text.replace("Z", "+00:00")).timestamp()


if __name__ == "__main__":
    assert OUTPUT_DIRECTORY == "/var/run/load-balance"
    main()

"""What lbroute tells of the kernel, and uplinks that an operator holds (topology: route_scene.py)."""
import json
import os
import subprocess
import time

from kit import Conf, expect, main
from kit.lbroute import route, run, shown_route, standing, status
from kit.routing_daemon import pid_path
from route_scene import DEFAULT, GATEWAYS, ONE, PREFIX, THREE, TWO, RouteTest, three_uplinks


class Status(RouteTest):
    def test_status_agrees_with_the_program_and_without_it(self):
        self.write(route(DEFAULT, (GATEWAYS[0], 2), (GATEWAYS[1], 1)))
        self.assertEqual(status(self.router)[0], 1)
        self.start()
        code, shown = status(self.router)
        self.assertEqual((code, shown["running"], shown["pid"]), (0, True, self.program.pid))
        one = shown_route(shown, DEFAULT)
        self.assertEqual((one["state"], one["mode"]), ("ok", "sticky"))
        self.assertAlmostEqual(one["hops"][0]["share_percent"], 66.67, delta=0.1)
        total = sum(hop["buckets"] for hop in one["hops"])
        group = json.loads(self.router.ip(f"-j -d nexthop show id {standing(self.router, DEFAULT)['nhid']}"))
        self.assertEqual(total, group[0]["resilient_args"]["buckets"])
        self.program.end()
        code, shown = status(self.router)
        self.assertEqual((code, shown["running"], shown["namespaces"][0]["agrees"]), (1, False, True))
        self.assertIn("no routing daemon runs", shown["problems"][0])

    def test_routes_of_a_family_that_left_the_configuration_are_told(self):
        self.write(route(DEFAULT, GATEWAYS[0]))
        self.start()
        self.assertEqual(status(self.router)[0], 0)
        self.lab.write_conf(Conf().interface("gi1_1", nexthop=GATEWAYS[0]))
        told = expect(lambda: self.program.lines("that lb does not watch"))
        self.assertEqual(status(self.router)[0], 1)
        self.router.run(*told[0].partition("they end with: ")[2].split())
        expect(lambda: self.path() is None)

    def test_change_by_another_hand_shows_until_the_program_mends_it(self):
        self.write(route(DEFAULT, GATEWAYS[0]), route(PREFIX, GATEWAYS[1]))
        self.start()
        self.program.end()
        self.router.ip(f"route del {PREFIX} proto 76")
        self.router.ip("route replace default via 203.0.113.1 proto 76")
        code, shown = status(self.router)
        self.assertEqual(code, 1)
        self.assertEqual(shown_route(shown, PREFIX)["state"], "missing")
        self.assertEqual(shown_route(shown, DEFAULT)["state"], "differs")
        self.start()
        self.assertEqual(status(self.router)[0], 0)

    def test_route_that_somebody_deletes_comes_back(self):
        self.write(route(DEFAULT, GATEWAYS[0]))
        self.start()
        self.router.ip("route del default proto 76")
        self.expect_path({ONE: 1})
        self.router.ip("nexthop flush protocol 76")
        self.expect_path({ONE: 1})

    def test_leftover_of_an_earlier_run_is_shown(self):
        self.write(route(DEFAULT, GATEWAYS[0]), route(PREFIX, GATEWAYS[0]))
        self.start()
        self.program.end()
        self.write(route(DEFAULT, GATEWAYS[0]))
        code, shown = status(self.router)
        self.assertEqual((code, shown_route(shown, PREFIX)["state"]), (1, "leftover"))

    def test_record_that_could_not_be_written_is_written_once_it_can_be(self):
        self.write(route(DEFAULT, GATEWAYS[0]))
        os.makedirs("/run/lbroute/status")
        self.start()
        self.assertTrue(self.program.lines("lbroute status will lack the kernel's reasons"))
        self.assertFalse(status(self.router)[1]["running"])
        before = self.program.processor_s()
        time.sleep(1)  # its own tries do not wake it
        self.assertLess(self.program.processor_s() - before, 0.5)
        os.rmdir("/run/lbroute/status")
        expect(lambda: status(self.router)[1]["running"])
        self.assertEqual(len(self.program.lines("lbroute status will lack the kernel's reasons")), 1)

    def test_usage_errors_have_a_status_of_their_own(self):
        for words in (("--nonsense",), ("--table", "x"), ("--once", "--dry-run"), ("hold",)):
            self.assertEqual(run(self.router, *words).returncode, 2, words)
        self.assertEqual(run(self.router, "--help").returncode, 0)
        self.assertRegex(run(self.router, "--version", check=0).stdout, r"^lbroute \d+\.\d+\.\d+$")


class Hold(RouteTest):
    def setUp(self):
        super().setUp()
        self.write(route(DEFAULT, *GATEWAYS), route(PREFIX, GATEWAYS[0]))

    def hold(self, *words, check=0):
        return run(self.router, *words, "-f", "/run/lb.conf", check=check)

    def test_routing_daemon_of_one_family_alone_is_told_with_the_one_that_has_none(self):
        self.lab.write_conf(three_uplinks().interface("gi2_1", nexthop=GATEWAYS[0], namespace="blue")
                            .rule("2_ipv4", {"gi2_1": 1}, {}, namespace="blue"))
        self.lab.namespace("blue")
        with subprocess.Popen(["sleep", "100"]) as other:
            with open(pid_path(), "w", encoding="ascii") as file:
                file.write(f"{other.pid}\n")
            code, shown = status(self.router)
            self.assertEqual(code, 1)
            self.assertEqual(shown["others"], [f"{pid_path()} names process {other.pid} (sleep)"])
            self.assertIn("no routing daemon runs for IPv4 of namespace blue", shown["problems"][-1])
            other.kill()

    def test_held_uplink_leaves_the_routes_that_have_another_until_it_is_released(self):
        self.start()
        done = self.hold("hold", "gi1_1")
        self.assertIn(f"IPv4 {PREFIX} goes on over gi1_1", done.stdout)
        self.expect_path({TWO: 1, THREE: 1})
        self.assertEqual(self.path(PREFIX), {ONE: 1})
        code, shown = status(self.router)
        self.assertEqual(code, 0)
        self.assertEqual([hop["state"] for hop in shown_route(shown, DEFAULT)["hops"]],
                         ["held", "routed", "routed"])
        self.hold("release", "gi1_1")
        self.expect_path({ONE: 1, TWO: 1, THREE: 1})

    def test_hold_by_force_takes_the_last_next_hop_away(self):
        self.start()
        self.hold("hold", "gi1_1", "--force")
        expect(lambda: self.path(PREFIX) is None)
        self.assertEqual(self.path(), {TWO: 1, THREE: 1})

    def test_hold_lasts_over_a_restart_and_ends_by_itself(self):
        self.start()
        self.hold("hold", "gi1_2", "--for", "3s")
        self.expect_path({ONE: 1, THREE: 1})
        self.program.end()
        self.start()
        self.assertEqual(self.path(), {ONE: 1, THREE: 1})
        self.expect_path({ONE: 1, TWO: 1, THREE: 1})

    def test_hold_ends_by_itself_though_the_file_of_holds_is_not_to_be_trusted(self):
        self.start()
        self.hold("hold", "gi1_3")
        self.hold("hold", "gi1_2", "--for", "3s")
        self.expect_path({ONE: 1})
        os.chmod("/run/lbroute/holds", 0o666)
        self.expect_path({ONE: 1, TWO: 1})  # the other hold has no end
        self.assertTrue(self.program.lines("can be changed by other users"))
        # It waits again, and is not busy with an end that lies in the past.
        before = self.program.processor_s()
        time.sleep(1)
        self.assertLess(self.program.processor_s() - before, 0.5)

    def test_hold_and_release_of_what_is_not_there_are_errors(self):
        self.assertIn("no uplink is called eth9", self.hold("hold", "eth9", check=1).stderr)
        self.assertIn("is no time", self.hold("hold", "gi1_1", "--for", "soon", check=1).stderr)
        self.assertIn("is not held", self.hold("release", "gi1_1", check=1).stderr)


if __name__ == "__main__":
    main()

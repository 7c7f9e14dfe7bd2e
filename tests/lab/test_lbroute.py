"""lbroute makes the kernel's routes agree with the fragments (topology: route_scene.py)."""
import os
import signal
import subprocess

from kit import expect, main
from kit.lbroute import LBROUTE, fragment_text, own_objects, own_routes, route, run, standing, status
from kit.routing_daemon import fragment_path, pid_path, text_of
from route_scene import DEFAULT, GATEWAYS, ONE, PREFIX, THREE, TWO, RouteTest


class Routes(RouteTest):
    def test_fragment_of_the_start_is_in_force_when_the_program_is_ready(self):
        self.write(route(DEFAULT, (GATEWAYS[0], 2), (GATEWAYS[1], 1)), route(PREFIX, GATEWAYS[2]))
        self.start()
        self.assertEqual(self.path(), {ONE: 2, TWO: 1})
        self.assertEqual(self.path(PREFIX), {THREE: 1})

    def test_routes_carry_the_protocol_the_metric_and_no_other_table(self):
        self.write(route(PREFIX, GATEWAYS[0], metric=20))
        self.start()
        found = standing(self.router, PREFIX)
        self.assertEqual((found["protocol"], found["metric"]), ("76", 20))
        self.assertEqual(len(own_routes(self.router)), 1)

    def test_routes_go_into_the_table_that_is_asked_for_and_leave_the_one_of_before(self):
        self.write(route(PREFIX, GATEWAYS[0]))
        self.start("--table", "1000")
        self.assertEqual(self.path(PREFIX, table="1000"), {ONE: 1})
        self.assertIsNone(self.path(PREFIX))
        self.program.end()
        self.start()
        self.assertEqual(self.path(PREFIX), {ONE: 1})
        self.assertEqual(len(own_routes(self.router)), 1)

    def test_fragment_that_is_rewritten_in_place_counts_without_a_signal(self):
        self.start()
        self.write(route(DEFAULT, GATEWAYS[0]))
        self.expect_path({ONE: 1})
        self.write(route(DEFAULT, GATEWAYS[1]))
        self.expect_path({TWO: 1})

    def test_fragment_that_is_renamed_into_place_counts(self):
        self.start()
        with open("/usr/etc/new", "w", encoding="ascii") as file:
            file.write(fragment_text(route(DEFAULT, GATEWAYS[0])))
        os.rename("/usr/etc/new", fragment_path())
        self.expect_path({ONE: 1})

    def test_of_two_lines_for_a_prefix_the_later_counts(self):
        self.write(route(DEFAULT, GATEWAYS[0]), route(DEFAULT, GATEWAYS[1]))
        self.start()
        self.assertEqual(self.path(), {TWO: 1})

    def test_next_hop_of_no_uplink_leaves_through_its_connected_network(self):
        self.write(route(DEFAULT, "203.0.113.77"))
        self.start()
        self.assertEqual(self.path(), {("203.0.113.77", "gi1_3"): 1})

    def test_large_weights_are_scaled_in_proportion_and_none_to_nothing(self):
        self.write(route(DEFAULT, (GATEWAYS[0], 500), (GATEWAYS[1], 1500), (GATEWAYS[2], 1000)),
                   route(PREFIX, (GATEWAYS[0], 1000000), (GATEWAYS[1], 500000), (GATEWAYS[2], 1)))
        self.start()
        self.assertEqual(self.path(), {ONE: 1, TWO: 3, THREE: 2})
        self.assertEqual(self.path(PREFIX), {ONE: 256, TWO: 128, THREE: 1})

    def test_ipv6_routes_stand_beside_ipv4_ones(self):
        for number in (1, 2):
            self.router.sysctl(f"ipv6/conf/gi1_{number}/disable_ipv6", "0")
            self.router.ip(f"address add 2001:db8:{number}::10/64 dev gi1_{number} nodad")
        self.write(route(DEFAULT, GATEWAYS[0]))
        self.write(route("::/0", ("2001:db8:1::1", 1), ("2001:db8:2::1", 3)),
                   route("2001:db8:ff::/48", "2001:db8:2::1", metric=7), ipv6=True)
        self.start()
        self.assertEqual(self.path(), {ONE: 1})
        self.assertEqual(self.path("::/0"), {("2001:db8:1::1", "gi1_1"): 1,
                                             ("2001:db8:2::1", "gi1_2"): 3})
        self.assertEqual(standing(self.router, "::/0")["metric"], 1024)
        self.assertEqual(standing(self.router, "2001:db8:ff::/48")["metric"], 7)
        monitor = self.monitor("-6")
        self.write(route("::/0", ("2001:db8:2::1", 3)), ipv6=True)
        self.expect_path({("2001:db8:2::1", "gi1_2"): 3}, "::/0")
        expect(lambda: self.path("2001:db8:ff::/48") is None)
        self.assertEqual(monitor.removals("::/0"), [])


class Gaps(RouteTest):
    """`ip monitor route` never tells the end of a route that goes on."""

    def change(self, monitor):
        self.write(route(DEFAULT, GATEWAYS[1]))
        self.expect_path({TWO: 1})
        self.write(route(DEFAULT, (GATEWAYS[0], 5), GATEWAYS[1], GATEWAYS[2]))
        self.expect_path({ONE: 5, TWO: 1, THREE: 1})
        self.assertTrue(monitor.about(DEFAULT))
        self.assertEqual(monitor.removals(DEFAULT), [])

    def test_change_of_next_hops_and_weights_is_one_replacement(self):
        self.write(route(DEFAULT, *GATEWAYS))
        self.start()
        self.change(self.monitor())

    def test_change_of_plain_routes_is_one_replacement(self):
        self.write(route(DEFAULT, *GATEWAYS))
        self.start("--no-sticky")
        self.assertEqual(own_objects(self.router), [])
        self.change(self.monitor())

    def test_change_of_metric_lays_the_new_route_before_the_old_one_goes(self):
        self.write(route(DEFAULT, GATEWAYS[0]))
        self.start()
        monitor = self.monitor()
        self.write(route(DEFAULT, GATEWAYS[0], metric=30))
        expect(lambda: (standing(self.router, DEFAULT) or {}).get("metric") == 30)
        # The new one is told before the old one's end.
        self.assertIn("metric 30", monitor.about(DEFAULT)[0])
        self.assertEqual(len(monitor.removals(DEFAULT)), 1)

    def test_restart_in_another_mode_has_no_gap_and_leaves_nothing_behind(self):
        self.write(route(DEFAULT, *GATEWAYS))
        self.start()
        monitor = self.monitor()
        self.program.end()
        self.start("--no-sticky")
        self.assertEqual(own_objects(self.router), [])
        self.assertEqual(self.path(), {ONE: 1, TWO: 1, THREE: 1})
        self.program.end()
        self.start()
        self.assertEqual(len(own_objects(self.router)), 7)
        self.assertEqual(monitor.removals(DEFAULT), [])


class End(RouteTest):
    def test_end_leaves_routes_and_removes_the_process_numbers(self):
        self.write(route(DEFAULT, GATEWAYS[0]))
        self.start()
        for ipv6 in (False, True):
            self.assertEqual(text_of(pid_path(ipv6=ipv6)).strip(), str(self.program.pid))
        self.assertEqual(self.program.end(), 0)
        self.assertFalse(os.path.exists(pid_path()) or os.path.exists(pid_path(ipv6=True)))
        self.assertEqual(self.path(), {ONE: 1})

    def test_interrupt_ends_it_too(self):
        self.start()
        self.assertEqual(self.program.end(signal.SIGINT), 0)

    def test_flush_takes_the_routes_away_at_the_end(self):
        self.write(route(DEFAULT, *GATEWAYS), route(PREFIX, GATEWAYS[0]))
        self.start("--flush")
        self.assertEqual(self.program.end(), 0)
        self.assert_nothing_of_ours()

    def test_flush_at_once_takes_away_what_a_killed_one_left(self):
        self.write(route(DEFAULT, *GATEWAYS), route(PREFIX, GATEWAYS[0]))
        self.start()
        self.program.end(signal.SIGKILL)
        run(self.router, "-f", "/run/lb.conf", "--flush", "--once", check=0)
        self.assert_nothing_of_ours()

    def test_killed_one_and_a_fragment_changed_meanwhile_leave_nothing_behind(self):
        self.write(route(DEFAULT, *GATEWAYS), route(PREFIX, GATEWAYS[0]),
                   route("172.16.0.0/12", GATEWAYS[1], metric=9))
        self.start()
        group = standing(self.router, DEFAULT)["nhid"]
        self.program.end(signal.SIGKILL)
        monitor = self.monitor()
        self.write(route(DEFAULT, GATEWAYS[1], GATEWAYS[2]), route("172.16.0.0/12", GATEWAYS[1]))
        self.start()
        self.assertEqual(self.path(), {TWO: 1, THREE: 1})
        self.assertEqual(standing(self.router, DEFAULT)["nhid"], group)
        self.assertEqual(len(own_routes(self.router)), 2)
        # Two next hops as a pair each, two groups.
        self.assertEqual(len(own_objects(self.router)), 6)
        self.assertEqual(monitor.removals(DEFAULT), [])
        self.assertIn("was left by an lbroute", self.program.log())

    def test_once_puts_into_force_and_ends(self):
        self.write(route(DEFAULT, GATEWAYS[0]))
        run(self.router, "-f", "/run/lb.conf", "--once", check=0)
        self.assertEqual(self.path(), {ONE: 1})
        self.assertFalse(os.path.exists(pid_path()))

    def test_once_tells_by_its_status_that_not_everything_could_be_done(self):
        self.write(route(DEFAULT, "10.99.99.99"))
        done = run(self.router, "-f", "/run/lb.conf", "--once", check=1)
        self.assertIn("no connected network holds it", done.stderr)

    def test_rehearsal_prints_commands_that_do_the_same_and_changes_nothing(self):
        self.write(route(DEFAULT, (GATEWAYS[0], 2), GATEWAYS[1]), route(PREFIX, GATEWAYS[2], metric=3))
        done = run(self.router, "-f", "/run/lb.conf", "--dry-run", check=0)
        self.assert_nothing_of_ours()
        for command in done.stdout.splitlines():
            self.router.run(*command.split())
        self.assertEqual(self.path(), {ONE: 2, TWO: 1})
        self.assertEqual(run(self.router, "-f", "/run/lb.conf", "--dry-run", check=0).stdout, "")
        code, shown = status(self.router)
        self.assertEqual((code, [one["state"] for one in shown["namespaces"][0]["routes"]]), (1, ["ok", "ok"]))
        self.assertIn("no routing daemon runs", shown["problems"][0])
        for command in run(self.router, "-f", "/run/lb.conf", "--dry-run", "--flush",
                           check=0).stdout.splitlines():
            self.router.run(*command.split())
        self.assert_nothing_of_ours()

    def test_rehearsal_of_a_flush_tells_of_a_kernel_that_does_not_answer(self):
        self.write(route(DEFAULT, GATEWAYS[0]))
        run(self.router, "-f", "/run/lb.conf", "--once", check=0)
        without_answers = ("strace", "-o", "/dev/null", "-e", "inject=recvfrom:error=ENOBUFS")
        done = subprocess.run(
            self.router.command(*without_answers, LBROUTE, "-f", "/run/lb.conf", "--dry-run", "--flush"),
            capture_output=True, text=True, timeout=60, check=False,
            # Of a sanitizer build: leaks are not looked for in a traced process.
            env={**os.environ, "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"})
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertIn("the kernel does not tell its links: No buffer space available", done.stderr)


if __name__ == "__main__":
    main()

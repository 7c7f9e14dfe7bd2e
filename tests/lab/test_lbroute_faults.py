"""What lbroute does where something is wrong (topology: route_scene.py)."""
import os
import re
import signal
import subprocess
import time

from kit import Conf, expect, main
from kit.lbroute import (Lbroute, assert_stays, fragment_text, own_objects, own_routes, route, run, shown_route,
                         standing, status)
from kit.routing_daemon import fragment_path, pid_path
from route_scene import DEFAULT, GATEWAYS, ONE, PREFIX, THREE, TWO, RouteTest, three_uplinks


class Fragments(RouteTest):
    def test_half_written_fragment_changes_nothing_and_is_told_once_with_its_line(self):
        self.write(route(DEFAULT, *GATEWAYS))
        self.start()
        whole = fragment_text(route(DEFAULT, GATEWAYS[0]))
        with open(fragment_path(), "w", encoding="ascii") as file:
            file.write(whole[:-4])
        expect(lambda: self.program.lines(fragment_path()))
        self.program.hup()
        assert_stays(lambda: self.path() == {ONE: 1, TWO: 1, THREE: 1}, during=1)
        told = self.program.lines(fragment_path())
        self.assertEqual(len(told), 1, told)
        self.assertRegex(told[0], fragment_path() + r" line \d+: ")
        self.assertEqual(status(self.router)[0], 1)
        with open(fragment_path(), "w", encoding="ascii") as file:
            file.write(whole)
        self.expect_path({ONE: 1})
        self.assertEqual(status(self.router)[0], 0)

    def test_fragment_that_is_ended_within_200_ms_counts_though_nobody_tells(self):
        self.start()
        for attempt in range(10):
            wanted, told = attempt % 2, len(self.program.lines(fragment_path()))
            with open(fragment_path(), "w", encoding="ascii") as file:
                file.write(fragment_text(route(DEFAULT, GATEWAYS[wanted]))[:-4])
                file.flush()
                began = time.monotonic()
                self.program.hup()  # while its writer still has it open
                expect(lambda: len(self.program.lines(fragment_path())) > told)
                file.write("\n};\n")
                file.flush()
                if time.monotonic() - began < 0.2:
                    self.expect_path({(ONE, TWO)[wanted]: 1})
                    return
            self.expect_path({(ONE, TWO)[wanted]: 1})  # a busy machine: closed at the latest
        self.fail("this machine never got to the end of the file within 200 ms")

    def test_empty_fragment_takes_the_routes_away_once_it_stays_empty(self):
        self.write(route(DEFAULT, *GATEWAYS))
        self.start()
        with open(fragment_path(), "w", encoding="ascii"):
            began = time.monotonic()
        expect(lambda: self.path() is None)
        self.assertGreater(time.monotonic() - began, 0.19)
        self.assert_nothing_of_ours()
        self.assertEqual(status(self.router)[0], 0)

    def test_fragment_that_is_filled_again_at_once_never_takes_the_routes_away(self):
        self.write(route(DEFAULT, *GATEWAYS))
        self.start()
        monitor = self.monitor()
        for turn in range(20):
            self.write(route(DEFAULT, *GATEWAYS[:1 + turn % 3]))
            self.program.hup()
        self.expect_path({ONE: 1, TWO: 1})
        self.assertEqual(monitor.removals(DEFAULT), [])

    def test_fragment_that_is_missing_leaves_the_routes(self):
        self.write(route(DEFAULT, GATEWAYS[0]))
        self.start()
        os.unlink(fragment_path())
        assert_stays(lambda: self.path() == {ONE: 1}, during=0.6)
        self.write(route(DEFAULT, GATEWAYS[1]))
        self.expect_path({TWO: 1})

    def test_wrong_line_costs_its_route_only(self):
        self.write(route(DEFAULT, GATEWAYS[0]), "route 10.0.0.0/99 multipath via 192.0.2.1 weight 1;")
        self.start()
        self.assertEqual(self.path(), {ONE: 1})
        self.assertTrue(self.program.lines(fragment_path() + " line 4"))


class Unwatched(RouteTest):
    """The kernel gives no watches: containers on the same machine have used up what a user may have."""

    def assert_follows_its_files(self, call, error):
        self.write(route(DEFAULT, *GATEWAYS))
        # Leaks cannot be looked for in a program that is traced.
        sanitizer = os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"
        self.start(prefix=["strace", "-D", "-o", os.path.join(self.folder, "strace"), "-e", f"trace={call}",
                           "-e", f"inject={call}:error={error}"], environment={"ASAN_OPTIONS": sanitizer})
        self.expect_path({ONE: 1, TWO: 1, THREE: 1})
        expect(lambda: self.program.lines("not all files that matter can be watched"))
        run(self.router, "hold", "gi1_1", "-f", "/run/lb.conf", check=0)
        self.expect_path({TWO: 1, THREE: 1})
        self.write(route(DEFAULT, GATEWAYS[2]))  # and nobody tells
        self.expect_path({THREE: 1})
        told = self.program.lines("not all files that matter can be watched")
        self.assertEqual(len(told), 1, self.program.log())
        self.assertIn("sysctl fs.inotify", told[0])

    def test_files_are_followed_without_watches(self):
        self.assert_follows_its_files("inotify_add_watch", "ENOSPC")

    def test_files_are_followed_without_inotify(self):
        self.assert_follows_its_files("inotify_init1", "EMFILE")


class Refusals(RouteTest):
    def test_next_hop_that_the_kernel_refuses_is_left_out_and_told_with_its_words(self):
        self.lab.write_conf(three_uplinks().interface("gi1_9", nexthop="10.77.0.1"))
        self.lab.uplink("gi1_9")
        self.write(route(DEFAULT, GATEWAYS[0], "10.77.0.1"), route(PREFIX, "10.77.0.1"),
                   route("172.16.0.0/12", GATEWAYS[1]))
        self.start()
        self.assertEqual(self.path(), {ONE: 1})
        self.assertEqual(self.path("172.16.0.0/12"), {TWO: 1})
        self.assertIsNone(self.path(PREFIX))
        told = self.program.lines("10.77.0.1 dev gi1_9 is left out")
        self.assertEqual(len(told), 1)
        self.assertIn("Nexthop has invalid gateway", told[0])
        code, shown = status(self.router)
        self.assertEqual(code, 1)
        refused = shown_route(shown, DEFAULT)["hops"][1]
        self.assertEqual((refused["state"], refused["reason"]),
                         ("refused", "Nexthop has invalid gateway"))
        # It is tried again when addresses change.
        self.router.ip("address add 10.77.0.10/24 dev gi1_9")
        self.expect_path({ONE: 1, ("10.77.0.1", "gi1_9"): 1})
        self.expect_path({("10.77.0.1", "gi1_9"): 1}, PREFIX)
        expect(lambda: status(self.router)[0] == 0)

    def test_plain_route_goes_without_the_next_hop_that_the_kernel_refuses(self):
        self.lab.write_conf(three_uplinks().interface("gi1_9", nexthop="10.77.0.1"))
        self.lab.uplink("gi1_9")
        self.write(route(DEFAULT, GATEWAYS[0], "10.77.0.1", GATEWAYS[2]))
        self.start("--no-sticky")
        self.assertEqual(self.path(), {ONE: 1, THREE: 1})
        self.assertTrue(self.program.lines("10.77.0.1 dev gi1_9 is left out"))
        self.assertEqual(own_objects(self.router), [])

    def test_gateway_outside_of_all_networks_of_its_interface_is_routed(self):
        self.lab.write_conf(three_uplinks().interface("gi1_9", nexthop="10.77.0.1"))
        self.lab.uplink("gi1_9")
        self.router.ip("address add 10.99.0.7/32 dev gi1_9")  # as many a provider's lease is
        outside = ("10.77.0.1", "gi1_9")
        self.write(route(DEFAULT, GATEWAYS[0], outside[0]), route(PREFIX, outside[0]))
        for options in ((), ("--no-sticky",)):
            with self.subTest(options=options):
                commands = run(self.router, "-f", "/run/lb.conf", "--dry-run", *options).stdout
                self.assertIn("via 10.77.0.1 dev gi1_9", commands)
                self.assertIn("onlink", commands)
                self.start(*options)
                self.assertEqual(self.path(), {ONE: 1, outside: 1})
                self.assertEqual(self.path(PREFIX), {outside: 1})
                self.assertEqual(status(self.router)[0], 0)
                self.program.end()
                run(self.router, "-f", "/run/lb.conf", "--once", "--flush")
                for command in commands.splitlines():
                    self.router.run(*command.split())
                self.assertEqual(self.path(), {ONE: 1, outside: 1})
                run(self.router, "-f", "/run/lb.conf", "--once", "--flush")

    def test_routes_that_others_take_away_are_put_back_and_told(self):
        self.write(route(DEFAULT, GATEWAYS[0], GATEWAYS[1]))
        self.start()
        for _ in range(2):
            self.router.ip("route del default")
            self.expect_path({ONE: 1, TWO: 1})
        self.assertEqual(len(self.program.lines("routes of ours were gone or changed")), 1)

    def test_configuration_behind_a_symbolic_link_is_followed(self):
        os.makedirs("/run/kept", exist_ok=True)
        os.replace("/run/lb.conf", "/run/kept/lb.conf")
        os.symlink("/run/kept/lb.conf", "/run/lb.conf")
        self.write(route(DEFAULT, GATEWAYS[0], "10.77.0.1"))
        self.start()
        self.assertEqual(self.path(), {ONE: 1})
        self.lab.uplink("gi1_9", "10.77.9.10/24", "10.77.0.1")
        with open("/run/kept/lb.conf", "w", encoding="ascii") as file:
            file.write(three_uplinks().interface("gi1_9", nexthop="10.77.0.1").text())
        self.expect_path({ONE: 1, ("10.77.0.1", "gi1_9"): 1})

    def test_interface_that_is_missing_is_told_and_used_once_it_is_there(self):
        self.lab.write_conf(three_uplinks().interface("gi1_9", nexthop="10.77.0.1"))
        self.write(route(DEFAULT, GATEWAYS[0], "10.77.0.1"))
        self.start()
        self.assertEqual(self.path(), {ONE: 1})
        self.assertTrue(self.program.lines("there is no interface gi1_9"))
        self.lab.uplink("gi1_9")
        self.router.ip("address add 10.77.0.10/24 dev gi1_9")
        self.expect_path({ONE: 1, ("10.77.0.1", "gi1_9"): 1})


class Links(RouteTest):
    def test_checked_next_hop_leaves_with_the_carrier_and_returns_with_it(self):
        self.write(route(DEFAULT, *GATEWAYS))
        for arguments in ((), ("--no-sticky",)):
            with self.subTest(arguments=arguments):
                self.start(*arguments)
                self.peers[1].link("down")
                self.expect_path({ONE: 1, THREE: 1})
                self.peers[1].link("up")
                self.expect_path({ONE: 1, TWO: 1, THREE: 1})
                self.assertEqual(self.program.end(), 0)

    def test_unchecked_next_hop_stays_in_a_plain_route_without_its_carrier(self):
        self.write(route(DEFAULT, *GATEWAYS), check_link=False)
        self.start("--no-sticky")
        self.peers[1].link("down")
        expect(lambda: "linkdown" in self.router.ip("route show default"))
        self.program.hup()
        assert_stays(lambda: self.path() == {ONE: 1, TWO: 1, THREE: 1}, during=0.5)
        self.assertEqual(status(self.router)[0], 0)
        self.write(route(DEFAULT, *GATEWAYS))
        self.expect_path({ONE: 1, THREE: 1})

    def test_route_whose_links_all_go_comes_back_with_the_first(self):
        self.write(route(DEFAULT, *GATEWAYS[:2]))
        self.start()
        for peer in self.peers[:2]:
            peer.link("down")
        expect(lambda: self.path() is None)
        self.assertTrue(expect(lambda: self.program.lines("none of its next hops can be used")))
        self.assertEqual(status(self.router)[0], 1)
        self.peers[1].link("up")
        self.expect_path({TWO: 1})
        self.peers[0].link("up")
        self.expect_path({ONE: 1, TWO: 1})
        self.assertEqual(status(self.router)[0], 0)

    def test_interface_that_is_set_down_and_up_again_comes_back(self):
        self.write(route(DEFAULT, *GATEWAYS))
        for arguments in ((), ("--no-sticky",)):
            with self.subTest(arguments=arguments):
                self.start(*arguments)
                self.router.ip("link set gi1_3 down")
                self.expect_path({ONE: 1, TWO: 1})
                self.router.ip("link set gi1_3 up")
                self.expect_path({ONE: 1, TWO: 1, THREE: 1})
                self.assertEqual(self.program.end(), 0)


class Foreign(RouteTest):
    def foreign(self):
        return sorted(line for line in self.router.ip("route show").splitlines()
                      if "proto static" in line or "proto dhcp" in line)

    def test_routes_of_others_are_never_touched(self):
        for words in ("10.0.0.0/8 via 192.0.2.1 proto static metric 5",
                      "10.0.0.0/8 via 192.0.2.1 proto static metric 500",
                      "172.20.0.0/16 via 192.0.2.1 proto static",
                      "default via 192.0.2.1 proto static metric 900"):
            self.router.ip("route add " + words)
        self.router.ip("nexthop add id 77 via 192.0.2.1 dev gi1_1")
        before = self.foreign()
        self.write(route(DEFAULT, *GATEWAYS), route(PREFIX, GATEWAYS[1], metric=5),
                   route("172.20.0.0/16", GATEWAYS[1]), route("172.21.0.0/16", GATEWAYS[2]))
        self.start("--flush")
        self.assertEqual(self.foreign(), before)
        self.assertEqual(self.path("172.21.0.0/16"), {THREE: 1})
        self.write(route(PREFIX, GATEWAYS[1]), route("172.20.0.0/16", GATEWAYS[0]))
        expect(lambda: self.path("172.21.0.0/16") is None)
        self.assertEqual(self.foreign(), before)
        self.assertEqual(self.program.end(), 0)
        self.assertEqual(self.foreign(), before)
        self.assertIn("id 77 ", self.router.ip("nexthop show"))
        self.assert_nothing_of_ours()

    def test_route_of_others_in_the_place_of_ours_is_told_with_the_command_that_ends_it(self):
        self.router.ip("route add 10.0.0.0/8 via 192.0.2.1 proto static metric 5")
        self.write(route(PREFIX, GATEWAYS[1], metric=5), route(DEFAULT, GATEWAYS[0]))
        self.start()
        told = self.program.lines("a route of others stands there, which ends with: ")
        self.assertEqual(len(told), 1)
        code, shown = status(self.router)
        command = shown_route(shown, PREFIX)["in_place"]
        self.assertEqual(code, 1)
        self.assertTrue(told[0].endswith(command))
        self.program.hup()
        self.assertEqual(self.program.lines(f"{PREFIX} via"), [])
        self.router.run(*command.split())
        self.expect_path({TWO: 1}, PREFIX)
        self.assertEqual(len(expect(lambda: self.program.lines(f"{PREFIX} via"))), 1)
        self.assertEqual(status(self.router)[0], 0)
        self.assertEqual(len(self.program.lines("a route of others stands there")), 1)

    def test_route_of_others_that_the_kernel_drops_without_a_word_makes_room_at_once(self):
        self.lab.uplink("gi1_9", "10.77.0.10/24", "10.77.0.1")
        self.write(route(DEFAULT, GATEWAYS[0]))
        for through, end in (("via 10.77.0.1", "link set gi1_9 down"),
                             ("via 10.77.0.1 src 10.77.0.11", "address del 10.77.0.11/24 dev gi1_9"),
                             ("nhid 77", "nexthop del id 77")):
            with self.subTest(end=end):
                self.router.ip("link set gi1_9 up")
                self.router.ip("address replace 10.77.0.11/24 dev gi1_9")
                self.router.ip("nexthop replace id 77 via 10.77.0.1 dev gi1_9")
                self.router.ip(f"route add default {through} proto static")
                self.start()
                self.assertTrue(self.program.lines("a route of others stands there"))
                self.router.ip(end)
                self.expect_path({ONE: 1})
                self.assertEqual(self.program.end(), 0)
                self.router.ip("route del default proto 76")

    def test_route_of_others_in_the_place_of_an_ipv6_one_is_not_touched(self):
        self.router.sysctl("ipv6/conf/gi1_1/disable_ipv6", "0")
        self.router.ip("address add 2001:db8:1::10/64 dev gi1_1 nodad")
        self.router.ip("-6 route add 2001:db8:ff::/48 via 2001:db8:1::9 proto static")
        self.write(route("2001:db8:ff::/48", "2001:db8:1::1"), route("::/0", "2001:db8:1::1"), ipv6=True)
        for arguments in ((), ("--no-sticky",)):
            with self.subTest(arguments=arguments):
                self.start(*arguments)
                self.assertEqual(standing(self.router, "2001:db8:ff::/48")["gateway"], "2001:db8:1::9")
                self.assertEqual(self.path("::/0"), {("2001:db8:1::1", "gi1_1"): 1})
                self.program.end()

    def test_shadow_of_a_lower_metric_is_told_once_and_ends_with_the_command_that_is_told(self):
        self.write(route(DEFAULT, *GATEWAYS, metric=100))
        self.start()
        self.router.ip("route add default via 192.0.2.1 dev gi1_1 proto dhcp metric 7")
        told = expect(lambda: self.program.lines("is shadowed"))
        self.program.hup()
        code, shown = status(self.router)
        self.assertEqual((code, shown_route(shown, DEFAULT)["state"]), (1, "shadowed"))
        command = shown_route(shown, DEFAULT)["shadowed_by"][0]
        self.assertTrue(told[0].endswith(command), told)
        self.router.run(*command.split())
        expect(lambda: status(self.router)[0] == 0)
        self.assertEqual(len(self.program.lines("is shadowed")), 1)


    def test_route_of_others_with_the_same_metric_beside_ours_is_told(self):
        self.router.sysctl("ipv6/conf/gi1_1/disable_ipv6", "0")
        self.router.ip("address add 2001:db8:1::10/64 dev gi1_1 nodad")
        self.write(route(DEFAULT, GATEWAYS[0]))
        self.write(route("::/0", "2001:db8:1::1"), ipv6=True)
        self.lab.write_conf(three_uplinks().interface("gi1_1", nexthop="2001:db8:1::1", ipv6=True)
                            .rule("1_ipv6", interfaces6={"gi1_1": 1}))
        self.start()
        for prefix, family, added, target in (
                ("::/0", "-6", "append default via 2001:db8:1::9 proto ra metric 1024 pref high", "2001:db8:ff::1"),
                (DEFAULT, "-4", "prepend default via 192.0.2.9 proto dhcp", "198.18.0.1")):
            with self.subTest(prefix=prefix):
                self.assertEqual(status(self.router)[0], 0)
                self.router.ip(f"{family} route {added}")
                self.assertIn(added.split()[3], self.router.ip(f"{family} route get {target}"))
                title = f"{prefix} is shadowed by a route of others with the same metric"
                told = expect(lambda title=title: self.program.lines(title))
                code, shown = status(self.router)
                self.assertEqual((code, shown_route(shown, prefix)["state"]), (1, "shadowed"))
                command = shown_route(shown, prefix)["shadowed_by"][0]
                self.assertTrue(told[0].endswith(command), told)
                self.router.run(*command.split())
                expect(lambda: status(self.router)[0] == 0)


class Place(RouteTest):
    def test_second_one_refuses_and_changes_nothing(self):
        self.write(route(DEFAULT, GATEWAYS[0]))
        self.start()
        second = run(self.router, "-f", "/run/lb.conf", "--flush", check=1)
        self.assertIn(str(self.program.pid), second.stderr)
        self.assertEqual(self.path(), {ONE: 1})
        with open(pid_path(), encoding="ascii") as file:
            self.assertEqual(int(file.read()), self.program.pid)

    def test_another_routing_daemon_is_not_fought(self):
        with subprocess.Popen(["sleep", "100"]) as other:
            with open(pid_path(ipv6=True), "w", encoding="ascii") as file:
                file.write(f"{other.pid}\n")
            self.write(route(DEFAULT, GATEWAYS[0]))
            done = run(self.router, "-f", "/run/lb.conf", check=1)
            self.assertIn(str(other.pid), done.stderr)
            self.assertIn("sleep", done.stderr)
            self.assertFalse(os.path.exists(pid_path()))
            self.assert_nothing_of_ours()
            other.kill()

    def test_two_capabilities_are_enough(self):
        self.write(route(DEFAULT, *GATEWAYS))
        self.lab.write_conf(three_uplinks().interface("gi2_1", nexthop=GATEWAYS[0], namespace="blue"))
        blue = self.lab.namespace("blue")
        self.lab.uplink("gi2_1", "192.0.2.11/24", GATEWAYS[0], namespace=blue)
        self.write(route(DEFAULT, GATEWAYS[0]), namespace="blue")
        self.start("--flush", prefix=("setpriv", "--bounding-set", "-all,+net_admin,+sys_admin"))
        self.assertEqual(self.path(), {ONE: 1, TWO: 1, THREE: 1})
        self.assertEqual(len(own_routes(blue)), 1)
        with open(f"/proc/{self.program.pid}/status", encoding="ascii") as file:
            effective = re.search(r"^CapEff:\s*(\w+)", file.read(), re.MULTILINE).group(1)
        self.assertEqual(int(effective, 16), 1 << 12 | 1 << 21)
        self.assertEqual(self.program.end(), 0)
        self.assert_nothing_of_ours()

    def test_configuration_that_is_missing_means_the_default_namespace(self):
        os.unlink("/run/lb.conf")
        self.write(route(DEFAULT, GATEWAYS[0]))
        self.start()
        self.assertEqual(self.path(), {ONE: 1})

    def test_configuration_that_is_broken_is_told_and_what_could_be_read_counts(self):
        self.lab.write_conf(three_uplinks().text() + "}\n}\n")
        self.write(route(DEFAULT, GATEWAYS[0]))
        self.start()
        self.assertTrue(self.program.lines("is not whole: see lbcheck"))
        self.assertEqual(self.path(), {ONE: 1})

    def test_uplink_that_the_configuration_gains_counts_without_a_restart(self):
        self.lab.write_conf(Conf())
        self.router.ip("address flush dev gi1_3")
        self.router.ip("address add 203.0.113.10/32 dev gi1_3")
        self.router.ip("route add 203.0.113.1 dev gi1_3")
        self.write(route(DEFAULT, GATEWAYS[2]))
        self.start()
        self.assertIsNone(self.path())
        self.lab.write_conf(three_uplinks())
        self.expect_path({THREE: 1})


class Interruptions(RouteTest):
    def test_killed_at_any_moment_the_next_one_mends_everything(self):
        prefixes = [f"10.{number}.0.0/16" for number in range(60)]
        for turn in range(8):
            self.write(*(route(prefix, *GATEWAYS[turn % 2:2 + turn % 2], metric=turn % 3)
                         for prefix in prefixes))
            program = Lbroute(self.router, self.folder, "-f", "/run/lb.conf")
            time.sleep(0.004 * turn)
            program.end(signal.SIGKILL)
        self.write(*(route(prefix, *GATEWAYS) for prefix in prefixes[:30]))
        self.start()
        self.assertEqual(status(self.router)[0], 0)
        self.assertEqual(len(own_routes(self.router)), 30)
        self.assertEqual(len(own_objects(self.router)), 30 + 6)


if __name__ == "__main__":
    main()

"""lbroute serves namespaces as they come, go and are made anew.

    router                                     far
      default  gi1_1..gi1_3 (route_scene.py)
      blue     gi2_1 192.0.2.10/24 ----------- scripted peer 192.0.2.1
"""
import os
import subprocess

from kit import expect, main
from kit.disk import Disk
from kit.lbroute import assert_stays, own_objects, own_routes, path_of, route, run, status
from kit.routing_daemon import pid_path, text_of
from route_scene import DEFAULT, GATEWAYS, ONE, PREFIX, TWO, RouteTest, three_uplinks

BLUE = ("192.0.2.1", "gi2_1")


class Namespaces(RouteTest):
    def setUp(self):
        super().setUp()
        self.lab.write_conf(self.with_blue())
        self.write(route(DEFAULT, GATEWAYS[0]))

    @staticmethod
    def with_blue():
        return (three_uplinks().interface("gi2_1", nexthop=GATEWAYS[0], namespace="blue")
                .rule("2_ipv4", {"gi2_1": 1}, {}, namespace="blue"))

    def make_blue(self):
        blue = self.lab.namespace("blue")
        self.lab.uplink("gi2_1", "192.0.2.10/24", GATEWAYS[0], namespace=blue)
        return blue

    def expect_blue(self, blue, path):
        expect(lambda: path_of(blue, DEFAULT) == path, within=5,
               what=f"blue routes over {path}: {self.program.log()}")

    def test_namespace_has_routes_of_its_own(self):
        blue = self.make_blue()
        self.write(route(DEFAULT, GATEWAYS[0]), namespace="blue")
        self.start("--flush")
        self.expect_blue(blue, {BLUE: 1})
        self.assertEqual(self.path(), {ONE: 1})
        self.assertEqual(status(self.router)[0], 0)
        self.assertEqual(self.program.end(), 0)
        self.assert_nothing_of_ours(blue)

    def test_folders_and_process_numbers_of_a_namespace_are_made(self):
        self.make_blue()
        subprocess.run(["rm", "-r", "/var/vrfs/blue"], check=True)
        self.start()
        for ipv6 in (False, True):
            self.assertEqual(text_of(pid_path("blue", ipv6)).strip(), str(self.program.pid))
        self.assertTrue(os.path.isdir("/var/vrfs/blue/usr/etc"))
        self.program.end()
        self.assertFalse(os.path.exists(pid_path("blue")))

    def test_namespace_that_is_missing_is_told_and_served_as_soon_as_it_appears(self):
        self.write(route(DEFAULT, GATEWAYS[0]), namespace="blue")
        self.start()
        self.assertTrue(self.program.lines("namespace blue is not there"))
        code, shown = status(self.router)
        self.assertEqual(code, 1)
        self.assertEqual(next(one["problem"] for one in shown["namespaces"] if one["name"] == "blue"),
                         "there is no namespace blue")
        self.expect_blue(self.make_blue(), {BLUE: 1})

    def test_namespace_that_is_made_anew_is_entered_anew_and_the_old_one_is_let_go(self):
        blue = self.make_blue()
        self.write(route(DEFAULT, GATEWAYS[0]), namespace="blue")
        self.start()
        self.expect_blue(blue, {BLUE: 1})
        links = self.lab.far.ip("-o link show").count("\n")
        subprocess.run(["ip", "netns", "delete", "blue"], check=True)
        os.close(blue._descriptor)  # the lab's own hold on it
        blue._descriptor = os.open("/proc/self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        # Its links vanish with it, if nobody holds it.
        expect(lambda: self.lab.far.ip("-o link show").count("\n") == links - 1, within=10,
               what="the namespace is let go")
        self.lab.namespaces.remove(blue)
        again = self.make_blue()
        self.expect_blue(again, {BLUE: 1})
        self.assertEqual(self.path(), {ONE: 1})

    def test_commands_for_a_namespace_name_it(self):
        blue = self.make_blue()
        self.write(route(DEFAULT, GATEWAYS[0]), namespace="blue")
        commands = run(self.router, "-f", "/run/lb.conf", "--dry-run", check=0).stdout
        self.assertIn("ip -n blue route add default", commands)
        self.assertEqual(own_routes(blue) + own_objects(blue), [])

    def test_uplink_of_a_namespace_is_held_there_alone(self):
        blue = self.make_blue()
        self.write(route(DEFAULT, GATEWAYS[0]), namespace="blue")
        self.start()
        self.assertIn("--namespace blue",
                      run(self.router, "hold", "gi2_1", "-f", "/run/lb.conf", check=1).stderr)
        run(self.router, "hold", "gi2_1", "--namespace", "blue", "--force", "-f", "/run/lb.conf", check=0)
        self.expect_blue(blue, None)
        self.assertEqual(self.path(), {ONE: 1})
        run(self.router, "release", "gi2_1", "--namespace", "blue", check=0)
        self.expect_blue(blue, {BLUE: 1})

    # What stays where it serves no more.

    def leave(self, blue, *arguments):
        """Leaves routes in blue, of which the configuration then knows nothing."""
        blue.sysctl("ipv6/conf/gi2_1/disable_ipv6", "0")
        blue.ip("address replace 2001:db8:1::10/64 dev gi2_1 nodad")
        self.write(route(DEFAULT, GATEWAYS[0]), route(PREFIX, GATEWAYS[0]), namespace="blue")
        self.write(route("::/0", "2001:db8:1::1"), namespace="blue", ipv6=True)
        self.start(*arguments)
        self.expect_blue(blue, {BLUE: 1})
        self.assertEqual(len(own_routes(blue)), 3)
        self.lab.write_conf(three_uplinks())
        expect(lambda: self.program.lines("namespace blue is not served any more: its routes stay (3)"))

    def test_routes_that_stay_in_a_namespace_are_told_and_end_with_the_command_that_is_told(self):
        blue = self.make_blue()
        for arguments in ((), ("--no-sticky",)):
            with self.subTest(arguments=arguments):
                self.lab.write_conf(self.with_blue())
                self.leave(blue, *arguments)
                code, shown = status(self.router)
                left = next(one for one in shown["namespaces"] if one["name"] == "blue")
                self.assertEqual((code, shown["agrees"], left["agrees"]), (1, False, False))
                self.assertEqual([one["state"] for one in left["routes"]], 3 * ["leftover"])
                told, = self.program.lines("is not served any more")
                command = told.partition("which end with: ")[2]
                self.assertTrue(left["not_served"].endswith(command), left)
                subprocess.run(command, shell=True, check=True)
                self.assert_nothing_of_ours(blue)
                self.assertEqual(status(self.router)[0], 0)
                self.program.end()

    def test_flush_takes_away_what_stays_in_a_namespace_that_nobody_names(self):
        blue = self.make_blue()
        self.leave(blue)
        for command in run(self.router, "-f", "/run/lb.conf", "--dry-run", "--flush",
                           check=0).stdout.splitlines():
            if " -n blue " in command:
                self.router.run(*command.split())
        self.assert_nothing_of_ours(blue)
        self.lab.write_conf(self.with_blue())
        self.expect_blue(blue, {BLUE: 1})
        self.lab.write_conf(three_uplinks())
        expect(lambda: len(self.program.lines("is not served any more")) == 2)
        self.program.end()
        run(self.router, "-f", "/run/lb.conf", "--once", "--flush", check=0)
        self.assert_nothing_of_ours(blue)
        self.assert_nothing_of_ours()

    def test_second_name_of_the_own_namespace_is_no_other_one(self):
        self.start()
        with open("/var/run/netns/alias", "wb"):
            pass
        self.router.run("mount", "--bind", "/proc/self/ns/net", "/var/run/netns/alias")
        code, shown = status(self.router)
        self.assertNotIn("alias", [one["name"] for one in shown["namespaces"]])
        self.make_blue()
        expect(lambda: status(self.router)[0] == 0)

    def test_second_name_of_a_namespace_is_told_and_not_served(self):
        self.lab.write_conf(self.with_blue())
        with open("/var/run/netns/blue", "wb"):
            pass
        self.router.run("mount", "--bind", "/proc/self/ns/net", "/var/run/netns/blue")
        self.lab.own(lambda: self.router.run("ip", "netns", "del", "blue"))
        self.write(route(PREFIX, GATEWAYS[1]), namespace="blue")
        self.start()
        self.assertEqual(self.path(), {ONE: 1})
        self.assertEqual(len(self.program.lines("namespace blue is not served: it is the default namespace by")), 1)
        before = self.program.processor_s()
        assert_stays(lambda: self.path() == {ONE: 1} and self.path(PREFIX) is None, during=2)
        self.assertLess(self.program.processor_s() - before, 0.5)
        self.assertEqual(status(self.router)[0], 1)

    # What keeps it from serving one namespace costs that one alone.

    def not_served(self, name):
        """(exit status, why the namespace is not served) as status tells."""
        code, shown = status(self.router)
        return code, next((one["not_served"] for one in shown["namespaces"] if one["name"] == name), None)

    def expect_not_served(self, name, words):
        told = expect(lambda: self.program.lines(f"namespace {name} is not served: "))
        self.assertIn(words, told[0])
        expect(lambda: self.not_served(name)[1])
        code, reason = self.not_served(name)
        self.assertEqual((code, told[0].endswith(reason)), (1, True), (reason, told))

    def expect_served_again(self, name):
        expect(lambda: self.not_served(name) == (0, ""), within=10, what=f"{name} is served: {self.program.log()}")
        self.assertEqual(len(self.program.lines(f"namespace {name} is not served: ")), 1)

    def test_faulty_configuration_that_is_saved_ends_nothing(self):
        blue = self.make_blue()
        self.write(route(DEFAULT, GATEWAYS[0]), namespace="blue")
        self.start()
        self.lab.write_conf(self.with_blue().interface("gi2_2", nexthop=GATEWAYS[1], namespace="a/b"))
        self.expect_not_served("a/b", "lbcheck")
        self.write(route(DEFAULT, GATEWAYS[1]))
        self.expect_path({TWO: 1})
        self.lab.write_conf(self.with_blue())
        expect(lambda: self.not_served("a/b") == (0, None), what="the fault is mended")
        self.expect_blue(blue, {BLUE: 1})
        self.assertEqual(len(self.program.lines("a/b")), 1)

    def test_namespace_with_another_routing_daemon_is_left_to_it_until_that_ends(self):
        blue = self.make_blue()
        self.write(route(DEFAULT, GATEWAYS[0]), namespace="blue")
        with subprocess.Popen(["sleep", "100"]) as other:
            with open(pid_path("blue", ipv6=True), "w", encoding="ascii") as file:
                file.write(f"{other.pid}\n")
            self.start()
            self.assertEqual(self.path(), {ONE: 1})
            self.expect_not_served("blue", str(other.pid))
            self.assertEqual(own_routes(blue), [])
            self.assertFalse(os.path.exists(pid_path("blue")))
            self.assertIn(str(other.pid), run(self.router, "status", "-f", "/run/lb.conf", check=1).stdout)
            other.kill()
        self.expect_blue(blue, {BLUE: 1})
        self.expect_served_again("blue")

    def test_routing_daemon_that_comes_later_is_told_and_left_alone_until_it_ends(self):
        self.lab.write_conf(three_uplinks())
        self.start()
        self.assertEqual(self.path(), {ONE: 1})
        with subprocess.Popen(["sleep", "100"]) as other:
            with open(pid_path(), "w", encoding="ascii") as file:
                file.write(f"{other.pid}\n")
            told = expect(lambda: self.program.lines("the default namespace is not served: "))
            self.assertIn(f"process {other.pid} (sleep)", told[0])
            self.assertIsNone(text_of(pid_path(ipv6=True)), "the file of the other family names nobody")
            self.assertEqual(text_of(pid_path()), f"{other.pid}\n")
            expect(lambda: self.not_served("")[1])
            self.assertEqual(status(self.router)[0], 1)
            self.write(route(DEFAULT, GATEWAYS[1]))
            assert_stays(lambda: self.path() == {ONE: 1}, during=2)
            other.kill()
        expect(lambda: self.path() == {TWO: 1}, within=10)
        expect(lambda: self.not_served("") == (0, ""))

    def test_process_number_file_that_was_removed_is_written_again(self):
        self.start()
        os.remove(pid_path())
        expect(lambda: (text_of(pid_path()) or "").strip() == str(self.program.pid))

    def test_full_disk_below_a_namespace_that_comes_costs_that_one_until_there_is_room(self):
        blue = self.make_blue()
        self.write(route(DEFAULT, GATEWAYS[0]), namespace="blue")
        self.lab.write_conf(three_uplinks())
        self.start()
        disk = Disk(os.path.dirname(pid_path("blue")), free_pages=0)
        self.lab.own(disk.close)
        self.lab.write_conf(self.with_blue())
        self.expect_not_served("blue", "No space left on device")
        self.write(route(DEFAULT, GATEWAYS[1]))
        self.expect_path({TWO: 1})
        disk.empty()
        self.expect_blue(blue, {BLUE: 1})
        self.expect_served_again("blue")

    def test_once_serves_what_it_can_and_tells_of_the_rest_by_its_status(self):
        blue = self.make_blue()
        self.write(route(DEFAULT, GATEWAYS[0]), namespace="blue")
        with subprocess.Popen(["sleep", "100"]) as other:
            with open(pid_path("blue"), "w", encoding="ascii") as file:
                file.write(f"{other.pid}\n")
            self.assertIn(str(other.pid), run(self.router, "-f", "/run/lb.conf", "--once", check=1).stderr)
            self.assertEqual((self.path(), own_routes(blue)), ({ONE: 1}, []))
            run(self.router, "-f", "/run/lb.conf", "--once", "--flush", check=1)
            self.assertIsNone(self.path())
            other.kill()


if __name__ == "__main__":
    main()

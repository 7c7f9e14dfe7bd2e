"""lbroute serves namespaces as they come, go and are made anew.

    router                                     far
      default  gi1_1..gi1_3 (route_scene.py)
      blue     gi2_1 192.0.2.10/24 ----------- scripted peer 192.0.2.1
"""
import os
import subprocess

from kit import expect, main
from kit.lbroute import own_objects, own_routes, path_of, route, run, status
from kit.routing_daemon import pid_path, text_of
from route_scene import DEFAULT, GATEWAYS, ONE, RouteTest, three_uplinks

BLUE = ("192.0.2.1", "gi2_1")


class Namespaces(RouteTest):
    def setUp(self):
        super().setUp()
        self.lab.write_conf(three_uplinks().interface("gi2_1", nexthop=GATEWAYS[0], namespace="blue"))
        self.write(route(DEFAULT, GATEWAYS[0]))

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


if __name__ == "__main__":
    main()

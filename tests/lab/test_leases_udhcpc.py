"""The lease of a real udhcpc, told by the script that it is given.

Topology: lease_scene.py.
"""
import os

from kit import Conf, expect, lb_lease, main
from kit.dhcp import Udhcpc, missing
from kit.lb_lease import LEASE, UDHCPC_SCRIPT, lease, text_of
from lease_scene import ROUTER_1, ClientTests, LeaseTest, configuration

OUTSIDE = "203.0.113.1"


class Leases(ClientTests, LeaseTest):
    def start(self):
        self.run_client(Udhcpc, script=UDHCPC_SCRIPT)

    def test_uplink_gets_its_address_and_no_default_route(self):
        self.start()
        self.expect_lease(ROUTER_1)
        expect(lambda: "inet 192.0.2.1" in self.lab.router.ip("address show dev gi1_1"))
        self.assertNotIn("default", self.lab.router.ip("route show"))

        self.client.release()

        expect(lambda: "inet 192.0.2.1" not in self.lab.router.ip("address show dev gi1_1"))

    def call(self, reason, **environment):
        """With the environment of udhcpc(8); what it said."""
        return self.lab.router.run("env", *(f"{name}={value}" for name, value in environment.items()), "sh", "-c",
                                   '"$@" 2>&1', "sh", UDHCPC_SCRIPT, reason)

    def test_default_route_from_before_it_was_an_uplink_goes_with_the_next_lease(self):
        told = {"interface": "gi1_1", "ip": "192.0.2.10", "subnet": "255.255.255.0", "router": ROUTER_1}
        whole = lb_lease.text_of(lb_lease.CONF)
        lb_lease.put(lb_lease.CONF, Conf().interface("gi1_2", nexthop="dhcp").text())
        self.call("bound", **told)
        self.assertIn(f"default via {ROUTER_1} dev gi1_1", self.lab.router.ip("route show"))

        lb_lease.put(lb_lease.CONF, whole)
        self.lab.router.ip(f"route add default via {ROUTER_1} dev gi1_1 metric 7 proto 76")  # as lbroute's
        self.call("renew", **told)

        self.assertRegex(self.lab.router.ip("route show default"), rf"\Adefault via {ROUTER_1} dev gi1_1 proto \w+ metric 7 \n\Z")

    def test_failed_offers_refusals_and_the_clients_start_take_the_router_away(self):
        """The client calls for its start as it does for a lease that has ended."""
        for reason in ("leasefail", "nak", "deconfig"):
            lb_lease.put(LEASE, lease(ROUTER_1))
            self.call(reason, interface="gi1_1")
            self.assertIsNone(text_of(LEASE))

    def test_other_interface_keeps_its_default_route_while_the_configuration_is_not_whole(self):
        self.lab.router.ip("link add lan up type veth peer name lan_far")
        self.addCleanup(lb_lease.put, lb_lease.CONF, None)
        for is_there in (True, False):
            if is_there:
                lb_lease.put(lb_lease.CONF, configuration().text().rstrip().removesuffix("}"))
            else:
                lb_lease.put(lb_lease.CONF, None)
                os.symlink("/dev/null/none", lb_lease.CONF)  # cannot be read
            self.call("bound", interface="lan", ip="198.51.100.10", subnet="255.255.255.0", router="198.51.100.1")
            self.assertIn("default via 198.51.100.1 dev lan", self.lab.router.ip("route show"))

            self.call("bound", interface="lan:1", ip="198.51.100.11", subnet="255.255.255.0")
            self.call("deconfig", interface="lan")
            self.assertEqual(self.lab.router.ip("route show dev lan"), "")


class RouterOutside(LeaseTest):
    """Of the network of the lease: the kernel takes no route by it until it has one to it."""

    def setUp(self):
        super().setUp()
        lb_lease.write_conf(Conf().interface("gi1_1", nexthop="dhcp").interface("gi1_2", nexthop="dhcp"))
        self.lab.router.ip("link add gi1_2 up type veth peer name far_2")

    def bound(self, interface="gi1_1", router=OUTSIDE, subnet="255.255.255.255", **environment):
        said = self.lab.router.run("env", f"interface={interface}", "ip=203.0.113.7", f"subnet={subnet}",
                                   f"router={router}", *(f"{name}={value}" for name, value in environment.items()),
                                   "sh", "-c", '"$@" 2>&1', "sh", UDHCPC_SCRIPT, "bound")
        self.assertEqual(said, "")

    def reached(self, interface="gi1_1"):
        """The routers that have a route of their own."""
        routes = self.lab.router.ip(f"-4 route show dev {interface} proto dhcp scope link")
        return [line.split()[0] for line in routes.splitlines()]

    def test_is_reached_by_a_route_of_its_own_and_taken_by_the_kernel(self):
        self.bound()
        self.bound("gi1_2")  # a router of the same address behind another uplink

        for interface in ("gi1_1", "gi1_2"):
            self.assertEqual(self.reached(interface), [OUTSIDE])
            self.lab.router.ip(f"route append 198.51.100.0/24 via {OUTSIDE} dev {interface}")

    def test_that_is_replaced_keeps_no_route(self):
        self.bound()
        self.bound(router="203.0.113.2")
        self.assertEqual(self.reached(), ["203.0.113.2"])

        self.lab.router.run("env", "interface=gi1_1", UDHCPC_SCRIPT, "deconfig")

        self.assertEqual(self.lab.router.ip("route show dev gi1_1"), "")

    def test_that_static_routes_name_is_reached(self):
        self.bound(router="203.0.113.2", staticroutes=f"0.0.0.0/0 {OUTSIDE}")

        self.assertEqual(self.reached(), [OUTSIDE])

    def test_that_the_client_keeps_in_a_file_of_its_own_is_reached(self):
        """lb-lease says that it leaves the file alone; the daemon takes its first router."""
        lb_lease.put(LEASE, "".join(f"lease {{\n  option routers {router};\n}}\n"
                                    for router in (f"{OUTSIDE},203.0.113.2", "203.0.113.3")))
        said = self.lab.router.run("env", "interface=gi1_1", "ip=203.0.113.7", "subnet=255.255.255.255",
                                   f"router={OUTSIDE}", "sh", "-c", '"$@" 2>&1', "sh", UDHCPC_SCRIPT, "bound")

        self.assertIn("was not written by lb-lease", said)
        self.assertEqual(self.reached(), [OUTSIDE])

    def test_inside_needs_none(self):
        self.bound(subnet="255.255.255.0")

        self.assertEqual(self.reached(), [])


if __name__ == "__main__":
    main(missing("udhcpc", "dnsmasq"), prepare=lambda: lb_lease.install("udhcpc"))

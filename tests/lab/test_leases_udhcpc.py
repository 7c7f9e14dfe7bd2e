"""The lease of a real udhcpc, told by the script that it is given.

Topology: lease_scene.py.
"""
from kit import expect, lb_lease, main
from kit.dhcp import Udhcpc, missing
from kit.lb_lease import LEASE, UDHCPC_SCRIPT, lease, text_of
from lease_scene import ROUTER_1, ClientTests, LeaseTest


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

    def test_failed_offers_and_refusals_take_the_router_away(self):
        """With the environment of udhcpc(8)."""
        for reason in ("leasefail", "nak"):
            lb_lease.put(LEASE, lease(ROUTER_1))
            self.lab.router.run("env", "interface=gi1_1", UDHCPC_SCRIPT, reason)
            self.assertIsNone(text_of(LEASE))


if __name__ == "__main__":
    main(missing("udhcpc", "dnsmasq"), prepare=lambda: lb_lease.install("udhcpc"))

"""The lease of a real systemd-networkd and what it hears of router advertisements, told by the adapter for
networkd-dispatcher. That program itself is not here: the test calls what it would call.

Topology: lease_scene.py.
"""
import os

from kit import expect, lb_lease, main
from kit.dhcp import Networkd, missing
from kit.lb_lease import LEASE, LEASE6, NETWORKD_SCRIPT, lease, lease6, text_of
from lease_scene import ROUTER_1, ROUTER_2, LeaseTest


class Leases(LeaseTest):
    def setUp(self):
        super().setUp()
        self.lab.router.sysctl("ipv6/conf/gi1_1/disable_ipv6", "0")
        self.run_client(Networkd)

    def dispatched(self):
        self.lab.router.run("env", "IFACE=gi1_1", "STATE=configured", "AdministrativeState=configured", NETWORKD_SCRIPT)
        return text_of(LEASE), text_of(LEASE6)

    def test_lease_renewal_with_another_router_and_its_end(self):
        expect(lambda: self.dispatched() == (lease(ROUTER_1), lease6(self.advertised())), within=30)

        self.server.give(ROUTER_2)
        expect(lambda: self.dispatched()[0] == lease(ROUTER_2), within=30)

        self.lab.router.ip("link set gi1_1 down")
        expect(lambda: self.dispatched()[0] is None, within=30)

    def test_default_among_static_routes_counts_first(self):
        self.server.give("192.0.2.9", static_routes=f"10.0.0.0/8,192.0.2.8,0.0.0.0/0,{ROUTER_2}")

        expect(lambda: self.dispatched()[0] == lease(ROUTER_2), within=30)


if __name__ == "__main__":
    main(missing("dnsmasq") or (None if os.path.exists(Networkd.PROGRAM) else "systemd-networkd"),
         prepare=lambda: lb_lease.install("networkd"))

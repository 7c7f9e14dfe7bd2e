"""The leases of a real dhcpcd and what it hears of router advertisements, told by its hook.

Topology: lease_scene.py.
"""
from kit import expect, lb_lease, main
from kit.dhcp import Dhcpcd, missing
from kit.lb_lease import LEASE, LEASE6, lease, lease6, text_of
from lease_scene import ROUTER_1, ClientTests, LeaseTest


class Leases(ClientTests, LeaseTest):
    def start(self):
        self.run_client(Dhcpcd)

    def test_every_reason_means_a_lease_or_its_end_or_nothing(self):
        """By the client's own script, with the environment of dhcpcd-run-hooks(8)."""
        told = {"BOUND": True, "RENEW": True, "REBIND": True, "REBOOT": True, "INFORM": True, "TIMEOUT": True,
                "EXPIRE": False, "NAK": False, "FAIL": False, "RELEASE": False, "STOP": False, "STOPPED": False,
                "DEPARTED": False,
                "PREINIT": None, "CARRIER": None, "NOCARRIER": None, "IPV4LL": None, "BOUND6": None, "STOP6": None}
        for reason, has_lease in told.items():
            for before in (None, lease("192.0.2.9")):
                with self.subTest(reason, before=before):
                    lb_lease.put(LEASE, before)
                    self.lab.router.run("env", f"reason={reason}", "interface=gi1_1", "new_routers=192.0.2.1 192.0.2.2",
                                        "/usr/lib/dhcpcd/dhcpcd-run-hooks")
                    self.assertEqual(text_of(LEASE),
                                     before if has_lease is None else lease(ROUTER_1) if has_lease else None)


class RouterAdvertisements(LeaseTest):
    def setUp(self):
        super().setUp()
        self.lab.router.sysctl("ipv6/conf/gi1_1/disable_ipv6", "0")
        self.run_client(Dhcpcd)

    def test_router_is_told_and_is_gone_when_it_says_that_it_is_none(self):
        expect(lambda: text_of(LEASE6) == lease6(self.advertised()), within=30)

        self.server.advertise_no_router()

        expect(lambda: text_of(LEASE6) is None, within=30)

    def test_end_of_the_client_takes_the_router_away(self):
        expect(lambda: text_of(LEASE6) == lease6(self.advertised()), within=30)

        self.client.release()

        expect(lambda: text_of(LEASE6) is None, within=30)


if __name__ == "__main__":
    main(missing("dhcpcd", "dnsmasq"), prepare=lambda: lb_lease.install("dhcpcd"))

"""The lease of a real isc-dhclient, told by its exit hook.

Topology: lease_scene.py.
"""
from kit import expect, lb_lease, main
from kit.dhcp import Dhclient, missing
from kit.lb_lease import LEASE, lease, text_of
from lease_scene import ROUTER_1, ClientTests, LeaseTest


class Leases(ClientTests, LeaseTest):
    def start(self):
        self.run_client(Dhclient)

    def test_database_that_the_client_keeps_there_stays_its_own(self):
        self.run_client(Dhclient, leases=LEASE)

        expect(lambda: (text_of(LEASE) or "").count("\n}\n") >= 2, within=30, what="a lease and its renewal")

        self.assertIn("dhcp-server-identifier", text_of(LEASE))
        self.assertIn(f"lb-lease: {LEASE} was not written by lb-lease", self.client.log())

    def test_every_reason_means_a_lease_or_its_end_or_nothing(self):
        """By the client's own script, with the environment of dhclient-script(8)."""
        told = {"BOUND": True, "RENEW": True, "REBIND": True, "REBOOT": True,
                "EXPIRE": False, "FAIL": False, "RELEASE": False, "STOP": False,
                "PREINIT": None, "MEDIUM": None, "ARPCHECK": None, "PREINIT6": None, "EXPIRE6": None, "STOP6": None}
        for reason, has_lease in told.items():
            for before in (None, lease("192.0.2.9")):
                with self.subTest(reason, before=before):
                    lb_lease.put(LEASE, before)
                    self.call_script(reason)
                    self.assertEqual(text_of(LEASE),
                                     before if has_lease is None else lease(ROUTER_1) if has_lease else None)

    def call_script(self, reason):
        self.lab.router.run(
            "env", f"reason={reason}", "interface=gi1_1", "new_ip_address=192.0.2.100",
            "new_subnet_mask=255.255.255.0", "new_routers=192.0.2.1 192.0.2.2", "/sbin/dhclient-script", check=False)


if __name__ == "__main__":
    main(missing("dhclient", "dnsmasq"), prepare=lambda: lb_lease.install("dhclient"))

"""The adapters for networkd-dispatcher and NetworkManager, called as those document it.

    router
      gi1_1, gi1_2: no far end is needed
"""
import os

from kit import Conf, LabTest, lb_lease, main
from kit.lb_lease import (LEASE, LEASE6, NETWORKD_SCRIPT, NETWORKMANAGER_SCRIPT, lease, lease6, put, text_of)

NETWORKD_LEASES = "/run/systemd/netif/leases"


class DispatchedTest(LabTest):
    def setUp(self):
        super().setUp()
        lb_lease.write_conf(Conf().interface("gi1_1", nexthop="dhcp").interface("gi1_1", nexthop="dhcp", ipv6=True)
                            .interface("gi1_2", nexthop="192.0.2.1"))
        for name in ("gi1_1", "gi1_2"):
            self.lab.router.ip(f"link add {name} up type veth peer name far_{name} netns {self.lab.far.path}")
            self.lab.router.sysctl(f"ipv6/conf/{name}/disable_ipv6", "0")

    def call(self, script, *arguments, **environment):
        """Runs the script with this environment; it says nothing and ends well."""
        said = self.lab.router.run("env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin",
                                   *(f"{name}={value}" for name, value in environment.items()),
                                   "sh", "-c", '"$@" 2>&1', "sh", script, *arguments)
        self.assertEqual(said, "")


class Networkd(DispatchedTest):
    """networkd-dispatcher(8): IFACE, STATE, AdministrativeState, OperationalState."""

    def changed(self, state, interface="gi1_1", administrative="configured"):
        self.call(NETWORKD_SCRIPT, IFACE=interface, STATE=state, OperationalState=state,
                  AdministrativeState=administrative)

    def has_lease(self, text, interface="gi1_1"):
        """Makes networkd have this lease, as it stores it."""
        os.makedirs(NETWORKD_LEASES, exist_ok=True)
        index = self.lab.router.ip(f"-o link show {interface}").split(":")[0]
        put(f"{NETWORKD_LEASES}/{index}", text)

    def test_router_of_the_lease_is_told(self):
        self.has_lease("# This is private data. Do not parse.\nADDRESS=192.0.2.10\nNETMASK=255.255.255.0\n"
                       "ROUTER=192.0.2.1 192.0.2.2\nSERVER_ADDRESS=192.0.2.3\nCLASSLESS_ROUTES=10.0.0.0/8,192.0.2.9\n")
        self.changed("routable")

        self.assertEqual((text_of(LEASE), text_of(LEASE6)), (lease("192.0.2.1"), None))

    def test_default_among_static_routes_counts_first(self):
        self.has_lease("ADDRESS=192.0.2.10\nROUTER=192.0.2.9\nCLASSLESS_ROUTES=10.0.0.0/8,192.0.2.8 0.0.0.0/0,192.0.2.1\n")
        self.changed("routable")

        self.assertEqual(text_of(LEASE), lease("192.0.2.1"))

    def test_other_router_is_told_when_the_interface_is_configured_anew(self):
        self.has_lease("ROUTER=192.0.2.1\n")
        self.changed("routable")
        self.has_lease("ROUTER=192.0.2.2\n")
        self.changed("configured")

        self.assertEqual(text_of(LEASE), lease("192.0.2.2"))

    def test_lost_lease_is_gone(self):
        put(LEASE, lease("192.0.2.1"))
        self.changed("no-carrier")

        self.assertIsNone(text_of(LEASE))

    def test_router_of_advertisements_is_told(self):
        self.lab.router.ip("-6 route add default via fe80::1 dev gi1_1 proto ra metric 1024")
        self.lab.router.ip("-6 route add default via fe80::9 dev gi1_1 proto static metric 10")
        self.changed("routable")

        self.assertEqual(text_of(LEASE6), lease6("fe80::1"))

    def test_router_of_advertisements_that_is_gone_is_told(self):
        put(LEASE6, lease6("fe80::1"))
        self.lab.router.ip("-6 route add default via fe80::9 dev gi1_1 proto static metric 10")
        self.changed("routable")

        self.assertIsNone(text_of(LEASE6))

    def test_interface_that_networkd_does_not_manage_is_left_alone(self):
        put(LEASE, lease("192.0.2.1"))
        put(LEASE6, lease6("fe80::1"))
        self.changed("routable", administrative="unmanaged")

        self.assertEqual((text_of(LEASE), text_of(LEASE6)), (lease("192.0.2.1"), lease6("fe80::1")))

    def test_uplink_of_another_kind_is_written_for_a_later_configuration(self):
        self.has_lease("ROUTER=192.0.2.1\n", "gi1_2")
        self.changed("routable", "gi1_2")

        self.assertEqual(lb_lease.files(), ["dhclient_gi1_2.leases"])


class NetworkManager(DispatchedTest):
    """NetworkManager-dispatcher(8): the interface and what happened, and DHCP4_*, IP6_*."""

    def happened(self, action, interface="gi1_1", **environment):
        self.call(NETWORKMANAGER_SCRIPT, interface, action, NM_DISPATCHER_ACTION=action, DEVICE_IP_IFACE=interface,
                  **environment)

    def test_router_of_a_new_and_of_a_changed_lease_is_told(self):
        self.happened("up", DHCP4_IP_ADDRESS="192.0.2.10", DHCP4_ROUTERS="192.0.2.1 192.0.2.2")
        self.assertEqual(text_of(LEASE), lease("192.0.2.1"))

        self.happened("dhcp4-change", DHCP4_IP_ADDRESS="192.0.2.10", DHCP4_ROUTERS="192.0.2.2")
        self.assertEqual((text_of(LEASE), text_of(LEASE6)), (lease("192.0.2.2"), None))

    def test_default_among_static_routes_counts_first(self):
        self.happened("up", DHCP4_IP_ADDRESS="192.0.2.10", DHCP4_ROUTERS="192.0.2.9",
                      DHCP4_RFC3442_CLASSLESS_STATIC_ROUTES="0.0.0.0/0 192.0.2.1")

        self.assertEqual(text_of(LEASE), lease("192.0.2.1"))

    def test_lease_without_a_router_takes_the_old_one_away(self):
        put(LEASE, lease("192.0.2.1"))
        self.happened("dhcp4-change", DHCP4_IP_ADDRESS="192.0.2.10")

        self.assertIsNone(text_of(LEASE))

    def test_router_of_advertisements_is_told(self):
        self.happened("up", IP6_GATEWAY="fe80::1")

        self.assertEqual((text_of(LEASE), text_of(LEASE6)), (None, lease6("fe80::1")))

    def test_router_of_advertisements_that_is_gone_is_told(self):
        for action in ("up", "reapply", "dhcp4-change", "dhcp6-change"):
            put(LEASE6, lease6("fe80::1"))
            self.happened(action, IP6_GATEWAY="")

            self.assertIsNone(text_of(LEASE6), action)

    def test_interface_that_goes_down_has_neither(self):
        put(LEASE, lease("192.0.2.1"))
        put(LEASE6, lease6("fe80::1"))
        self.happened("down")

        self.assertEqual(lb_lease.files(), [])

    def test_other_changes_and_other_managers_interfaces_change_nothing(self):
        put(LEASE, lease("192.0.2.1"))
        self.happened("up")
        put(LEASE6, lease6("fe80::1"))
        self.happened("connectivity-change", CONNECTIVITY_STATE="FULL")
        self.happened("pre-down")
        self.happened("down", CONNECTION_EXTERNAL="1")

        self.assertEqual((text_of(LEASE), text_of(LEASE6)), (lease("192.0.2.1"), lease6("fe80::1")))

    def test_uplink_of_another_kind_is_written_for_a_later_configuration(self):
        self.happened("up", "gi1_2", DHCP4_IP_ADDRESS="192.0.2.10", DHCP4_ROUTERS="192.0.2.1")

        self.assertEqual(lb_lease.files(), ["dhclient_gi1_2.leases"])


if __name__ == "__main__":
    main(prepare=lambda: lb_lease.install("networkd", "networkmanager"))

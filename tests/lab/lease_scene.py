"""What the tests of all DHCP clients share: a real client on the router, a real server behind its uplink.

    router                       far
      gi1_1 (by DHCP) ----------- far1 192.0.2.1/24, 192.0.2.2/24, 2001:db8::1/64; dnsmasq
"""
import json

from kit import Conf, LabTest, expect, lb_lease, ping
from kit.dhcp import DhcpServer
from kit.lb_lease import LEASE, lease, text_of
from scenes import PREFIX, fragment

ROUTER_1, ROUTER_2 = "192.0.2.1", "192.0.2.2"


def via(router):
    return fragment(f"route {PREFIX} multipath via {router} weight 1;")


def configuration():
    return (Conf().interface("gi1_1", nexthop="dhcp", probes=[ping(None, 300)])
            .interface("gi1_1", nexthop="dhcp", ipv6=True)
            .rule("1_ipv4", {"gi1_1": 1}, {PREFIX: None}))


class LeaseTest(LabTest):
    """The uplink, the server behind it, and the configuration that the adapters go by."""

    def setUp(self):
        super().setUp()
        lb_lease.write_conf(configuration())
        self.lab.router.ip(f"link add gi1_1 up type veth peer name far1 netns {self.lab.far.path}")
        for key in ("disable_ipv6", "accept_dad"):
            self.lab.far.sysctl(f"ipv6/conf/far1/{key}", "0")
        for address in (ROUTER_1 + "/24", ROUTER_2 + "/24", "2001:db8::1/64"):
            self.lab.far.ip(f"address add {address} dev far1" + (" nodad" if ":" in address else ""))
        self.lab.far.ip("link set far1 up")
        self.server = DhcpServer(self.lab.far, self.folder, "far1", ROUTER_1)
        self.addCleanup(self.server.close)

    def advertised(self):
        """The server's link-local address, by which it advertises itself."""
        addresses = json.loads(self.lab.far.ip("-j -6 address show dev far1"))[0]["addr_info"]
        return next(address["local"] for address in addresses if address["scope"] == "link")

    def run_client(self, client, **options):
        self.client = client(self.lab.router, self.folder, "gi1_1", **options)
        self.addCleanup(self.client.close)

    def expect_lease(self, router):
        expect(lambda: text_of(LEASE) == (lease(router) if router else None), within=30,
               what=f"the lease file tells {router or 'nothing'}")


class ClientTests:
    """What holds for every client; `start` runs it."""

    def test_lease_tells_its_router(self):
        self.start()

        self.expect_lease(ROUTER_1)

    def test_renewal_with_another_router_tells_that(self):
        self.start()
        self.expect_lease(ROUTER_1)

        self.server.give(ROUTER_2)
        self.client.renew()

        self.expect_lease(ROUTER_2)

    def test_renewal_without_a_router_takes_the_old_one_away(self):
        self.start()
        self.expect_lease(ROUTER_1)

        self.server.give(None)
        self.client.renew()

        self.expect_lease(None)

    def test_default_among_static_routes_counts_first(self):
        self.server.give("192.0.2.9", static_routes=f"10.0.0.0/8,192.0.2.8,0.0.0.0/0,{ROUTER_2}")
        self.start()

        self.expect_lease(ROUTER_2)

    def test_release_takes_the_router_away(self):
        self.start()
        self.expect_lease(ROUTER_1)

        self.client.release()

        self.expect_lease(None)

    def test_uplink_of_another_kind_gets_what_the_client_does(self):
        lb_lease.write_conf(Conf().interface("gi1_1", nexthop="192.0.2.9"))
        self.start()

        expect(lambda: " 192.0.2.1" in self.lab.router.ip("address show dev gi1_1"), within=30)
        expect(lambda: "default via" in self.lab.router.ip("route show"), within=30)
        self.client.release()
        expect(lambda: "inet 192.0.2." not in self.lab.router.ip("address show dev gi1_1"), within=30)

        self.expect_lease(None)

    def test_lease_that_is_older_than_the_configuration_counts_when_it_comes(self):
        lb_lease.put(lb_lease.CONF, None)
        self.start()
        self.expect_lease(ROUTER_1)

        self.lab.start(configuration())

        expect(lambda: self.lab.fragment() == via(ROUTER_1), within=40)

    def test_renewal_while_the_configuration_is_being_written_is_followed(self):
        self.start()
        self.expect_lease(ROUTER_1)

        lb_lease.put(lb_lease.CONF, configuration().text().rstrip().removesuffix("}"))
        self.server.give(ROUTER_2)
        self.client.renew()

        self.expect_lease(ROUTER_2)

    def test_daemon_follows_the_client(self):
        self.lab.start(configuration())
        self.start()
        expect(lambda: self.lab.fragment() == via(ROUTER_1), within=40)

        self.server.give(ROUTER_2)
        self.client.renew()
        expect(lambda: self.lab.fragment() == via(ROUTER_2), within=40)

        self.client.release()
        expect(lambda: self.lab.fragment() == fragment(), within=40)

"""IPv6 next hops that are learnt: told to the operator, never a way for a probe.

    router                                     far
      gi1_1 2001:db8::10/64 ------------------- scripted peer 2001:db8::1:2:3
      gre_1 192.0.2.10 peer 192.0.2.1 --------- scripted peer 192.0.2.1
"""
import os

from kit import expect, main
from kit.lbshow import state
from scenes import GATEWAY, ROUTER, warning
from scenes6 import ROUTER6, Ipv6Test, one_uplink6

LEASE = "/var/db/dhcp6_clientgi1_1.leases"  # without the underscore of the IPv4 client's
WARNING = warning("Failed to get routers option from DHCP on interface gigabitethernet 1/0/1")


def lease(*routers):
    return ("reason='BOUND6'\nnew_ip6_address='2001:db8::10'\nold_routers='fe80::66'\n"
            + "".join(f"new_routers='{value}'\n" for value in routers)
            + "new_dhcp6_name_servers='2001:db8::53'\n")


def write(text, path=LEASE):
    with open(path, "w", encoding="ascii") as file:
        file.write(text)


def learnt():
    """The next hop that the daemon publishes for its first interface, None before it does."""
    interfaces = state()["interfaces"]
    return interfaces[0]["nexthop"] if interfaces else None


class Leases(Ipv6Test):
    def setUp(self):
        super().setUp()
        self.peer = self.attach()

    def start(self):
        return self.lab.start(one_uplink6(nexthop="dhcp", target=None))

    def test_router_of_the_lease_is_learnt_without_its_quotes(self):
        write(lease("fe80::1"))
        self.start()
        expect(lambda: learnt() == "fe80::1")
        self.assertNotIn(WARNING, self.lab.log.texts())

    def test_first_line_with_routers_is_used(self):
        write(lease("fe80::1", "fe80::2"))
        self.start()
        expect(lambda: learnt() == "fe80::1")

    def test_first_of_several_routers_loses_its_last_character(self):
        # What stands before the blank is cut at both ends, though the closing quote is behind it.
        write(lease("fe80::12 fe80::2"))
        self.start()
        expect(lambda: learnt() == "fe80::1")

    def test_last_line_without_an_end_is_learnt_once_the_file_rests(self):
        write("reason='BOUND6'\nnew_routers='fe80::1' interface=gi1_1")
        self.start()
        expect(lambda: learnt() == "fe80::1")

    def test_lease_of_the_ipv4_client_does_not_count(self):
        write("lease {\n  option routers 192.0.2.1;\n}\n", "/var/db/dhclient_gi1_1.leases")
        self.start()
        expect(self.logged(WARNING))

    def test_lease_without_routers_is_reported_every_cycle(self):
        write(lease())
        self.start()
        expect(lambda: self.lab.log.count(WARNING) >= 2)

    def test_values_too_short_for_quotes_tell_no_router_and_end_nothing(self):
        for value in ("new_routers=\n", "new_routers='\n", "new_routers\n"):
            write(value)
            daemon = self.start()
            expect(lambda: self.lab.log.count(WARNING) >= 2, what=repr(value))
            daemon.stop()

    def test_late_lease_ends_the_warnings(self):
        self.start()
        expect(self.logged(WARNING))
        write(lease("fe80::1"))
        expect(lambda: learnt() == "fe80::1")
        warnings = self.lab.log.count(WARNING)
        self.lab.cycles.never(lambda: self.lab.log.count(WARNING) > warnings, cycles=3)

    def test_vanished_lease_keeps_the_learnt_router(self):
        write(lease("fe80::1"))
        self.start()
        expect(lambda: learnt() == "fe80::1")
        os.unlink(LEASE)
        self.lab.cycles.never(lambda: WARNING in self.lab.log.texts() or learnt() != "fe80::1",
                              cycles=3)

    def test_learnt_router_is_not_what_the_neighbour_prober_is_handed(self):
        self.peer.addresses.add("fe80::1")
        write(lease("fe80::1"))
        daemon = self.start()
        expect(lambda: learnt() == "fe80::1")
        expect(lambda: daemon.stderr.count("inet_pton() failed.\nError message: Success") >= 3)
        self.assertEqual((self.solicitations("fe80::1"), self.peer.echo_requests()), ([], []))
        self.assertIsNone(self.lab.fragment(ipv6=True))


class Tunnels(Ipv6Test):
    def test_peer_of_a_tunnel_is_learnt_as_a_dotted_quad(self):
        self.lab.uplink("gre_1", ROUTER, GATEWAY, point_to_point=GATEWAY)
        self.lab.start(one_uplink6("gre_1", nexthop="tunnel", source=ROUTER6, target=None))
        expect(lambda: learnt() == GATEWAY)

    def test_missing_tunnel_has_the_peer_0_0_0_0_and_no_message(self):
        self.lab.start(one_uplink6("gre_9", nexthop="tunnel", source=ROUTER6, target=None))
        expect(lambda: learnt() == "0.0.0.0")
        self.assertFalse([text for text in self.lab.log.texts() if "P-t-P" in text])


if __name__ == "__main__":
    main()

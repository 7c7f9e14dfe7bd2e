"""Faults of an uplink's interface, the daemon running throughout (the stage: fault_scene.py)."""
from fault_scene import (SECOND_ALONE, SECOND_ALONE_IN_IPV4, SECOND_ALONE_IN_IPV6, FaultTest,
                         dual_stack)
from kit import LabTest, expect, main, ping, ping_ext
from kit.system_log import DEBUG
from scenes import (ACTIVE, GATEWAY, INACTIVE, ROUTER, TARGET, VIA_1, changed, error, fragment, one_uplink)
from scenes6 import ACTIVE6, INACTIVE6, ROUTER6

CANNOT_SEND, CANNOT_SEND6 = (f"wan_lb: error on sending {word} packet: " for word in ("icmp", "icmp6"))
ADDRESS_NOT_AVAILABLE, NO_BUFFER_SPACE = "99", "105"  # errno(3)


class Interfaces(FaultTest):
    def test_deleted_interface_is_reported_by_each_family(self):
        self.lab.router.ip("link delete gi1_1")
        self.expect_logged(error("ioctl() failed to get source MAC address No such device"),
                           error("ioctl() failed to get source MAC adds No such device"))

    def test_deleted_interface_is_shown_as_failed_until_it_is_made_again(self):
        self.lab.router.ip("link delete gi1_1")
        self.expect_reports("failed")
        self.attach_first()
        self.expect_right_routes_under_traffic()
        self.expect_reports("active")

    def test_interface_that_is_deleted_and_made_again_is_used_again(self):
        self.lab.router.ip("link delete gi1_1")
        self.expect_routes(SECOND_ALONE)
        self.peer = self.attach_first()
        # A link that goes is down for a moment before it is gone: a solicitation that could not be
        # sent then was the daemon's last.
        self.expect_right_routes_under_traffic()
        self.expect_all_right()

    def test_lost_carrier_takes_the_uplink_out_until_it_returns(self):
        self.peer.link("down")
        self.expect_routes(SECOND_ALONE)

        self.peer.link("up")
        self.expect_all_right()
        self.assertEqual(self.count(INACTIVE, ACTIVE, INACTIVE6, ACTIVE6), [2, 2, 2, 2])

    def test_link_that_is_down_is_reported_in_the_log_and_on_standard_error(self):
        self.lab.router.ip("link set gi1_1 down")
        self.expect_logged(error("<send_arp> sendto() failed"))
        expect(lambda: "sendto() failed: Network is down" in self.daemon.stderr)

    def test_link_set_down_and_up_recovers_where_the_kernel_knows_the_next_hop(self):
        self.lab.router.sysctl("ipv6/conf/gi1_1/keep_addr_on_down", "1")
        self.lab.router.ip("link set gi1_1 down")
        self.expect_routes(SECOND_ALONE)

        self.lab.router.ip("link set gi1_1 up")
        self.expect_routes(SECOND_ALONE_IN_IPV6)
        # The daemon's own solicitations have ended with the first that could not be sent.
        self.expect_right_routes_under_traffic()
        self.expect_all_right()

    def test_link_that_flaps_faster_than_the_cycle_settles(self):
        calm = self.calm_cycles()
        self.lab.flap(self.peer, cycles=6)
        # A solicitation that met the link at the wrong moment was the daemon's last.
        self.expect_right_routes_under_traffic()
        self.expect_all_right()
        self.alive.assert_pace_kept(calm)

    def test_full_queue_costs_the_probes_that_it_swallows(self):
        self.lab.router.run("tc", "qdisc", "replace", "dev", "gi1_1", "root", "pfifo", "limit", "0")
        expect(lambda: {CANNOT_SEND + NO_BUFFER_SPACE, CANNOT_SEND6 + NO_BUFFER_SPACE}
               <= set(self.lab.log.texts(DEBUG)))
        self.expect_routes(SECOND_ALONE)

        self.lab.router.run("tc", "qdisc", "delete", "dev", "gi1_1", "root")
        self.expect_all_right()


class Addresses(FaultTest):
    def test_removed_addresses_take_the_uplink_out_until_they_return(self):
        self.lab.router.ip(f"address delete {ROUTER}/24 dev gi1_1")
        self.lab.router.ip(f"address delete {ROUTER6}/64 dev gi1_1")
        expect(lambda: CANNOT_SEND + ADDRESS_NOT_AVAILABLE in self.lab.log.texts(DEBUG))
        self.expect_routes(SECOND_ALONE)
        self.expect_report("failed")

        self.lab.router.ip(f"address add {ROUTER}/24 dev gi1_1")
        self.lab.router.ip(f"address add {ROUTER6}/64 dev gi1_1 nodad")
        self.expect_all_right()


class ConfiguredSource(FaultTest):
    conf = dual_stack(first_source=ROUTER)

    def test_removed_source_is_named_and_used_again_when_it_returns(self):
        self.lab.router.ip(f"address delete {ROUTER}/24 dev gi1_1")
        self.expect_logged(error(f"address '{ROUTER}' not present on any interface"))
        self.expect_routes(SECOND_ALONE_IN_IPV4)

        self.lab.router.ip(f"address add {ROUTER}/24 dev gi1_1")
        self.expect_all_right()


class ExtendedPing(FaultTest):
    conf = dual_stack(first_probe=ping_ext(TARGET, count=2, period=0, timeout=900, loss=100, rtt=900,
                                           jitter=900))

    def test_interface_that_is_deleted_and_made_again_is_measured_again(self):
        self.lab.router.ip("link delete gi1_1")
        self.expect_logged(error("ioctl() failed to get source MAC address No such device"))
        self.expect_routes(SECOND_ALONE)

        self.peer = self.attach_first()
        self.expect_right_routes_under_traffic()
        self.assertLessEqual({0, 1}, {echo.sequence for echo in self.peer.echo_requests(TARGET)})

    def test_lost_carrier_takes_the_uplink_out_until_it_returns(self):
        self.peer.link("down")
        self.expect_routes(SECOND_ALONE)

        self.peer.link("up")
        self.expect_right_routes_soon()


class Tunnel(LabTest):
    """gre_1 192.0.2.10 peer 192.0.2.1 ---- scripted peer 192.0.2.1"""

    def attach(self):
        return self.lab.uplink("gre_1", ROUTER, GATEWAY, point_to_point=GATEWAY)

    def test_tunnel_that_is_deleted_and_made_again_is_used_again(self):
        active, inactive = (changed("gre 1", state) for state in ("active", "inactive"))
        self.attach()
        self.lab.start(one_uplink("gre_1", nexthop="tunnel", probes=[ping(GATEWAY, 900)]))
        expect(lambda: self.lab.fragment() == fragment(VIA_1))

        self.lab.router.ip("link delete gre_1")
        expect(lambda: error("wan_lb: failure to bind to interface: gre 1") in self.lab.log.texts())
        expect(lambda: self.lab.fragment() == fragment())
        self.assertEqual(self.lab.log.count(inactive), 2)

        peer = self.attach()
        expect(lambda: self.lab.fragment() == fragment(VIA_1))
        self.assertEqual(self.lab.log.count(active), 2)
        self.assertGreater(len(peer.echo_requests(GATEWAY)), 0)


if __name__ == "__main__":
    main()

"""Routes that follow the uplinks: outage, return, failover, flapping, a deleted interface.

    router                                far
      gi1_1 192.0.2.10/24 ---------------- scripted peer 192.0.2.1    weight 1
      gi1_2 203.0.113.10/24 -------------- scripted peer 203.0.113.1  weight 3
"""
from kit import LabTest, expect, main
from kit import echo_policies as policy
from scenes import (ACTIVE, ACTIVE_2, GATEWAY, INACTIVE, INACTIVE_2, ROUTER, VIA_1, VIA_2, VIA_BOTH,
                    attach_two, fragment, two_uplinks)


class Balancing(LabTest):
    def setUp(self):
        super().setUp()
        self.one, self.two = attach_two(self.lab)

    def expect_routes(self, *routes):
        expect(lambda: self.lab.fragment() == fragment(*routes), what=f"routes are {routes}")

    def test_nothing_is_routed_before_any_verdict(self):
        captured = self.lab.routing_daemon()
        self.one.echo = self.two.echo = policy.silence
        self.lab.start(two_uplinks())
        expect(lambda: len(self.one.echo_requests()) >= 2)
        self.assertIsNone(self.lab.fragment())
        self.assertEqual(captured.hups(), [])

    def test_outage_behind_the_gateway_takes_one_uplink_out(self):
        self.lab.start(two_uplinks())
        self.expect_routes(VIA_BOTH)
        self.one.echo = policy.silence
        self.expect_routes(VIA_2)
        self.one.echo = policy.answer
        self.expect_routes(VIA_BOTH)

    def test_all_uplinks_down_and_one_returns(self):
        captured = self.lab.routing_daemon()
        self.lab.start(two_uplinks())
        self.expect_routes(VIA_BOTH)
        self.one.echo = self.two.echo = policy.silence
        self.expect_routes()
        self.one.echo = policy.answer
        self.expect_routes(VIA_1)
        expect(lambda: captured.fragments()[-2:] == [fragment(), fragment(VIA_1)])

    def test_lost_carrier_takes_the_uplink_out_and_back_in(self):
        self.lab.start(two_uplinks())
        self.expect_routes(VIA_BOTH)
        self.two.link("down")
        self.expect_routes(VIA_1)
        self.two.link("up")
        self.expect_routes(VIA_BOTH)

    def test_link_that_flaps_faster_than_the_cycle_leaves_a_working_uplink(self):
        self.lab.start(two_uplinks(failure=2))
        self.expect_routes(VIA_BOTH)
        self.lab.flap(self.one, cycles=4)
        expect(lambda: self.lab.log.texts().count(ACTIVE)
               == self.lab.log.texts().count(INACTIVE), what="the last word is active")
        self.expect_routes(VIA_BOTH)

    def test_deleted_interface_costs_its_uplink_alone_and_may_come_back(self):
        self.lab.start(two_uplinks())
        self.expect_routes(VIA_BOTH)
        self.lab.router.ip("link delete gi1_1")
        self.expect_routes(VIA_2)
        self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY)
        self.expect_routes(VIA_BOTH)

    def test_failover_uses_the_heaviest_interface_that_works(self):
        self.lab.start(two_uplinks(failover=True))
        expect(lambda: {ACTIVE, ACTIVE_2} <= set(self.lab.log.texts()))
        self.expect_routes(VIA_2)
        self.two.echo = policy.silence
        self.expect_routes(VIA_1)
        self.two.echo = policy.answer
        self.expect_routes(VIA_2)

    def test_failover_among_equals_uses_the_first_name(self):
        self.lab.start(two_uplinks(weights=(3, 3), failover=True))
        expect(lambda: {ACTIVE, ACTIVE_2} <= set(self.lab.log.texts()))
        self.expect_routes(VIA_1.replace("weight 1", "weight 3"))

    def test_states_are_logged_as_they_change(self):
        self.lab.start(two_uplinks())
        self.expect_routes(VIA_BOTH)
        self.two.echo = policy.silence
        expect(lambda: self.lab.log.count(INACTIVE_2) == 2)
        self.assertEqual(self.lab.log.count(INACTIVE), 1)


if __name__ == "__main__":
    main()

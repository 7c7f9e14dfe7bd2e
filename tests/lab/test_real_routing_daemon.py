"""The real routing daemons read the fragments, and the kernel routes by them.

    router                                far
      gi1_1 192.0.2.10/24 ---------------- scripted peer 192.0.2.1    weight 1
      gi1_2 203.0.113.10/24 -------------- scripted peer 203.0.113.1  weight 3
    and for IPv6
      gi1_1 2001:db8::10/64 -------------- scripted peer 2001:db8::1:2:3  weight 1
      gi1_2 2001:db8:2::10/64 ------------ scripted peer 2001:db8:2::1    weight 3
"""
import socket
import unittest

from kit import LabTest, expect, main
from kit import echo_policies as policy
from kit.routing_daemon import bird_binary, next_hops, why_no_bird
from scenes import GATEWAY, GATEWAY_2, PREFIX, ROUTER, attach_two, two_uplinks
from scenes6 import GATEWAY6, GATEWAY6_2, PREFIX6, attach_two6, two_uplinks6


@unittest.skipUnless(bird_binary(), why_no_bird())
class RealRoutingDaemon(LabTest):
    def setUp(self):
        super().setUp()
        self.one, self.two = attach_two(self.lab)
        self.bird = self.lab.bird(ROUTER)

    def next_hops(self):
        return next_hops(self.lab.router, "-4", PREFIX)

    def test_kernel_has_the_multipath_route_with_the_weights(self):
        self.lab.start(two_uplinks())
        expect(lambda: self.next_hops() == {GATEWAY: 1, GATEWAY_2: 3})
        self.assertNotIn("error", self.bird.log().lower())

    def test_kernels_route_follows_an_outage_and_the_return(self):
        self.lab.start(two_uplinks())
        expect(lambda: self.next_hops() == {GATEWAY: 1, GATEWAY_2: 3})
        self.two.echo = policy.silence
        expect(lambda: list(self.next_hops()) == [GATEWAY])
        self.two.echo = policy.answer
        expect(lambda: self.next_hops() == {GATEWAY: 1, GATEWAY_2: 3})

    def test_route_goes_when_all_uplinks_are_down(self):
        self.lab.start(two_uplinks())
        expect(lambda: self.next_hops() == {GATEWAY: 1, GATEWAY_2: 3})
        self.one.echo = self.two.echo = policy.silence
        expect(lambda: self.next_hops() == {})

    def test_traffic_of_the_router_leaves_through_the_working_uplink(self):
        self.one.echo = policy.silence
        self.lab.start(two_uplinks())
        expect(lambda: list(self.next_hops()) == [GATEWAY_2])
        with self.lab.router.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            sender.sendto(b"through the working uplink", ("198.18.0.1", 9))
        expect(lambda: any(b"through the working uplink" in frame.data
                           for frame in self.two.frames()))


@unittest.skipUnless(bird_binary(ipv6=True), why_no_bird())
class RealRoutingDaemon6(LabTest):
    """This routing daemon adds the hops of an IPv6 route one by one and leaves their weights out."""

    def setUp(self):
        super().setUp()
        self.one, self.two = attach_two6(self.lab)
        self.bird = self.lab.bird(ROUTER, ipv6=True)
        self.lab.start(two_uplinks6())
        expect(lambda: self.gateways() == {GATEWAY6, GATEWAY6_2})

    def gateways(self):
        return set(next_hops(self.lab.router, "-6", PREFIX6))

    def test_fragment_without_a_link_check_is_read_without_complaint(self):
        self.assertNotIn("error", self.bird.log().lower())

    def test_kernels_route_follows_an_outage_and_the_return(self):
        self.two.echo = policy.silence
        expect(lambda: self.gateways() == {GATEWAY6})
        self.two.echo = policy.answer
        expect(lambda: self.gateways() == {GATEWAY6, GATEWAY6_2})

    def test_route_goes_when_all_uplinks_are_down(self):
        self.one.echo = self.two.echo = policy.silence
        expect(lambda: self.gateways() == set())


if __name__ == "__main__":
    main()

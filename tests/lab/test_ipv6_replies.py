"""Which ICMPv6 replies count.

    router                                far
      gi1_1 2001:db8::10/64 -------------- scripted peer 2001:db8::1:2:3
"""
from kit import expect, main
from kit import echo_policies as policy
from reply_cases import ReplyCases
from scenes6 import ACTIVE6, GATEWAY6, Ipv6Test, one_uplink6


class Replies(ReplyCases, Ipv6Test):
    stranger = "2001:db8:66::66"

    def setUp(self):
        super().setUp()
        self.peer = self.attach()
        self.know_gateway()

    def start_daemon(self):
        self.lab.start(one_uplink6())

    def active(self):
        return ACTIVE6 in self.lab.log.texts()

    def test_request_of_the_far_end_does_not_count(self):
        self.assert_does_not_count(policy.lying(request=True))

    def test_late_reply_is_ignored(self):
        self.assert_does_not_count(policy.delayed(1.6))

    def test_reply_counts_once_however_often_it_comes(self):
        self.peer.echo = policy.scripted([True, False, True, False, False] + [False] * 20,
                                         policy.duplicated(4))
        self.lab.start(one_uplink6())
        expect(self.logged(ACTIVE6))
        # Copies left over would pass for answers to the probes that get none.
        expect(lambda: len([text for text in self.lab.log.texts() if "to inactive" in text]) >= 3)

    def test_identifiers_count_up_from_1(self):
        self.lab.start(one_uplink6())
        expect(lambda: len(self.peer.echo_requests()) >= 4)
        self.assertEqual([echo.packet_id for echo in self.peer.echo_requests()[:4]], [1, 2, 3, 4])

    def test_probe_without_a_target_asks_the_next_hop(self):
        self.lab.start(one_uplink6(target=None))
        expect(self.logged(ACTIVE6))
        self.assertEqual({echo.destination for echo in self.peer.echo_requests()}, {GATEWAY6})


if __name__ == "__main__":
    main()

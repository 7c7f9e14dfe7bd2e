"""Which replies count, and when a probe is given up.

    router                                far
      gi1_1 192.0.2.10/24 ---------------- scripted peer 192.0.2.1
"""
import struct

from kit import LabTest, expect, main, ping
from kit import echo_policies as policy
from reply_cases import ReplyCases
from scenes import ACTIVE, GATEWAY, INACTIVE, ROUTER, TARGET, TARGET_2, one_uplink


class Replies(ReplyCases, LabTest):
    stranger = "203.0.113.66"

    def setUp(self):
        super().setUp()
        self.peer = self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY, known=True)

    def start_daemon(self):
        self.lab.start(one_uplink())

    def active(self):
        return ACTIVE in self.lab.log.texts()

    def test_twice_the_same_reply_counts_once_and_does_no_harm(self):
        self.assert_counts(policy.duplicated(3))
        expect(lambda: len(self.peer.echo_requests()) >= 3)
        self.assertNotIn(INACTIVE, self.lab.log.texts()[1:])

    def test_ip_options_are_misread(self):
        self.assert_does_not_count(policy.lying(ip_options=b"\x01\x01\x01\x00"))

    def test_behind_ip_options_identifier_and_sequence_stand_for_the_packet_identifier(self):
        # Four bytes of options: offset 20 holds their first byte, offset 28 the identifier.
        self.assert_counts(policy.lying(
            ip_options=b"\0\0\0\0", identifier=0, payload=b"\xff" * 4,
            sequence=lambda reply: struct.unpack("!I", reply.payload[:4])[0]))

    def test_request_of_the_far_end_does_not_count(self):
        self.assert_does_not_count(policy.lying(request=True))

    def test_late_reply_is_ignored(self):
        # Each answer comes after the collection that gives its probe up.
        self.assert_does_not_count(policy.delayed(1.6))

    def test_healthy_target_is_probed_every_second_cycle(self):
        self.peer.echo = policy.delayed(0.2)  # never in time for the collection of its own cycle
        self.lab.start(one_uplink())
        frames = expect(lambda: len(self.peer.echo_frames()) >= 4 and self.peer.echo_frames())
        gaps_s = [later.time_s - earlier.time_s for earlier, later in zip(frames, frames[1:])]
        self.assertGreater(min(gaps_s), 1.9)
        self.assertLess(sorted(gaps_s)[1], 2.9)

    def test_identifiers_count_up_from_1(self):
        self.lab.start(one_uplink(probes=[ping(TARGET, 300), ping(TARGET_2, 300)]))
        expect(lambda: len(self.peer.echo_requests()) >= 6)
        self.assertEqual([echo.packet_id for echo in self.peer.echo_requests()[:6]],
                         [1, 2, 3, 4, 5, 6])

    def test_pending_probe_blocks_the_next_until_its_timeout(self):
        self.peer.echo = policy.silence
        self.lab.start(one_uplink(probes=[ping(TARGET, 2500)]))
        frames = expect(lambda: len(self.peer.echo_frames()) >= 2 and self.peer.echo_frames())
        self.assertGreater(frames[1].time_s - frames[0].time_s, 2.5)
        self.assertEqual([echo.packet_id for echo in self.peer.echo_requests()[:2]], [1, 2])

    def test_reply_within_the_timeout_counts_though_cycles_pass(self):
        self.peer.echo = policy.delayed(1.5)
        self.lab.start(one_uplink(probes=[ping(TARGET, 4000)]))
        expect(self.active)

    def test_unanswered_target_fails_not_before_its_timeout(self):
        self.peer.echo = policy.scripted([True] + [False] * 20)
        self.lab.start(one_uplink(probes=[ping(TARGET, 1500)]))
        lines = expect(lambda: [line for line in self.lab.log.lines() if line.text == INACTIVE][1:])
        unanswered = self.peer.echo_frames()[1]
        self.assertGreater(lines[0].time_s - unanswered.time_s, 1.5)
        self.assertLess(lines[0].time_s - unanswered.time_s, 5)

    def test_replies_in_another_order_find_their_probes(self):
        self.peer.echo = policy.reordered(2)
        self.lab.start(one_uplink(probes=[ping(TARGET, 900), ping(TARGET_2, 900)],
                                  check_all=True))
        expect(self.active)
        self.lab.cycles.never(lambda: INACTIVE in self.lab.log.texts()[1:], cycles=2)

    def test_probe_without_a_target_asks_the_next_hop(self):
        self.lab.start(one_uplink(probes=[ping(None, 300)]))
        expect(self.active)
        self.assertEqual(self.peer.echo_requests()[0].destination, GATEWAY)

    def test_interface_without_a_probe_asks_the_next_hop(self):
        self.lab.start(one_uplink(probes=[]))
        expect(self.active)
        self.assertEqual(self.peer.echo_requests()[0].destination, GATEWAY)


if __name__ == "__main__":
    main()

"""Which replies count in both families. A class of test_replies or test_ipv6_replies adds its scene."""
from kit import expect
from kit import echo_policies as policy


class ReplyCases:
    """Needs `peer`, the far end of the only uplink; `stranger`, an address of nobody; start_daemon(), which probes that
    uplink; and active(), whether the log has called it so."""

    def assert_counts(self, echo):
        self.peer.echo = echo
        self.start_daemon()
        expect(self.active)

    def assert_does_not_count(self, echo):
        self.peer.echo = echo
        self.start_daemon()
        expect(lambda: len(self.peer.echo_requests()) >= 2)
        self.assertFalse(self.active())

    def test_any_source_counts(self):
        self.assert_counts(policy.lying(source=self.stranger))

    def test_foreign_icmp_identifier_and_sequence_count(self):
        self.assert_counts(policy.lying(identifier=1, sequence=4711))

    def test_longer_payload_counts_by_its_first_word(self):
        self.assert_counts(policy.lying(payload=lambda reply: reply.payload + b"\xff" * 400))

    def test_unknown_packet_identifier_does_not_count(self):
        self.assert_does_not_count(policy.lying(payload=b"\0\0\x7f\xff"))

    def test_little_endian_packet_identifier_does_not_count(self):
        self.assert_does_not_count(policy.lying(payload=lambda reply: reply.payload[::-1]))

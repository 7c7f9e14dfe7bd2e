"""The connection-tracking record that lets an echo reply in.

    router                                        far
      gi1_1 192.0.2.10/24 ------------------------ scripted peer 192.0.2.1
      nftables counts replies of known connections
"""
from kit import LabTest, expect, main
from kit import echo_policies as policy
from kit.reply_counters import ReplyCounters
from scenes import ACTIVE, GATEWAY, ROUTER, one_uplink


class ConnectionTracking(LabTest):
    def setUp(self):
        super().setUp()
        self.peer = self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY, known=True)
        self.packets = ReplyCounters(self.lab.router).packets

    def test_echo_replies_belong_to_an_established_connection(self):
        self.lab.start(one_uplink())
        expect(lambda: self.packets("established") >= 2)
        expect(lambda: ACTIVE in self.lab.log.texts())
        self.assertEqual(self.packets("other"), 0)

    def test_renewed_records_are_no_error(self):
        self.lab.start(one_uplink())
        expect(lambda: self.packets("established") >= 4)
        self.assertEqual(self.lab.log.errors(), [])

    def test_reply_of_another_source_belongs_to_no_connection(self):
        self.peer.echo = policy.lying(source="203.0.113.66")
        self.lab.start(one_uplink())
        expect(lambda: self.packets("other") >= 1)
        self.assertEqual(self.packets("established"), 0)


if __name__ == "__main__":
    main()

"""The stage of the tests of hostility: a stranger on the first uplink's wire (fault_scene.py).

The first uplink's targets answer, the second's never do: each verdict has a truth to be held against.
"""
import random

from fault_scene import FIRST_ALONE, FaultTest, dual_stack
from kit import echo_policies as policy
from kit import expect, packets
from scenes import ACTIVE, ACTIVE_2, GATEWAY, INACTIVE, ROUTER, TARGET, fragment
from scenes6 import ACTIVE6, GATEWAY6, INACTIVE6, ROUTER6, TARGET6, changed6, fragment6

NOTHING = (fragment(), fragment6())
ACTIVE6_2 = changed6("active", "gigabitethernet 1/0/2")
SEED = 20240229
BURST = 64  # frames at once: far less than a receive buffer holds
RECEIVERS = {"0806", "86dd"}  # protocols of the daemon's packet sockets, in hex
ECHO_BYTES = 1 << 20  # that many may wait for the next cycle: a small part of the room for replies


class HostileTest(FaultTest):
    # An answer may take long: the stranger and the honest far end share one interpreter.
    conf = dual_stack(resp_time=2500)
    second_echo = staticmethod(policy.silence)
    right_routes = FIRST_ALONE

    def setUp(self):
        super().setUp()
        self.random = random.Random(SEED)
        self.router_mac = bytes.fromhex(self.near)
        self.calm = self.calm_cycles()

    # Honest frames to start from.

    def echo_reply(self, packet_id, ipv6=False, **changes):
        near, target = (ROUTER6, TARGET6) if ipv6 else (ROUTER, TARGET)
        fields = {"identifier": 7, "sequence": 0, "payload": packet_id.to_bytes(4, "big"),
                  "request": False, **changes}
        return packets.echo(packets.Echo(self.peer.mac, target, near, **fields), self.peer.mac,
                            self.router_mac)

    def arp_reply(self, sender=GATEWAY, mac=None):
        return packets.arp(2, mac or self.peer.mac, sender, self.router_mac, ROUTER)

    def advertisement(self, target=GATEWAY6, mac=None):
        return packets.advertisement(mac or self.peer.mac, target, self.router_mac, ROUTER6)

    def honest_frames(self):
        """One of each kind that the daemon reads; none answers for the second uplink, whose probes have other numbers in
        either family."""
        return [self.echo_reply(self.peer.echo_requests(TARGET)[-1].packet_id), self.echo_reply(1, ipv6=True),
                self.arp_reply(), self.arp_reply("192.0.2.99"), self.advertisement(),
                self.advertisement("2001:db8::99")]

    # Sending and judging.

    def keeps_up(self):
        """Whether the daemon has read what came, by the kernel's tables of sockets; echoes wait for the next cycle."""
        with self.lab.router.inside():
            packet, raw, raw6 = (self.sockets(name) for name in ("packet", "raw", "raw6"))
        return (all(int(row[6]) == 0 for row in packet if row[3] in RECEIVERS)
                and all(int(row[4].split(":")[1], 16) < ECHO_BYTES for row in raw + raw6))

    @staticmethod
    def sockets(name):
        with open(f"/proc/thread-self/net/{name}", encoding="ascii") as table:
            return [line.split() for line in table][1:]

    def pour(self, frames):
        """Sends frames no faster than the daemon reads them."""
        for i, frame in enumerate(frames, 1):
            self.peer.send(frame)
            if i % BURST == 0:
                expect(self.keeps_up, what="the daemon reads what has come")

    def assert_first_was_right_throughout(self):
        self.assertEqual(self.count(INACTIVE, ACTIVE, INACTIVE6, ACTIVE6), [1, 1, 1, 1])

    def assert_verdicts_were_right_throughout(self):
        self.assert_first_was_right_throughout()
        self.assertEqual(self.count(ACTIVE_2, ACTIVE6_2), [0, 0])
        self.assertEqual(self.routes(), FIRST_ALONE)

    def assert_unimpressed(self):
        """After the hostility: verdicts and pace were right, and every receiver still works."""
        expect(lambda: self.alive.cycles() > self.calm + 3)
        self.assert_verdicts_were_right_throughout()
        self.alive.assert_pace_kept(self.calm)
        self.lab.forget_neighbours("gi1_1")
        self.peer.echo = policy.silence
        self.expect_routes(NOTHING)
        self.peer.echo = policy.answer
        self.expect_all_right()

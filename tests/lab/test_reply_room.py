"""More answers at once than a socket holds by default, while the daemon cannot read: none is lost.

    router                                          far
      gi1_1 192.0.2.10/24, 2001:db8::10/64 -------- scripted peer, answers for 400 targets
"""
import os
import signal

from kit import Conf, LabTest, expect, main, packets, ping
from scenes import ACTIVE, GATEWAY, INACTIVE, PREFIX, ROUTER
from scenes6 import ACTIVE6, FAR_MAC, GATEWAY6, INACTIVE6, PREFIX6, ROUTER6

TARGETS = 400
RESP_TIME_MS = 60_000  # a lost answer leaves its target unasked for the length of the test


def damaged(frame):
    """An ICMPv6 message whose checksum does not fit."""
    return frame[:56] + bytes([frame[56] ^ 0xff]) + frame[57:]


class Burst:
    """Holds answers back until every target was asked, stops the daemon, and gives them all."""

    def __init__(self, pid, peer):
        self._pid = pid
        self._peer = peer
        self._held = []
        self._sent_before = 0
        self.is_given = False

    def is_sent(self):
        return self.is_given and len(self._peer.recording.frames(sent=True)) >= self._sent_before + TARGETS

    def __call__(self, request, _number):
        if self.is_given:
            return [(0.0, request.reply())]
        self._held.append((0.0, request.reply()))
        if len(self._held) < TARGETS:
            return []
        os.kill(self._pid, signal.SIGSTOP)
        self._sent_before = len(self._peer.recording.frames(sent=True))
        self.is_given = True
        return self._held


class ReplyRoom(LabTest):
    def drops(self, table):
        """What the reply sockets of the namespace lost, by the kernel's own count."""
        rows = self.lab.router.run("cat", f"/proc/net/{table}").splitlines()[1:]
        return sum(int(row.split()[-1]) for row in rows)

    def assert_burst_is_read(self, conf, peer, active, inactive, table):
        daemon = self.lab.start(conf)
        expect(lambda: self.lab.log.count(active) == 1)
        told = self.lab.log.count(inactive)

        peer.echo = burst = Burst(daemon.pid, peer)
        try:
            expect(burst.is_sent, what="every target was asked in vain, and all answers are on their way")
        finally:
            os.kill(daemon.pid, signal.SIGCONT)
        self.assertEqual(self.drops(table), 0)
        before = len(peer.echo_requests())
        expect(lambda: len({one.destination for one in peer.echo_requests()[before:]}) == TARGETS,
               what="every target is asked again")
        self.assertEqual(self.lab.log.count(inactive), told)
        self.assertFalse([text for text in self.lab.log.texts() if "dropped unread" in text])

    def test_answers_to_all_probes_at_once_are_read(self):
        peer = self.lab.uplink("gi1_1", f"{ROUTER}/24", GATEWAY, known=True)
        targets = [ping(f"198.51.{100 + i // 200}.{i % 200 + 1}", RESP_TIME_MS) for i in range(TARGETS)]
        conf = (Conf().interface("gi1_1", nexthop=GATEWAY, probes=targets, check_all=True)
                .rule("1_ipv4", {"gi1_1": 1}, {PREFIX: None}))
        self.assert_burst_is_read(conf, peer, ACTIVE, INACTIVE, "raw")

    def test_answers_to_all_ipv6_probes_at_once_are_read(self):
        peer = self.lab.uplink("gi1_1", address6=f"{ROUTER6}/64", gateway6=GATEWAY6)
        self.lab.router.ip(f"neigh replace {GATEWAY6} lladdr {FAR_MAC} dev gi1_1 nud permanent")
        targets = [ping(f"2001:db8:1::{i + 1:x}", RESP_TIME_MS) for i in range(TARGETS)]
        conf = (Conf().interface("gi1_1", nexthop=GATEWAY6, source=ROUTER6, probes=targets,
                                 check_all=True, ipv6=True)
                .rule("1_ipv6", interfaces6={"gi1_1": 1}, targets={PREFIX6: None}))
        self.assert_burst_is_read(conf, peer, ACTIVE6, INACTIVE6, "raw6")

    def test_damaged_answers_are_no_lost_ones(self):
        peer = self.lab.uplink("gi1_1", address6=f"{ROUTER6}/64", gateway6=GATEWAY6)
        self.lab.router.ip(f"neigh replace {GATEWAY6} lladdr {FAR_MAC} dev gi1_1 nud permanent")
        conf = (Conf().interface("gi1_1", nexthop=GATEWAY6, source=ROUTER6, ipv6=True,
                                 probes=[ping("2001:db8:1::1", 1000)])
                .rule("1_ipv6", interfaces6={"gi1_1": 1}, targets={PREFIX6: None}))

        def answer(request, _number):
            peer.send(damaged(packets.echo(request.reply(), peer.mac, request.sender_mac)))
            return []
        peer.echo = answer
        self.lab.start(conf)
        expect(lambda: self.lab.log.count(INACTIVE6) == 1)
        expect(lambda: self.drops("raw6") > 0)
        self.lab.cycles.pass_by(2)
        self.assertFalse([text for text in self.lab.log.texts() if "dropped unread" in text])


if __name__ == "__main__":
    main()

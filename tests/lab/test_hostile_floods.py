"""More frames than anybody needs (the stage: hostile_scene.py)."""
import os

from fault_scene import dual_stack
from hostile_scene import HostileTest
from kit import expect, main, ping_ext
from scenes import TARGET

SENDERS = 16000
PARTS = 4
ECHOES = 16000
UNASKED = 80_000  # at 16,000 a second at most: 8,000 of each family, which the room holds for two seconds
UNASKED_SENDER = """
import socket, sys, time
link = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
link.bind((sys.argv[1], 0))
frames = [bytes.fromhex(text) for text in sys.argv[3:]]
for number in range(int(sys.argv[2])):
    link.send(frames[number % len(frames)])
    if number % 16 == 15:
        time.sleep(0.001)
"""
PACKET_IDS = 32767  # identifiers of probes run below


class UnknownSenders(HostileTest):
    def processor_time_s(self):
        """Of all the daemon's threads, to the nanosecond."""
        total_ns = 0
        for thread in os.listdir(f"/proc/{self.daemon.pid}/task"):
            with open(f"/proc/{self.daemon.pid}/task/{thread}/schedstat", encoding="ascii") as file:
                total_ns += int(file.read().split()[0])
        return total_ns / 1e9

    def costs_s(self, frames):
        """The daemon's processor time for each part of these."""
        size = len(frames) // PARTS
        costs = []
        for i in range(PARTS):
            before = self.processor_time_s()
            self.pour(frames[i * size:(i + 1) * size])
            costs.append(self.processor_time_s() - before)
        return costs

    def assert_no_growth(self, costs_s):
        """The last frames cost about what the first did; a cycle of the workers may fall into either."""
        self.assertLess(costs_s[-1], 2 * costs_s[0] + 0.05, costs_s)

    def test_arp_replies_of_strangers_cost_no_more_the_more_there_are(self):
        frames = [self.arp_reply(f"10.{n >> 16}.{n >> 8 & 255}.{n & 255}", self.random.randbytes(6))
                  for n in range(SENDERS)]
        self.assert_no_growth(self.costs_s(frames))
        self.assert_unimpressed()

    def test_advertisements_of_strangers_cost_no_more_the_more_there_are(self):
        frames = [self.advertisement(f"2001:db8::bad:{n:x}", self.random.randbytes(6))
                  for n in range(SENDERS)]
        self.assert_no_growth(self.costs_s(frames))
        self.assert_unimpressed()


class TalkativeNextHop(HostileTest):
    def test_answers_of_the_next_hop_by_the_thousand_cost_no_verdict(self):
        """Each is written into the kernel's tables."""
        answers = (self.arp_reply(), self.advertisement())
        self.pour(answers[number % 2] for number in range(SENDERS))
        self.assert_unimpressed()


class Echoes(HostileTest):
    def test_random_words_for_identifiers_answer_no_probe(self):
        self.pour(self.echo_reply(self.random.randrange(1 << 32), ipv6=number % 2 == 1)
                  for number in range(ECHOES))
        self.assert_unimpressed()

    def test_guessed_identifiers_harm_no_probe_that_is_answered(self):
        """A guess that hits answers a probe: the identifier is all that a reply is known by."""
        self.pour(self.echo_reply(self.random.randrange(PACKET_IDS), ipv6=number % 2 == 1)
                  for number in range(ECHOES))
        expect(lambda: self.alive.cycles() > self.calm + 3)
        self.assert_first_was_right_throughout()
        self.alive.assert_pace_kept(self.calm)

    def test_replies_with_ip_options_answer_no_probe(self):
        self.pour(self.echo_reply(self.random.randrange(1 << 32), ip_options=self.options())
                  for _ in range(ECHOES))
        self.assert_unimpressed()

    def options(self):
        """Options that the kernel takes: none, padding, or a record of the route (RFC 791, 3.1)."""
        slots = self.random.randint(1, 9)
        record = bytes((7, 3 + 4 * slots, 4)) + bytes(4 * slots)
        return self.random.choice((b"\x01" * 4 * slots, b"\0" * 4 * slots, record + b"\0"))


    def test_flood_that_waits_for_nobody_costs_no_verdict(self):
        """By numbers that no probe has yet. A process of its own sends them: the honest far end goes on answering."""
        frames = [self.echo_reply(PACKET_IDS - number, ipv6=number % 2 == 1) for number in range(64)]
        self.peer.namespace.run("/usr/bin/python3", "-c", UNASKED_SENDER, self.peer.interface, str(UNASKED),
                                *(frame.hex() for frame in frames))
        expect(lambda: self.alive.cycles() > self.calm + 3)
        self.assert_verdicts_were_right_throughout()
        self.alive.assert_pace_kept(self.calm)
        self.assertFalse([text for text in self.lab.log.texts() if "dropped unread" in text])


class ExtendedPing(HostileTest):
    conf = dual_stack(resp_time=2500, first_probe=ping_ext(TARGET, period=0, count=20, timeout=2500,
                                                           loss=5, rtt=2500, jitter=2500))

    def test_waits_for_its_own_answers_among_all_others(self):
        self.pour(self.echo_reply(self.random.randrange(PACKET_IDS)) for _ in range(ECHOES))
        expect(lambda: self.alive.cycles() > self.calm + 3)
        self.assert_first_was_right_throughout()
        self.alive.assert_pace_kept(self.calm)


if __name__ == "__main__":
    main()

"""Frames that nobody should send (the stage: hostile_scene.py)."""
import json
import struct

from hostile_scene import HostileTest
from kit import main
from kit import packets

MUTANTS = 6000
GARBAGE = 3000
ETHERNET_HEADER = 14
LARGEST_MTU = 65535


def with_ip_sum(frame):
    """The frame with the right sum in its IPv4 header, so that the kernel hands it on."""
    header = frame[14:24] + b"\0\0" + frame[26:34]
    return frame[:24] + struct.pack("!H", packets.checksum(header)) + frame[34:]


def with_icmpv6_sum(frame):
    """The same for ICMPv6."""
    message = frame[54:56] + b"\0\0" + frame[58:]
    pseudo = frame[22:54] + struct.pack("!I3xB", len(message), packets.ICMPV6)
    return frame[:56] + struct.pack("!H", packets.checksum(pseudo + message)) + frame[58:]


class Frames(HostileTest):
    def keep_mac(self, frame):
        """With the next hop's true hardware address: another one would be a change, not garbage."""
        for ethertype, place in ((packets.ARP, 22), (packets.IPV6, 80)):
            if frame[12:14] == struct.pack("!H", ethertype) and len(frame) >= place + 6:
                return frame[:place] + self.peer.mac + frame[place + 6:]
        return frame

    def mutant(self, frame):
        """Some bytes changed, maybe cut or lengthened; the sums are right every other time."""
        data = bytearray(frame)
        for _ in range(self.random.randint(1, 8)):
            data[self.random.randrange(ETHERNET_HEADER, len(data))] = self.random.randrange(256)
        if self.random.random() < 0.2:
            del data[self.random.randrange(ETHERNET_HEADER, len(data)):]
        if self.random.random() < 0.2:
            data += self.random.randbytes(self.random.randint(1, 1400))
        changed = self.keep_mac(bytes(data))
        if self.random.random() < 0.5 or len(changed) < 58:
            return changed
        return with_icmpv6_sum(changed) if changed[12:14] == b"\x86\xdd" else changed

    def garbage(self):
        ethertype = self.random.choice((packets.ARP, packets.IPV4, packets.IPV6,
                                        self.random.randrange(0x10000)))
        return packets.ethernet(self.router_mac, self.peer.mac, ethertype,
                                self.random.randbytes(self.random.randrange(1500)))

    def test_mutated_frames_change_no_verdict(self):
        honest = self.honest_frames()
        mutants = [self.mutant(self.random.choice(honest)) for _ in range(MUTANTS)]
        self.pour(with_ip_sum(frame) if frame[12:14] == b"\x08\0" and len(frame) >= 34 else frame
                  for frame in mutants)
        self.assert_unimpressed()

    def test_frames_cut_at_every_length_change_no_verdict(self):
        self.pour(self.keep_mac(frame[:length]) for frame in self.honest_frames()
                  for length in range(ETHERNET_HEADER, len(frame)))
        self.assert_unimpressed()

    def test_garbage_changes_no_verdict(self):
        self.pour(self.garbage() for _ in range(GARBAGE))
        self.assert_unimpressed()

    def test_oversized_frames_change_no_verdict(self):
        self.lab.router.ip(f"link set gi1_1 mtu {LARGEST_MTU}")
        self.peer.namespace.ip(f"link set {self.peer.interface} mtu {LARGEST_MTU}")
        longest = LARGEST_MTU + ETHERNET_HEADER
        frames = [frame.ljust(size, b"\xff") for frame in self.honest_frames()
                  for size in (1514, 1515, 9014, longest - 1, longest)]
        frames += [self.echo_reply(1, ipv6, payload=b"\0\0\0\1".ljust(size, b"\xff"))
                   for ipv6 in (False, True) for size in (1500, 9000, 65480)]
        before = self.received_bytes()
        self.pour(frames * 20)
        self.assertGreater(self.received_bytes() - before, 20 * sum(map(len, frames)) // 2)
        self.assert_unimpressed()

    def received_bytes(self):
        shown = json.loads(self.lab.router.ip("-stats -json link show gi1_1"))
        return shown[0]["stats64"]["rx"]["bytes"]


if __name__ == "__main__":
    main()

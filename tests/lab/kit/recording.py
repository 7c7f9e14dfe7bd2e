"""Frames seen on a link, kept for tests, for scapy and for a pcap file."""
import dataclasses
import socket
import struct
import threading
import time

from . import packets

ALL_FRAMES = 0x0003
SO_RCVBUFFORCE = 33
ROOM = 8 << 20
LONGEST_FRAME = 65535


@dataclasses.dataclass(frozen=True)
class Frame:
    time_s: float  # monotonic clock
    data: bytes
    sent: bool = False  # by the one who records

    @property
    def message(self):
        return packets.parse(self.data)

    def decoded(self):
        """The frame in scapy's view (loaded late: it is slow to come up)."""
        from scapy.layers import inet, l2  # noqa: F401  pylint: disable=all
        return l2.Ether(self.data)


class Recording:
    """A growing list of frames. Any thread may add or read."""

    def __init__(self):
        self._frames = []
        self._lock = threading.Lock()
        self._wall_offset_s = time.time() - time.monotonic()

    def add(self, data, sent=False):
        frame = Frame(time.monotonic(), bytes(data), sent)
        with self._lock:
            self._frames.append(frame)
        return frame

    def frames(self, sent=False):
        with self._lock:
            return [frame for frame in self._frames if frame.sent == sent]

    def save(self, path):
        """Writes a pcap file (link type Ethernet)."""
        with self._lock, open(path, "wb") as file:
            file.write(struct.pack("!IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, LONGEST_FRAME, 1))
            for frame in self._frames:
                wall_s = frame.time_s + self._wall_offset_s
                file.write(struct.pack("!IIII", int(wall_s), int(wall_s % 1 * 1e6),
                                       len(frame.data), len(frame.data)) + frame.data)


def packet_socket(namespace, interface):
    """A socket that sees every frame of an interface, closed by the caller."""
    link = namespace.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
    # The probes of a whole pass may wait here until a thread comes to read them.
    link.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, ROOM)
    with namespace.inside():
        link.bind((interface, ALL_FRAMES))
    return link

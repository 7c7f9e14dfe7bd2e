"""The scripted far end of one uplink, a thread on a packet socket."""
import heapq
import itertools
import os
import select
import threading
import time

from . import echo_policies, packets
from .recording import LONGEST_FRAME, Recording, packet_socket


class Peer:
    """Answers ARP and neighbour solicitations for `addresses` and every echo by its policy.

    Like a network card it takes nothing that is meant for another's hardware address, but records it.
    Tests change the fields below while the thread runs; each takes effect with the next frame.
    """

    def __init__(self, namespace, interface, mac, addresses):
        self.namespace = namespace
        self.interface = interface
        self.mac = packets.mac_bytes(mac)
        self.addresses = set(addresses)
        self.echo = echo_policies.answer
        self.arp_silent = False
        self.arp_answers_from = 1  # the first request that gets an answer
        self.arp_delay_s = 0.0  # between a request, or a solicitation, and its answer
        self.recording = Recording()
        self._arp_seen = 0
        self._echo_seen = 0
        self._failure = None  # why the thread has ended by itself
        self._due = []
        self._order = itertools.count()
        self._link = packet_socket(namespace, interface)
        self._wake_read, self._wake_write = os.pipe2(os.O_CLOEXEC)
        self._thread = threading.Thread(target=self._run, name=f"peer {interface}", daemon=True)
        self._thread.start()

    # What was seen.

    def frames(self):
        return self.recording.frames()

    def seen(self, kind):
        """(frame, message) of every frame that came in and is of this kind of message."""
        pairs = ((frame, frame.message) for frame in self.frames())
        return [(frame, message) for frame, message in pairs if isinstance(message, kind)]

    def arp_requests(self, target=None):
        return [frame for frame, message in self.seen(packets.ArpRequest)
                if message.operation == 1 and target in (None, message.target)]

    def echo_requests(self, target=None):
        """The echo requests that came in, as messages."""
        return [message for _, message in self.seen(packets.Echo)
                if message.request and target in (None, message.destination)]

    def echo_frames(self, target=None):
        return [frame for frame, message in self.seen(packets.Echo)
                if message.request and target in (None, message.destination)]

    # What is done.

    def send(self, data):
        """Sends a frame; a link that is down loses it, as a cable would."""
        try:
            self._link.send(data)
            self.recording.add(data, sent=True)
        except OSError:
            pass

    def link(self, state):
        """Takes the far end "up" or "down": the router's end has or loses its carrier."""
        self.namespace.ip(f"link set {self.interface} {state}")

    def close(self):
        """Ends it; fails where it had ended before, which tests would take for silence."""
        os.write(self._wake_write, b"x")
        self._thread.join()
        self._link.close()
        os.close(self._wake_read)
        os.close(self._wake_write)
        if self._failure is not None:
            raise AssertionError(f"the far end of {self.interface} fell over a frame") from self._failure

    def _run(self):
        try:
            self._serve()
        except Exception as failure:  # pylint: disable=broad-except
            self._failure = failure

    def _serve(self):
        while True:
            ready, _, _ = select.select([self._link, self._wake_read], [], [], self._patience())
            if self._wake_read in ready:
                return
            if self._link in ready:
                self._receive()
            self._send_due()

    def _patience(self):
        return max(0.0, self._due[0][0] - time.monotonic()) if self._due else None

    def _send_due(self):
        while self._due and self._due[0][0] <= time.monotonic():
            self.send(heapq.heappop(self._due)[2])

    def _receive(self):
        try:
            data, address = self._link.recvfrom(LONGEST_FRAME)
        except OSError:  # the link went down
            return
        outgoing = 4
        if address[2] == outgoing:
            return
        message = self.recording.add(data).message
        if data[:6] != self.mac and not data[0] & packets.GROUP_BIT:
            return
        if isinstance(message, packets.ArpRequest) and message.operation == 1:
            self._answer_arp(message)
        elif isinstance(message, packets.Solicitation):
            self._answer_solicitation(message)
        elif isinstance(message, packets.Echo) and message.request:
            self._answer_echo(message)

    def _answer_arp(self, request):
        if request.target not in self.addresses:
            return
        self._arp_seen += 1
        if not self.arp_silent and self._arp_seen >= self.arp_answers_from:
            self._send_after(self.arp_delay_s, packets.arp(2, self.mac, request.target,
                                                           request.sender_mac, request.sender))

    def _answer_solicitation(self, request):
        if request.target in self.addresses and not self.arp_silent:
            self._send_after(self.arp_delay_s, packets.advertisement(
                self.mac, request.target, request.sender_mac, request.sender))

    def _answer_echo(self, request):
        self._echo_seen += 1
        for delay_s, reply in self.echo(request, self._echo_seen):
            self._send_after(delay_s, packets.echo(reply, self.mac, request.sender_mac))

    def _send_after(self, delay_s, frame):
        """For the serving thread only."""
        heapq.heappush(self._due, (time.monotonic() + delay_s, next(self._order), frame))

"""The client's traffic and the service that answers it; also a program for both ends.

A request is one datagram from a port, hence a flow, of its own: it takes the uplink that the route gives it now. A connection
is one TCP flow that lives as long as the network lets it. The answer to both is the source address that the far host saw,
which tells the uplink.

    python3 traffic.py serve ADDRESS...         answer on these addresses; one line on stdout when ready
    python3 traffic.py ask ADDRESS...           ask each of them 20 times a second; one line per request on stdout:
                                                time sent (seconds, monotonic), address asked, address seen or "lost"
    python3 traffic.py keep NUMBER ADDRESS...   keep so many connections to each of them, and say something on each five
                                                times a second; one line on stdout when one opens or breaks: time, address
                                                asked, "opened" or "broken", address seen
"""

import itertools
import selectors
import socket
import sys
import time

PORT = 4000
CLIENT_PORTS = range(10000, 60000)
INTERVAL_S = 0.05
PATIENCE_S = 1.0
WORDS_EVERY_S = 0.2
# A connection without an answer for so long is given up, as a person would.
CONNECTION_PATIENCE_S = 15.0


def _socket_for(address, kind=socket.SOCK_DGRAM):
    return socket.socket(socket.AF_INET6 if ":" in address else socket.AF_INET, kind)


def serve(addresses):
    ready = selectors.DefaultSelector()
    for address in addresses:
        service = _socket_for(address)
        service.bind((address, PORT))
        ready.register(service, selectors.EVENT_READ, _answer_request)
        listener = _socket_for(address, socket.SOCK_STREAM)
        listener.bind((address, PORT))
        listener.listen(64)
        ready.register(listener, selectors.EVENT_READ, lambda one: _accept(ready, one))
    print("ready", flush=True)
    while True:
        for key, _ in ready.select():
            if not key.data(key.fileobj):
                ready.unregister(key.fileobj)
                key.fileobj.close()


def _answer_request(service):
    _, peer = service.recvfrom(64)
    service.sendto(peer[0].encode(), peer)
    return True


def _accept(ready, listener):
    connection, peer = listener.accept()
    connection.setblocking(False)
    seen = f"{peer[0]}\n".encode()
    ready.register(connection, selectors.EVENT_READ, lambda one: _answer_words(one, seen))
    return True


def _answer_words(connection, seen):
    """False when the connection has ended."""
    try:
        return bool(connection.recv(64)) and bool(connection.send(seen))
    except OSError:
        return False


class Client:
    """Requests in flight, each on its own socket; ends them with an answer, a refusal or after PATIENCE_S."""

    def __init__(self, report):
        self.report = report
        self.ready = selectors.DefaultSelector()
        self.in_flight = {}
        # Ports in turn: a port chosen anew too early would meet the router's memory of the flow before it.
        self.ports = itertools.cycle(CLIENT_PORTS)

    def ask(self, address):
        sent_at = time.monotonic()
        flow = _socket_for(address)
        flow.setblocking(False)
        try:
            flow.bind(("", next(self.ports)))
            flow.connect((address, PORT))
            flow.send(b"?")
        except OSError:
            flow.close()
            self.report(sent_at, address, "lost")
            return
        self.ready.register(flow, selectors.EVENT_READ)
        self.in_flight[flow] = (sent_at, address)

    def collect(self, until):
        """Takes in answers until the given time; those that wait already also when it has passed."""
        while True:
            for key, _ in self.ready.select(max(0, until - time.monotonic())):
                self._end(key.fileobj, self._answer(key.fileobj))
            if (now := time.monotonic()) >= until:
                break
        for flow in [flow for flow, (sent_at, _) in self.in_flight.items() if sent_at < now - PATIENCE_S]:
            self._end(flow, "lost")

    @staticmethod
    def _answer(flow):
        try:
            return flow.recv(64).decode()
        except OSError:
            return "lost"

    def _end(self, flow, outcome):
        sent_at, address = self.in_flight.pop(flow)
        self.ready.unregister(flow)
        flow.close()
        self.report(sent_at, address, outcome)


def ask(addresses):
    client = Client(lambda sent_at, address, outcome: print(f"{sent_at:.3f} {address} {outcome}", flush=True))
    next_round = time.monotonic()
    while True:
        for address in addresses:
            client.ask(address)
        next_round = max(next_round + INTERVAL_S, time.monotonic())
        client.collect(until=next_round)


class Connection:
    """One lasting connection; opened anew when it breaks."""

    def __init__(self, address, report):
        self.address = address
        self._report = report
        self._socket = None
        self._seen = ""
        self._answered_at = 0.0

    def talk(self, now):
        """Says a word and takes in the answers to earlier ones."""
        if not self._socket:
            self._socket = _socket_for(self.address, socket.SOCK_STREAM)
            self._socket.setblocking(False)
            self._socket.connect_ex((self.address, PORT))
            self._answered_at = now
            return
        try:
            self._socket.send(b"?")
            while answer := self._socket.recv(4096):
                self._take(answer.decode().split("\n", 1)[0], now)
            self._end(now)
        except BlockingIOError:
            if now - self._answered_at > CONNECTION_PATIENCE_S:
                self._end(now)
        except OSError:
            self._end(now)

    def _take(self, seen, now):
        self._answered_at = now
        if not self._seen:
            self._seen = seen
            self._report(now, self.address, "opened", seen)

    def _end(self, now):
        self._socket.close()
        if self._seen:
            self._report(now, self.address, "broken", self._seen)
        self._socket, self._seen = None, ""


def keep(number, addresses):
    def report(*words):
        print(f"{words[0]:.3f}", *words[1:], flush=True)

    connections = [Connection(address, report) for address in addresses for _ in range(number)]
    while True:
        now = time.monotonic()
        for connection in connections:
            connection.talk(now)
        time.sleep(max(0.0, now + WORDS_EVERY_S - time.monotonic()))


if __name__ == "__main__":
    if len(sys.argv) < 3 or sys.argv[1] not in ("serve", "ask", "keep"):
        sys.exit(__doc__)
    try:
        if sys.argv[1] == "keep":
            keep(int(sys.argv[2]), sys.argv[3:])
        {"serve": serve, "ask": ask}[sys.argv[1]](sys.argv[2:])
    except KeyboardInterrupt:
        pass

"""The client's traffic and the service that answers it; also a program for both ends.

A request is one datagram from a port, hence a flow, of its own: it takes the uplink that the route gives it now. The
answer is the source address that the far host saw, which tells the uplink.

    python3 traffic.py serve ADDRESS...         answer on these addresses; one line on stdout when ready
    python3 traffic.py ask ADDRESS...           ask each of them 20 times a second; one line per request on stdout:
                                                time sent (seconds, monotonic), address asked, address seen or "lost"
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


def _socket_for(address):
    return socket.socket(socket.AF_INET6 if ":" in address else socket.AF_INET, socket.SOCK_DGRAM)


def serve(addresses):
    ready = selectors.DefaultSelector()
    for address in addresses:
        service = _socket_for(address)
        service.bind((address, PORT))
        ready.register(service, selectors.EVENT_READ)
    print("ready", flush=True)
    while True:
        for key, _ in ready.select():
            _, peer = key.fileobj.recvfrom(64)
            key.fileobj.sendto(peer[0].encode(), peer)


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


if __name__ == "__main__":
    if len(sys.argv) < 3 or sys.argv[1] not in ("serve", "ask"):
        sys.exit(__doc__)
    try:
        {"serve": serve, "ask": ask}[sys.argv[1]](sys.argv[2:])
    except KeyboardInterrupt:
        pass

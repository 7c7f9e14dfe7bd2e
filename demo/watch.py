"""Observes the lab and prints what changes: log, fragment, kernel routes, traffic. One thread, called by the story."""

import collections
import json
import math
import os
import pathlib
import re
import socket
import subprocess
import sys
import time

import network
import router

COLOURS = {"step": "1", "up": "32", "down": "31", "fragment": "33", "kernel": "36", "traffic": "2"}
POLL_S = 0.05
TRAFFIC_LINE_EVERY_S = 2.0
INTERFACE_OF = {"gigabitethernet 1/0/1": "gi1_1", "gigabitethernet 1/0/2": "gi1_2"}
STATE_CHANGE = re.compile(r"IP(v6)? interface (.+) changed state to (active|inactive)")

Request = collections.namedtuple("Request", "sent_at service outcome")
# A lasting connection that "opened" or has "broken", and the provider that carried it.
ConnectionEvent = collections.namedtuple("ConnectionEvent", "at service what provider")
CONNECTIONS = 12  # to each of their services


class Timeline:
    """Prints one line per event, with the seconds since the start."""

    def __init__(self):
        self._start = time.monotonic()

    def say(self, kind, text, look=None):
        seconds = f"[{time.monotonic() - self._start:5.1f} s]"
        label = f"{kind:<9}"
        for number, line in enumerate(text.splitlines()):
            head = f"{seconds} {label}" if number == 0 else " " * (len(seconds) + 1 + len(label))
            colour = COLOURS.get(look or kind)
            if colour and sys.stdout.isatty():
                line = f"\033[{colour}m{line}\033[0m"
            print(f"{head} {line}", flush=True)


class SystemLog:
    """The lab's own /dev/log; keeps every message, in /run/demo/log as well."""

    def __init__(self):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind("/dev/log")
        self._socket.setblocking(False)
        self._file = open(router.LAB_DIR / "log", "a", encoding="utf-8", buffering=1)
        self.last_lines = collections.deque(maxlen=15)

    def new_messages(self):
        while True:
            try:
                datagram = self._socket.recv(8192)
            except BlockingIOError:
                return
            # "<priority>month day time program[pid]: text"
            line = re.sub(r"^<\d+>", "", datagram.decode(errors="replace").rstrip("\n\0"))
            self._file.write(line + "\n")
            self.last_lines.append(line)
            yield re.sub(r"^\w+ +\d+ [\d:]+ ", "", line)


class RouteMonitor:
    """Tells whether the kernel has announced a change of the router's routes since it was last asked."""

    def __init__(self):
        self._announcements = network.start("router", "ip", "monitor", "route", stdout=subprocess.PIPE).stdout
        os.set_blocking(self._announcements.fileno(), False)

    def changed(self):
        return bool(self._announcements.read())


class Lines:
    """What a program in the lab prints, whole lines only."""

    def __init__(self, namespace, *command):
        self._program = network.start(namespace, *command, stdout=subprocess.PIPE)
        self._rest = b""
        os.set_blocking(self._program.stdout.fileno(), False)

    def new(self):
        """The words of each line that has come."""
        self._rest += self._program.stdout.read() or b""
        *lines, self._rest = self._rest.split(b"\n")
        return [line.decode().split() for line in lines]

    def stop(self):
        self._program.kill()
        self._program.wait()


class Traffic:
    """The client's requests, as they end, and its lasting connections, as they open and break."""

    def __init__(self):
        program = str(pathlib.Path(__file__).with_name("traffic.py"))
        services = (network.WEIGHTED_SERVICE, network.FAILOVER_SERVICE, network.SERVICE6)
        server = network.start("far", sys.executable, program, "serve", *services, stdout=subprocess.PIPE)
        if not server.stdout.readline():
            raise RuntimeError("the far host's services did not start")
        self._requests = Lines("client", sys.executable, program, "ask", *services)
        self._connections = Lines("client", sys.executable, program, "keep", str(CONNECTIONS),
                                  network.WEIGHTED_SERVICE, network.SERVICE6)

    def ended_requests(self):
        for sent_at, service, outcome in self._requests.new():
            yield Request(float(sent_at), service, network.PROVIDER_OF.get(outcome, outcome))

    def connection_events(self):
        for at, service, what, seen in self._connections.new():
            yield ConnectionEvent(float(at), service, what, network.PROVIDER_OF.get(seen, seen))

    def stop(self):
        self._requests.stop()
        self._connections.stop()


class Watch:
    """The lab's state as seen from outside, with the moment of each change."""

    def __init__(self, timeline, the_router):
        self._timeline = timeline
        self._router = the_router
        self.log = SystemLog()
        self.traffic = None
        self.requests = []
        self.connection_events = []
        self.active = {(family, interface): False for family in router.FAMILIES for interface in network.UPLINKS}
        self.routes = {}
        self._route_monitor = RouteMonitor()
        self._fragments = {}
        self._shown_requests = 0
        self._next_traffic_line = 0.0

    def until(self, condition, within_s, what):
        """Watches until the condition holds; returns the moment when it was seen."""
        deadline = time.monotonic() + within_s
        while not condition():
            if time.monotonic() > deadline:
                raise RuntimeError(f"{what}: not seen within {within_s} s")
            self._look()
            time.sleep(POLL_S)
        return time.monotonic()

    def for_a_while(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self._look()
            time.sleep(POLL_S)

    def _look(self):
        self._router.require_alive()
        for message in self.log.new_messages():
            self._note(message)
        routes_changed = self._route_monitor.changed()
        for family in router.FAMILIES:
            self._look_at_fragment(family)
            if routes_changed:
                self._look_at_routes(family)
        if self.traffic:
            self.requests.extend(self.traffic.ended_requests())
            self.connection_events.extend(self.traffic.connection_events())
            self._show_traffic()

    def _note(self, message):
        look = None
        if change := STATE_CHANGE.search(message):
            family, state = router.IPV6 if change[1] else router.IPV4, change[3]
            self.active[family, INTERFACE_OF.get(change[2])] = state == "active"
            look = "up" if state == "active" else "down"
        self._timeline.say("log", message, look)

    def _look_at_fragment(self, family):
        if not family.fragment.exists():
            return
        text = family.fragment.read_text(encoding="ascii", errors="replace")
        # The daemon rewrites the file in place: a half-written one is looked at again.
        if text == self._fragments.get(family, "") or not text.endswith("};\n"):
            return
        self._fragments[family] = text
        routes = [line for line in text.splitlines() if line.startswith("route ")]
        self._timeline.say("fragment", "\n".join(routes) or f"(no {family.name} route)")

    def _look_at_routes(self, family):
        listing = json.loads(network.ip("router", family.ip_option, "-j", "route", "show", "proto",
                                        self._router.route_protocol) or "[]")
        routes = {route["dst"]: _hops(route) for route in listing}
        if routes == self.routes.get(family, {}):
            return
        self.routes[family] = routes
        shown = [f"{family.name} {destination} -> {_hops_text(hops)}" for destination, hops in routes.items()]
        self._timeline.say("kernel", "\n".join(shown) or f"(no {family.name} route)")

    def show_interfaces(self):
        self._timeline.say("lbshow", self._router.interfaces())

    def default_route(self, family):
        """The providers of the family's default route."""
        return {provider for provider, _ in self.routes.get(family, {}).get("default", [])}

    def lasting(self):
        """{(service, provider): connections that live now}."""
        living = collections.Counter()
        for event in self.connection_events:
            living[event.service, event.provider] += 1 if event.what == "opened" else -1
        return living

    def _show_traffic(self):
        if time.monotonic() < self._next_traffic_line:
            return
        self._next_traffic_line = time.monotonic() + TRAFFIC_LINE_EVERY_S
        ended = self.requests[self._shown_requests :]
        self._shown_requests = len(self.requests)
        if ended:
            shares = (
                f"{name} {shares_text(ended, service)}"
                for name, service in (
                    ("weighted:", network.WEIGHTED_SERVICE),
                    ("failover:", network.FAILOVER_SERVICE),
                    ("IPv6:", network.SERVICE6),
                )
            )
            self._timeline.say("traffic", "   ".join(f"{share:<35}" for share in shares).rstrip())


def _hops(route):
    """[(provider, weight)]; where a next hop stands in several places of a group, they count as one."""
    weights = collections.Counter()
    for hop in route.get("nexthops", [route]):
        weights[network.PROVIDER_OF.get(hop["gateway"], hop["gateway"])] += hop.get("weight", 1)
    divisor = math.gcd(*weights.values())
    return [(provider, weight // divisor) for provider, weight in weights.items()]


def _hops_text(hops):
    alone = len(hops) == 1
    return ", ".join(provider if alone else f"{provider} (weight {weight})" for provider, weight in hops)


def shares_text(requests, service):
    """For example "ISP 1 26, ISP 2 14"; what was lost comes last."""
    counts = collections.Counter(request.outcome for request in requests if request.service == service)
    return ", ".join(f"{outcome} {count}" for outcome, count in sorted(counts.items()))

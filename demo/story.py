"""What the lab lives through, act by act, and the summary of what was measured."""

import collections
import dataclasses
import time

import network
import router
import watch

PATIENCE_S = 20
PAUSE_S = 4
BOTH = {"ISP 1", "ISP 2"}
ONLY_SECOND = {"ISP 2"}
LASTING = {network.WEIGHTED_SERVICE: "IPv4", network.SERVICE6: "IPv6"}


@dataclasses.dataclass
class Act:
    title: str
    began_at: float
    verdict_s: float
    route_s: float
    living: collections.Counter  # lasting connections when it began, by (service, provider)
    ended_at: float


class Story:
    def __init__(self, timeline, the_watch):
        self._timeline = timeline
        self._watch = the_watch
        self._acts = []

    def tell(self):
        self._start_up()
        ipv4, both = (router.IPV4,), router.FAMILIES
        self._act("IPv4 outage behind the gateway of ISP 1", network.break_path_behind_isp1, ipv4, active=False)
        self._act("IPv4 through ISP 1 works again", network.mend_path_behind_isp1, ipv4, active=True)
        self._act("link to ISP 1 lost", network.cut_link_of_isp1, both, active=False)
        self._act("link to ISP 1 back", network.restore_link_of_isp1, both, active=True)
        self._watch.for_a_while(1.2)  # the last requests still in flight
        self._watch.traffic.stop()
        self._summary()

    def _start_up(self):
        self._timeline.say("step", "the daemons start")
        self._watch.until(lambda: all(self._watch.active.values()), PATIENCE_S, "all uplinks active")
        for family in router.FAMILIES:
            self._watch.until(
                lambda f=family: self._watch.default_route(f) == BOTH, PATIENCE_S, f"{family.name} default route over both"
            )
        self._timeline.say("step", "both uplinks carry traffic: the client starts, 20 requests a second to each service, and "
                           f"{watch.CONNECTIONS} lasting connections to two of them")
        self._watch.traffic = watch.Traffic()
        self._watch.until(lambda: self._watch.requests, PATIENCE_S, "the client's first answers")
        self._watch.until(self._all_connected, PATIENCE_S, "the client's lasting connections")
        self._watch.for_a_while(2 * PAUSE_S)

    def _all_connected(self):
        return sum(self._watch.lasting().values()) == len(LASTING) * watch.CONNECTIONS

    def _act(self, title, change, families, active):
        """Changes the network and measures how long verdict and kernel route of these families take to follow; the
        other family must not notice."""
        self._timeline.say("step", title)
        untouched = [family for family in router.FAMILIES if family not in families]
        before = {family: self._watch.routes.get(family) for family in untouched}
        living = self._watch.lasting()
        began_at = time.monotonic()
        change()
        providers = BOTH if active else ONLY_SECOND
        seen = {}

        def all_seen():
            if all(self._watch.active[family, "gi1_1"] == active for family in families):
                seen.setdefault("verdict", time.monotonic())
            if all(self._watch.default_route(family) == providers for family in families):
                seen.setdefault("route", time.monotonic())
            return len(seen) == 2

        self._watch.until(all_seen, PATIENCE_S, f"verdict and route after '{title}'")
        self._watch.show_interfaces()
        self._watch.for_a_while(PAUSE_S)
        self._watch.until(self._all_connected, PATIENCE_S, f"connections over what is left after '{title}'")
        for family in untouched:
            if self._watch.routes.get(family) != before[family] or not self._watch.active[family, "gi1_1"]:
                raise RuntimeError(f"{family.name} did not stay as it was during '{title}'")
        self._acts.append(
            Act(title, began_at, seen["verdict"] - began_at, seen["route"] - began_at, living, time.monotonic())
        )

    def _summary(self):
        services = (network.WEIGHTED_SERVICE, network.FAILOVER_SERVICE, network.SERVICE6)
        print()
        print(f"{'event':<40} {'verdict':>8} {'route':>8}   lost of asked (for)")
        print(f"{'':<40} {'after':>8} {'after':>8}   {'weighted':<18} {'failover':<18} IPv6")
        for act in self._acts:
            losses = " ".join(f"{self._losses(act, service):<18}" for service in services).rstrip()
            print(f"{act.title:<40} {act.verdict_s:>6.1f} s {act.route_s:>6.1f} s   {losses}")
        print(f"\n{'':<40} lasting connections broken, of those that lived")
        heads = [(service, provider) for service in LASTING for provider in sorted(BOTH)]
        print(f"{'':<40} " + " ".join(f"{LASTING[service] + ' over ' + provider:<16}" for service, provider in heads).rstrip())
        for act in self._acts:
            print(f"{act.title:<40} " + " ".join(f"{self._broken(act, *head):<16}" for head in heads).rstrip())
        lost = sum(request.outcome == "lost" for request in self._watch.requests)
        print(f"\n{lost} of {len(self._watch.requests)} requests lost in all.")

    def _losses(self, act, service):
        """For example "31 of 190 (4.6 s)": the time from the event to the last request that was lost."""
        asked = [
            request
            for request in self._watch.requests
            if request.service == service and act.began_at <= request.sent_at < act.ended_at
        ]
        lost = [request.sent_at for request in asked if request.outcome == "lost"]
        return f"{len(lost)} of {len(asked)}" + (f" ({max(lost) - act.began_at:.1f} s)" if lost else "")

    def _broken(self, act, service, provider):
        """For example "7 of 8": those that the event broke among those that it met."""
        broken = sum(
            event.what == "broken" and (event.service, event.provider) == (service, provider)
            and act.began_at <= event.at < act.ended_at
            for event in self._watch.connection_events
        )
        return f"{broken} of {act.living[service, provider]}"

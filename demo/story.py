"""What the lab lives through, act by act, and the summary of what was measured."""

import dataclasses
import time

import network
import router
import watch

PATIENCE_S = 20
PAUSE_S = 4
BOTH = {"ISP 1", "ISP 2"}
ONLY_SECOND = {"ISP 2"}


@dataclasses.dataclass
class Act:
    title: str
    began_at: float
    verdict_s: float
    route_s: float
    ended_at: float = 0.0


class Story:
    def __init__(self, timeline, the_watch):
        self._timeline = timeline
        self._watch = the_watch
        self._acts = []

    def tell(self):
        self._start_up()
        self._act(
            "outage behind the gateway of ISP 1 (its link stays up)",
            network.break_path_behind_isp1,
            active=False,
            providers=ONLY_SECOND,
        )
        self._act("the path through ISP 1 works again", network.mend_path_behind_isp1, active=True, providers=BOTH)
        self._act("link to ISP 1 lost", network.cut_link_of_isp1, active=False, providers=ONLY_SECOND)
        self._act("link to ISP 1 back", network.restore_link_of_isp1, active=True, providers=BOTH)
        self._watch.for_a_while(1.2)  # the last requests still in flight
        self._watch.traffic.stop()
        self._summary()

    def _start_up(self):
        self._timeline.say("step", "the daemons start")
        for interface, provider in network.UPLINKS.items():
            self._watch.until(lambda i=interface: self._watch.active[i], PATIENCE_S, f"{provider} active")
        self._await_default(BOTH)
        self._timeline.say("step", "both uplinks carry traffic: the client starts, 20 requests a second to each service")
        self._watch.traffic = watch.Traffic()
        self._watch.until(lambda: self._watch.requests, PATIENCE_S, "the client's first answers")
        self._watch.for_a_while(2 * PAUSE_S)

    def _act(self, title, change, active, providers):
        """Changes the network and measures how long the verdict and the kernel's route take to follow."""
        self._timeline.say("step", title)
        began_at = time.monotonic()
        change()
        seen = {}

        def both_seen():
            if self._watch.active["gi1_1"] == active:
                seen.setdefault("verdict", time.monotonic())
            if self._watch.default_route(router.IPV4) == providers:
                seen.setdefault("route", time.monotonic())
            return len(seen) == 2

        self._watch.until(both_seen, PATIENCE_S, f"verdict and route after '{title}'")
        self._watch.for_a_while(PAUSE_S)
        self._acts.append(
            Act(title, began_at, seen["verdict"] - began_at, seen["route"] - began_at, time.monotonic())
        )

    def _await_default(self, providers):
        self._watch.until(
            lambda: self._watch.default_route(router.IPV4) == providers, PATIENCE_S, f"default route over {providers}"
        )

    def _summary(self):
        print()
        print(f"{'event':<56} {'verdict':>8} {'route':>8}   lost of asked (for)")
        print(f"{'':<56} {'after':>8} {'after':>8}   {'weighted':<20} failover")
        for act in self._acts:
            weighted, failover = (
                self._losses(act, service) for service in (network.WEIGHTED_SERVICE, network.FAILOVER_SERVICE)
            )
            print(f"{act.title:<56} {act.verdict_s:>6.1f} s {act.route_s:>6.1f} s   {weighted:<20} {failover}")
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

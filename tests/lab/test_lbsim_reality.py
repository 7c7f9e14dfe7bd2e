"""lbsim against reality: the same scenes on the real daemon in real time, and on the simulated network.

Each scene has a namespace of the router of its own, so that they all happen at once, in one daemon and in one simulation:

    router, namespace s01                  far
      gi1_1 10.1.1.10/24 ------------------ scripted peer 10.1.1.1, which answers for the targets
      gi1_2 10.1.2.10/24 ------------------ scripted peer 10.1.2.1

The fragments of each namespace must be the same texts in the same order, each within 1.2 s.
"""
import json
import os
import subprocess
import threading
import time

from kit import Conf, LabTest, expect, main, ping, ping_ext
from kit import echo_policies as policy
from kit.routing_daemon import fragment_path, text_of

LBSIM = os.environ.get("LB_LBSIM", os.path.join(os.path.dirname(__file__), "../../build/lbsim"))
TOLERANCE_S = 1.2
END_S = 26
FIRST_S, SECOND_S = 8.5, 17.5  # between two cycles; a verdict either way takes less than the time between
RESP_TIME_MS = 1500  # with one second it is a matter of less than a millisecond in which cycle a probe is too old
# Longer than a pass over all uplinks may take on a busy machine: what is answered within its own pass is judged a cycle early.
EXTRA_MS = 390
ROUND_TRIP_S = 0.01 + EXTRA_MS / 1000  # the simulated one, and that
PREFIX = {False: "203.0.113.0/24", True: "2001:db8:ffff::/48"}


class Uplink:
    """One of a scene's uplinks, by its number in the whole test: names and addresses follow from it."""

    def __init__(self, scene, number, *, weight=1, targets=1, check_all=False, nexthop=None, burst=False):
        self.scene, self.number, self.weight, self.check_all, self.burst = scene, number, weight, check_all, burst
        self.name = f"gi1_{number}"
        ipv6 = scene.ipv6
        self.net = f"2001:db8:{number}::" if ipv6 else f"10.1.{number}."
        self.gateway = self.net + "1"
        self.nexthop = nexthop or self.gateway
        self.targets = [f"2001:db8:ffff:{number}::{one}" if ipv6 else f"203.0.113.{number * 3 + one}"
                        for one in range(1, targets + 1)]
        self.peer = None
        self.lost = set()  # targets that do not answer through it
        self.is_dead = False
        self.delay_s = ROUND_TRIP_S
        self.times = 1

    def answer(self, request, number):
        if self.is_dead or request.destination in self.lost:
            return []
        return policy.delayed(self.delay_s, policy.duplicated(self.times))(request, number)


class Scene:
    """A namespace with uplinks, and what happens to them: (second, line of the scenario, what does it in the lab)."""

    def __init__(self, name, ipv6=False, failover=False):
        self.name, self.ipv6, self.failover = name, ipv6, failover
        self.uplinks, self.events = [], []

    def at(self, second, line, act):
        self.events.append((second, line, act))

    def dead(self, second, uplink, state=True):
        self.at(second, f"{uplink.name} {'dead' if state else 'alive'}", lambda: setattr(uplink, "is_dead", state))

    def target_dead(self, second, uplink, target, state=True):
        act = uplink.lost.add if state else uplink.lost.discard
        self.at(second, f"{uplink.name} target {target} {'dead' if state else 'alive'}", lambda: act(target))


def scenes():  # pylint: disable=too-many-locals,too-many-statements
    numbers = iter(range(1, 100))
    made = []

    def scene(name, uplinks, **options):
        one = Scene(name, **options)
        one.uplinks = [Uplink(one, next(numbers), **fields) for fields in uplinks]
        made.append(one)
        return (one, *one.uplinks)

    one, first, second = scene("s01", [{"weight": 3}, {"weight": 1}])  # an outage and its end
    one.dead(FIRST_S, first)
    one.dead(SECOND_S, first, False)

    one, first, second = scene("s02", [{}, {}])  # both die, one returns
    one.dead(FIRST_S, first)
    one.dead(FIRST_S, second)
    one.dead(SECOND_S, second, False)

    one, first, second = scene("s03", [{"weight": 5}, {"weight": 2}], failover=True)  # main and backup
    one.dead(FIRST_S, first)
    one.dead(SECOND_S, first, False)

    one, first, second = scene("s04", [{"targets": 2}, {}])  # one of two targets, which is enough
    one.target_dead(FIRST_S, first, first.targets[0])
    one.target_dead(SECOND_S, first, first.targets[1])

    one, first, second = scene("s05", [{"targets": 2, "check_all": True}, {}])  # one of two targets, of which all count
    one.target_dead(FIRST_S, first, first.targets[0])
    one.target_dead(SECOND_S, first, first.targets[0], False)

    one, first, second = scene("s06", [{}, {}])  # the carrier goes and comes
    one.at(FIRST_S, f"{first.name} link down", lambda up=first: up.peer.link("down"))
    one.at(SECOND_S, f"{first.name} link up", lambda up=first: up.peer.link("up"))

    def silence(uplink, state):
        uplink.is_dead = uplink.peer.arp_silent = state
    one, first, second = scene("s07", [{}, {}])  # the next hop dies
    one.at(FIRST_S, f"{first.name} nexthop dead", lambda up=first: silence(up, True))
    one.at(SECOND_S, f"{first.name} nexthop alive", lambda up=first: silence(up, False))

    one, first, second = scene("s08", [{}, {}])  # answers come too late
    one.at(FIRST_S, f"{first.name} delay 3500ms", lambda up=first: setattr(up, "delay_s", 3.51))
    one.at(SECOND_S, f"{first.name} delay {EXTRA_MS}ms", lambda up=first: setattr(up, "delay_s", ROUND_TRIP_S))

    def lease(uplink, router):
        uplink.peer.addresses = {router}
        with open(f"/var/db/dhclient_{uplink.name}.leases", "w", encoding="utf-8") as file:
            file.write(f"lease {{\n  option routers {router};\n}}\n")
    one, first, second = scene("s09", [{"nexthop": "dhcp"}, {}])  # a lease that changes
    one.at(0, f"{first.name} lease {first.gateway}", lambda up=first: lease(up, up.gateway))
    one.at(FIRST_S, f"{first.name} lease {first.net}254", lambda up=first: lease(up, up.net + "254"))

    one, first, second = scene("s10", [{}, {}], ipv6=True)
    one.dead(FIRST_S, first)
    one.dead(SECOND_S, first, False)

    one, first, second = scene("s11", [{}, {}])  # too short for a verdict, then answers that come twice
    one.dead(FIRST_S, first)
    one.dead(FIRST_S + 1, first, False)
    one.at(SECOND_S, f"{second.name} duplicates 100%", lambda up=second: setattr(up, "times", 2))

    # An extended ping, every cycle from its period on. Alone: what another uplink is answered while the burst lasts depends
    # on which of them the daemon serves first, an accident of memory.
    one, first = scene("s12", [{"burst": True}])
    one.dead(FIRST_S + 3, first)
    one.dead(SECOND_S, first, False)
    return made


def configuration(all_scenes):
    conf = Conf()
    for number, scene in enumerate(all_scenes, 1):
        for uplink in scene.uplinks:
            probes = [ping(target, RESP_TIME_MS) for target in uplink.targets]
            if uplink.burst:
                probes = [ping_ext(uplink.targets[0], period=5, count=2, timeout=700, loss=60, rtt=650, jitter=400)]
            conf.interface(uplink.name, nexthop=uplink.nexthop, success=2, failure=2, namespace=scene.name,
                           check_all=uplink.check_all, probes=probes, ipv6=scene.ipv6,
                           source=uplink.net + "10" if scene.ipv6 else None)
        members = {uplink.name: uplink.weight for uplink in scene.uplinks}
        conf.rule(f"{number}_{'ipv6' if scene.ipv6 else 'ipv4'}", None if scene.ipv6 else members,
                  {PREFIX[scene.ipv6]: None}, interfaces6=members if scene.ipv6 else None,
                  namespace=scene.name, failover=scene.failover)
    return conf


class Fragments:
    """Watches the fragments: (second, text) of each new one, by namespace."""

    def __init__(self, all_scenes):
        self._scenes = all_scenes
        self._stop = threading.Event()
        self.seen = {scene.name: [] for scene in all_scenes}
        self._thread = threading.Thread(target=self._watch, daemon=True)
        self._thread.start()

    def _watch(self):
        while not self._stop.wait(0.02):
            for scene in self._scenes:
                text = text_of(fragment_path(scene.name, scene.ipv6))
                seen = self.seen[scene.name]
                # Written in place: what does not end like one is not whole yet.
                if text and text.endswith("};\n") and text != (seen[-1][1] if seen else None):
                    seen.append((time.monotonic(), text))

    def close(self):
        self._stop.set()
        self._thread.join()


def whole_fragment(routes, ipv6):
    return "protocol static {\n" + ("" if ipv6 else "check link 1;\n") + routes + "};\n"


class Reality(LabTest):
    def make_network(self, all_scenes):
        for scene in all_scenes:
            space = self.lab.namespace(scene.name)
            for uplink in scene.uplinks:
                addresses = ({"address6": uplink.net + "10/64", "gateway6": uplink.gateway} if scene.ipv6 else
                             {"address": uplink.net + "10/24", "gateway": uplink.gateway})
                uplink.peer = self.lab.uplink(uplink.name, namespace=space, **addresses)
                # As long as the simulated link takes: a daemon that is answered while it still sends is a cycle ahead.
                uplink.peer.arp_delay_s = 0.005
                uplink.peer.echo = uplink.answer

    def run_really(self, conf, all_scenes):
        """(second, text) of each fragment by namespace; the first cycle is second 0."""
        os.makedirs("/var/db", exist_ok=True)
        events = sorted(((second, act) for scene in all_scenes for second, _, act in scene.events),
                        key=lambda event: event[0])
        while events[0][0] == 0:
            events.pop(0)[1]()
        fragments = Fragments(all_scenes)
        self.lab.own(fragments.close)
        self.lab.start(conf)
        expect(lambda: len(self.lab.log.lines()) >= 2 * len(all_scenes), what="every worker has begun")
        begun = self.lab.log.lines()[0].time_s
        for second, act in events:
            # The very moment is the scene's own; nothing is waited for here.
            time.sleep(max(0.0, begun + second - time.monotonic()))
            act()
        time.sleep(max(0.0, begun + END_S - time.monotonic()))
        return {name: [(moment - begun, text) for moment, text in seen] for name, seen in fragments.seen.items()}

    def simulate(self, conf, all_scenes):
        conf_path, scenario_path = (os.path.join(self.folder, name) for name in ("lb.conf", "scenario"))
        with open(conf_path, "w", encoding="utf-8") as file:
            file.write(conf.text())
        with open(scenario_path, "w", encoding="utf-8") as file:
            file.writelines(f"0s {uplink.name} delay {EXTRA_MS}ms\n" for scene in all_scenes for uplink in scene.uplinks)
            file.writelines(f"{second}s {line}\n" for scene in all_scenes for second, line, _ in scene.events)
        answer = subprocess.run([LBSIM, "--json", "--for", f"{END_S}s", conf_path, scenario_path], check=True,
                                stdout=subprocess.PIPE, timeout=30)
        told = {scene.name: [] for scene in all_scenes}
        for event in json.loads(answer.stdout)["events"]:
            if event["event"] == "routes":
                told[event["namespace"]].append(
                    (event["t"], whole_fragment(event["text"], event["family"] == "ipv6")))
        return told

    def test_scenes_in_the_lab_and_in_virtual_time_write_the_same_fragments(self):
        all_scenes = scenes()
        conf = configuration(all_scenes)
        self.make_network(all_scenes)
        told = self.simulate(conf, all_scenes)
        seen = self.run_really(conf, all_scenes)
        self.assertGreaterEqual(sum(len(fragments) for fragments in told.values()), 30)
        for scene in all_scenes:
            with self.subTest(scene=scene.name):
                self.compare(told[scene.name], seen[scene.name])

    def compare(self, told, seen):
        shown = f"\ntold: {told}\nseen: {seen}"
        self.assertEqual([text for _, text in told], [text for _, text in seen], shown)
        for (told_s, text), (seen_s, _) in zip(told, seen):
            self.assertLess(abs(told_s - seen_s), TOLERANCE_S, text + shown)


if __name__ == "__main__":
    main()

"""What lbwatch told in a soak, held against the script and against itself. No system calls: times are of one clock."""
import collections


def per_uplink(events):
    """{(namespace, family, name): its events of kind "uplink"}"""
    found = collections.defaultdict(list)
    for one in events:
        if one["event"] == "uplink":
            found[one["namespace"], f"ipv{one['family']}", one["uplink"]].append(one)
    return found


def differences(name, told, wanted, keys=None):
    """Lines about lists of events that should be the same; sorted by all their `keys`, for hooks run side by side."""
    def counted(events):
        return collections.Counter(tuple(str(one[key]) for key in keys or sorted(one)) for one in events)
    told, wanted = counted(told), counted(wanted)
    return [f"{name} lacks {list(lost)} ({count} times)" for lost, count in (wanted - told).items()] + \
           [f"{name} has {list(more)} too much ({count} times)" for more, count in (told - wanted).items()]


def broken_chains(events):
    """Lines about changes that do not begin with the state that the one before ended with: one is lost or doubled."""
    states, lines = {}, []
    for one in events:
        place = tuple(str(one[key]) for key in ("event", "namespace", "family", "uplink", "target", "rule", "destinations"))
        if place in states and states[place] != one["from"]:
            lines.append(f"{one} follows {states[place]}")
        states[place] = one["to"]
    return lines


class Account:
    """Of one uplink: does what was told agree with the script?"""

    def __init__(self):
        self.stretches = self.outages = self.left_out = 0
        self.lines = []

    def judge(self, key, past, told, end, noticed_by, was_late):  # pylint: disable=too-many-arguments
        """`past` and `told` are [(time, works)]; noticed_by(time) is when a change of then is told at the latest, None
        where that is still to come; was_late(begin, end) is true where the far end answered late meanwhile."""
        for (begin, works), (until, _) in zip(past, past[1:] + [(end, None)]):
            noticed = noticed_by(begin)
            if noticed is None or noticed >= until:
                continue  # shorter than the daemon takes to see it
            if was_late(begin - 30, until):
                self.left_out += 1
                continue
            self.stretches += 1
            self.outages += not works
            before = [state for at, state in told if at <= noticed]
            if before[-1:] != [works]:
                self.lines.append(f"{key} is told as {before[-1:]} {noticed - begin:.1f} s after it became {works}")
            within = [(round(at - begin, 1), state) for at, state in told if noticed < at < until]
            if within:
                self.lines.append(f"{key}, {works} for {until - begin:.1f} s, changes to {within}")


def down_s(past, end):
    """Seconds that [(time, works)] spends not working, up to `end`."""
    return sum(until - begin for (begin, works), (until, _) in zip(past, past[1:] + [(end, None)]) if not works)

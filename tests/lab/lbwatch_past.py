"""A history of a made-up past, written through SQL into a file that lbwatch itself has begun."""
import datetime
import random
import sqlite3
import time

DAY_S = 86400


def begin_of(days):
    return int(time.time()) - days * DAY_S


def write_past(path, days=30, seed=7):
    """Three uplinks over so many days up to now: a good one, one of some outages, and one that is poor in the evening,
    measured by an extended ping; and half a day when nothing was watched. The outages written: {uplink: [(begin, end)]}."""
    dice = random.Random(seed)
    begin, now = begin_of(days), int(time.time())
    outages = {"eth0": [], "eth1": [], "eth2": []}
    for name, count, longest in (("eth0", 1, 300), ("eth1", 6, 5400), ("eth2", 14, 1500)):
        while len(outages[name]) < count:
            at = dice.randrange(begin + DAY_S, now - 2 * DAY_S)
            end = at + dice.randrange(40, longest)
            if all(end + 600 < first or last + 600 < at for first, last in outages[name]):
                outages[name].append((at, end))
        outages[name].sort()
    gap = (begin + 9 * DAY_S, begin + 9 * DAY_S + DAY_S // 2)
    for name in outages:
        outages[name] = [one for one in outages[name] if one[1] < gap[0] - 60 or one[0] > gap[1] + 60]
    with sqlite3.connect(path) as database:
        for number, (name, times) in enumerate(outages.items(), 1):
            target = f"198.51.100.{number}"
            uplink = database.execute("INSERT INTO uplink (namespace, family, name) VALUES ('', 4, ?)", (name,)).lastrowid
            row = database.execute("INSERT INTO target (uplink, address) VALUES (?, ?)", (uplink, target)).lastrowid
            _write_spans(database, uplink, times, gap, (begin, now), target)
            _write_minutes(database, row, number, times, gap, (begin, now), dice)
    return outages


def _write_spans(database, uplink, times, gap, period, target):
    edges = [(period[0], "active", "")]
    for first, last in times:
        edges += [(first, "failed", f"{target} no answer (3 in a row)"), (last, "active", "")]
    edges.append((period[1], None, ""))
    for (at, state, reason), (end, _, _) in zip(edges, edges[1:]):
        parts = [(at, end)]
        if at < gap[0] < end:
            parts = [(at, gap[0]), (gap[1], end)]
        for first, last in parts:
            database.execute("INSERT INTO span (uplink, state, begin_ms, end_ms, reason) VALUES (?, ?, ?, ?, ?)",
                             (uplink, state, first * 1000, last * 1000, reason))


def _write_minutes(database, row, number, times, gap, period, dice):
    rows = []
    for minute in range(period[0] // 60 + 1, period[1] // 60):
        at = minute * 60
        if gap[0] <= at < gap[1]:
            continue
        is_down = any(first <= at < last for first, last in times)
        is_evening = datetime.datetime.fromtimestamp(at).hour in (19, 20, 21, 22)
        missed = 60 if is_down else (dice.randrange(0, 9) if is_evening and number == 3 else dice.randrange(0, 40) // 39)
        measured = 60 if number == 3 and not is_down else 0
        rtt = (24 + dice.randrange(0, 5) + (38 + dice.randrange(0, 30) if is_evening else 0)) * measured
        loss = (missed * 100 // 60) * measured
        rows.append((minute, row, 60 - missed, missed, measured, loss, rtt, 6 * measured))
    database.executemany("INSERT INTO minute VALUES (?, ?, ?, ?, ?, ?, ?, ?)", rows)

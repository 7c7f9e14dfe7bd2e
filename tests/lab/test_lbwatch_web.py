"""What lbwatch serves: metrics, answers to programs, the stream of events, and nobody can hold it up."""
import http.client
import json
import mmap
import os
import re
import socket
import sqlite3
import struct
import time
import unittest

from kit import expect, main
from kit.daemon import preload
from kit.lab import OUTPUT_DIRECTORY
from kit.lbwatch import HISTORY, lbwatch
from lbwatch_scene import Scripted

ADDRESS = ("127.0.0.1", 9837)
LISTEN = ("--listen", "127.0.0.1:9837")


def get(path, method="GET"):
    """(status, headers, text)"""
    connection = http.client.HTTPConnection(*ADDRESS, timeout=15)
    try:
        connection.request(method, path)
        answer = connection.getresponse()
        return answer.status, dict(answer.getheaders()), answer.read().decode()
    finally:
        connection.close()


def send(data):
    """Everything that comes back for these bytes."""
    with socket.create_connection(ADDRESS, timeout=15) as connection:
        connection.sendall(data)
        connection.shutdown(socket.SHUT_WR)
        answer = b""
        try:
            while part := connection.recv(65536):
                answer += part
        except ConnectionResetError:
            pass
        return answer.decode("latin-1")


def metric(text, name, **labels):
    """The value of one sample, None where there is none."""
    for line in text.splitlines():
        found = re.match(r"([a-z_]+)(?:\{(.*)\})? (\S+)$", line)
        if found and found[1] == name:
            told = dict(re.findall(r'(\w+)="([^"]*)"', found[2] or ""))
            if all(told.get(key) == value for key, value in labels.items()):
                return float(found[3])
    return None


class Web(Scripted):
    def setUp(self):
        super().setUp()
        os.system("ip link set lo up")

    def settled(self, *arguments, **options):
        watch = super().settled(*LISTEN, "--hooks", "none", *arguments, **options)
        expect(lambda: [one["state"] for one in json.loads(get("/api/state")[2])["uplinks"]] == ["active", "active"])
        return watch

    def test_metrics_tell_states_transitions_and_probes(self):
        watch = self.settled()
        with self.daemon.lock:
            self.daemon.fail(self.two)
        watch.expect_state("eth1", "failed")
        expect(lambda: metric(get("/metrics")[2], "lb_uplink_state", uplink="eth1", state="failed") == 1)

        status, headers, text = get("/metrics")

        self.assertEqual((status, headers["Content-Type"]), (200, "text/plain; version=0.0.4; charset=utf-8"))
        self.assertEqual(metric(text, "lb_up"), 1)
        self.assertLess(metric(text, "lb_dump_age_seconds"), 3)
        self.assertEqual(metric(text, "lb_build_info", version="1.0.0"), 1)
        self.assertEqual(metric(text, "lb_uplink_state", uplink="eth0", family="ipv4", state="active"), 1)
        self.assertEqual(metric(text, "lb_uplink_routed", uplink="eth0"), 1)
        self.assertEqual(metric(text, "lb_uplink_routed", uplink="eth1"), 0)
        self.assertEqual(metric(text, "lb_uplink_transitions_total", uplink="eth1", to="failed"), 1)
        self.assertEqual(metric(text, "lb_rule_uplinks_active", rule="1_ipv4"), 1)
        missed = metric(text, "lb_probe_missed_total", uplink="eth1", target="198.51.100.1")
        self.assertGreaterEqual(missed, 1)
        expect(lambda: metric(get("/metrics")[2], "lb_probe_missed_total", uplink="eth1") > missed)
        expect(lambda: metric(get("/metrics")[2], "lb_uplink_down_seconds_total", uplink="eth1") > 1)
        # A daemon that is gone leaves nothing green.
        self.daemon.stop()
        expect(lambda: metric(get("/metrics")[2], "lb_up") == 0)
        self.assertEqual(metric(get("/metrics")[2], "lb_uplink_state", uplink="eth0", state="active"), 0)

    def test_api_tells_state_events_and_report(self):
        watch = self.settled()
        with self.daemon.lock:
            self.daemon.fail(self.two)
        watch.expect_state("eth1", "failed")

        state = expect(lambda: (told := json.loads(get("/api/state")[2]))
                       and told["uplinks"][1]["state"] == "failed" and told)
        self.assertEqual((state["daemon"], state["uplinks"][0]["uplink"]), ("running", "eth0"))
        self.assertEqual(state["rules"][0]["destinations"], {f"198.51.{i}.0/24": "eth0" for i in range(3)})
        self.assertEqual(json.loads(get("/api/events?since=1h")[2]), watch.events())
        only = json.loads(get("/api/events?since=1h&uplink=eth1")[2])
        self.assertEqual({one["uplink"] for one in only}, {"eth1"})
        report = json.loads(get("/api/report?since=1h")[2])
        self.assertEqual([one["uplink"] for one in report["uplinks"]], ["eth0", "eth1"])
        self.assertIn("text/csv", get("/api/report?format=csv")[1]["Content-Type"])
        self.assertEqual(get("/api/report?since=never")[0], 400)

    def test_of_very_many_events_the_latest_are_told(self):
        self.settled()
        minute_ago_ms = (int(time.time()) - 60) * 1000
        with sqlite3.connect(HISTORY) as database:
            database.executemany(
                "INSERT INTO event (time_ms, kind, namespace, family, name, target, rule, destinations, before, after, "
                "reason) VALUES (?, 'uplink', '', 4, 'eth1', '', '', '', 'active', 'failed', ?)",
                [(minute_ago_ms, str(number)) for number in range(5600)])
        database.close()

        told = json.loads(get("/api/events?since=1h")[2])

        self.assertEqual([one["reason"] for one in told], [str(number) for number in range(600, 5600)])

    def test_uplink_that_never_rests_has_a_page_of_less_time_and_a_report_that_is_bounded(self):
        self.settled()
        now_ms, length_ms = int(time.time() * 1000), 1440
        with sqlite3.connect(HISTORY) as database:
            uplink = database.execute("SELECT id FROM uplink WHERE name = 'eth1'").fetchone()[0]
            database.executemany(
                "INSERT INTO span (uplink, state, begin_ms, end_ms, reason) VALUES (?, ?, ?, ?, '')",
                [(uplink, ("active", "failed")[number % 2], now_ms - (60_000 - number) * length_ms,
                  now_ms - (59_999 - number) * length_ms) for number in range(60_000)])
        database.close()

        status, _, text = get("/api/report?since=1d")
        self.assertEqual((status, text), (400, "uplinks changed more than 50000 times then: ask for less time or one "
                                               "uplink, or here: lbwatch report\n"))
        report = json.loads(get("/api/report?since=10h")[2])
        self.assertAlmostEqual(report["uplinks"][1]["flaps"], 25_000, delta=10)
        page = get("/")[2]
        self.assertEqual(re.findall("the last ([^<]*)<", page), ["3 hours"])
        self.assertGreater(len(re.findall(r"<title>failed \d+ times, ", page)), 200)
        self.assertLess(len(page), 200_000)

    def more_of(self, stream):
        text = stream.recv(65536).decode()
        self.assertTrue(text, "the stream has ended")
        return text

    def test_stream_tells_events_as_they_come(self):
        watch = self.settled()
        with socket.create_connection(ADDRESS, timeout=15) as stream:
            stream.sendall(b"GET /events HTTP/1.1\r\nHost: 127.0.0.1:9837\r\n\r\n")
            received = stream.recv(65536).decode()
            self.assertIn("Content-Type: text/event-stream", received)
            with self.daemon.lock:
                self.daemon.fail(self.two)
            watch.expect_state("eth1", "failed")
            while '"to":"failed"' not in received or '"event":"routes"' not in received:
                received += self.more_of(stream)
            number = re.findall(r"^id: (\d+)$", received, re.MULTILINE)[0]
        # Who comes back is told what he missed.
        with socket.create_connection(ADDRESS, timeout=15) as stream:
            stream.sendall(f"GET /events HTTP/1.1\r\nLast-Event-ID: {number}\r\n\r\n".encode())
            again = ""
            while '"event":"routes"' not in again:
                again += self.more_of(stream)
        self.assertNotIn(f"id: {number}\n", again)

    def test_pages_name_uplinks_and_states(self):
        self.settled()
        status, headers, text = get("/")
        self.assertEqual(status, 200)
        self.assertIn("default-src 'none'", headers["Content-Security-Policy"])
        self.assertNotIn("Set-Cookie", headers)
        for part in ('data-uplink="eth0"', "2 of 2 uplinks active", 'class="state active"', 'class="band"'):
            self.assertIn(part, text)
        self.daemon.stop()
        expect(lambda: "The daemon is stopped: nothing is known" in get("/")[2])
        self.assertIn("0 of 2 uplinks active", get("/")[2])

    def test_nothing_but_reading_is_answered(self):
        self.settled()
        for method in ("POST", "PUT", "DELETE", "OPTIONS", "TRACE"):
            self.assertEqual(get("/", method)[0], 405, method)
        self.assertEqual(get("/", "HEAD")[::2], (200, ""))
        for path in ("/etc/passwd", "/../../etc/passwd", "/%2e%2e/%2e%2e/etc/passwd", "/history.db", "/api"):
            self.assertEqual(get(path)[0], 404, path)

    def test_bad_requests_are_refused_and_nothing_falls(self):
        watch = self.settled()
        for data in (b"\r\n\r\n", b"GET\r\n\r\n", b"GET / HTTP/9.9\r\n\r\n", b"GET  HTTP/1.1\r\n\r\n",
                     b"\x00\xff" * 500 + b"\r\n\r\n", b"GET http://x/ HTTP/1.1\r\n\r\n",
                     b"GET /" + b"a" * 5000 + b" HTTP/1.1\r\n\r\n", b"GET /%00%ff%zz HTTP/1.1\r\n\r\n",
                     b"GET /?" + b"a=b&" * 400 + b" HTTP/1.1\r\n\r\n",
                     b"GET / HTTP/1.1\r\nRange: bytes=" + b"0-1," * 1500 + b"\r\n\r\n",
                     b"GET / HTTP/1.1\r\nContent-Length: 99999999999\r\n\r\n",
                     b"GET / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz"):
            self.assertRegex(send(data), r"^HTTP/1\.1 [2345]\d\d ", data[:40])
        self.assertIn(" 431 ", send(b"GET / HTTP/1.1\r\nX: " + b"a" * 20000))
        self.assertEqual(get("/metrics")[0], 200)
        self.assertTrue(watch.running())

    def test_request_by_a_name_of_another_machine_is_refused(self):
        self.settled("--host", "monitor.example.org", "--host", "uplinks.example.org")
        for path in ("/", "/api/state", "/events"):
            answer = send(f"GET {path} HTTP/1.1\r\nHost: evil.example:9837\r\n\r\n".encode())
            self.assertTrue(answer.startswith("HTTP/1.1 421 Misdirected Request\r\n"), answer)
            self.assertIn("--host NAME\n", answer)
        for host in ("localhost:9837", "127.0.0.1", f"{os.uname().nodename}.example.org", "Monitor.Example.org",
                     "uplinks.example.org:9837"):
            answer = send(f"GET /api/state HTTP/1.1\r\nHost: {host}\r\n\r\n".encode())
            self.assertTrue(answer.startswith("HTTP/1.1 200 OK\r\n"), f"{host}: {answer}")

    def test_uplink_that_nobody_knows_is_not_answered_with_nothing(self):
        self.settled()
        for path in ("/api/report", "/api/events"):
            self.assertEqual(get(f"{path}?uplink=eth0")[0], 200, path)
            self.assertEqual(get(f"{path}?uplink=nope")[::2], (404, "no uplink is known that is called 'nope'\n"), path)

    def test_request_that_does_not_end_is_closed(self):
        self.settled()
        begin = time.monotonic()
        with socket.create_connection(ADDRESS, timeout=35) as slow:
            slow.sendall(b"GET / HTTP/1.1\r\n")
            closed = False
            while not closed and time.monotonic() - begin < 30:
                try:
                    slow.sendall(b"X: y\r\n")
                    slow.settimeout(0.5)
                    closed = slow.recv(1) == b""
                except TimeoutError:
                    pass
                except (ConnectionResetError, BrokenPipeError):
                    closed = True
        self.assertTrue(closed)
        self.assertLess(time.monotonic() - begin, 30)

    def test_flood_of_idle_connections_keeps_nobody_out(self):
        watch = self.settled()
        before_kb = watch.rss_kb()
        idle = [socket.create_connection(ADDRESS, timeout=5) for _ in range(300)]
        self.addCleanup(lambda: [one.close() for one in idle])
        for _ in range(5):
            self.assertEqual(get("/metrics")[0], 200)
        self.assertLess(len(os.listdir(f"/proc/{watch.process.pid}/fd")), 120)
        self.assertLess(watch.rss_kb(), before_kb + 20_000)

    def test_who_takes_no_answer_costs_little(self):
        watch = self.settled()
        before_kb = watch.rss_kb()
        greedy = []
        for _ in range(100):
            one = socket.socket()
            one.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            one.connect(ADDRESS)
            one.sendall(b"GET / HTTP/1.1\r\n\r\n")
            greedy.append(one)
        self.addCleanup(lambda: [one.close() for one in greedy])
        self.assertEqual(get("/metrics")[0], 200)
        self.assertLess(watch.rss_kb(), before_kb + 20_000)
        expect(lambda: len(os.listdir(f"/proc/{watch.process.pid}/fd")) < 30, within=40)

    def test_address_that_is_none_or_taken_is_a_clear_error(self):
        self.settled()
        for listen, problem in (("127.0.0.1:9837", "cannot listen on 127.0.0.1:9837: Address already in use"),
                                ("localhost:80", "'localhost:80' is no address to listen on"),
                                ("nonsense", "'nonsense' is no address to listen on")):
            done = lbwatch("--listen", listen, "--history", "none", "-o", OUTPUT_DIRECTORY)
            self.assertEqual(done.returncode, 1)
            self.assertIn(problem, done.stderr)


class Keeping(Scripted):
    """The history at bad moments."""

    def test_kill_at_any_moment_leaves_what_was_told(self):
        watch = self.settled("--hooks", "none")
        for i in range(5):
            with self.daemon.lock:
                (self.daemon.fail if i % 2 == 0 else self.daemon.answer)(self.one)
            watch.expect_state("eth0", "failed" if i % 2 == 0 else "active")
        told = watch.events()
        expect(lambda: len(lbwatch("events", "--json", "--history", HISTORY).stdout.splitlines()) == len(told))
        watch.kill()

        done = lbwatch("events", "--json", "--history", HISTORY)

        self.assertEqual([json.loads(line) for line in done.stdout.splitlines()], told)

    def test_outage_of_which_a_kill_hid_the_end_is_in_the_report(self):
        watch = self.settled("--hooks", "none")
        with self.daemon.lock:
            self.daemon.fail(self.two)
        failed = watch.expect_state("eth1", "failed")

        def kept_ms():
            with sqlite3.connect(f"file:{HISTORY}?mode=ro", uri=True) as database:
                return database.execute("SELECT max(end_ms - begin_ms) FROM span WHERE state = 'failed'").fetchone()[0]

        # How long it has lasted is not left to the next minute.
        expect(lambda: (kept_ms() or 0) >= 3000, within=15)
        watch.kill()
        with self.daemon.lock:
            self.daemon.answer(self.two)
        self.daemon.pass_by(2)
        again = self.watch("--hooks", "none")
        again.expect_change("uplink", "failed", "active", "eth1")

        report = json.loads(lbwatch("report", "--json", "--since", "1h", "--uplink", "eth1", "--history", HISTORY).stdout)

        outages = report["uplinks"][0]["outages"]
        self.assertEqual([(one["begin"], one["begin_seen"], one["end_seen"]) for one in outages],
                         [(failed["time"], True, False)])
        self.assertGreaterEqual(outages[0]["seconds"], 3)

    def test_full_disk_is_told_and_nothing_is_lost_when_there_is_room_again(self):
        os.mkdir("/run/lbwatch")
        disk = self.lab.disk("/run/lbwatch", pages=200)
        os.system("ip link set lo up")
        watch = self.settled("--hooks", "none", *LISTEN)
        self.assertEqual(metric(get("/metrics")[2], "lb_history_written"), 1)
        disk.fill()
        with self.daemon.lock:
            self.daemon.fail(self.one)
        expect(lambda: "goes on in memory" in watch.notices)
        watch.expect_state("eth0", "failed")
        expect(lambda: metric(get("/metrics")[2], "lb_history_written") == 0)
        self.assertGreaterEqual(metric(get("/metrics")[2], "lb_history_waiting_rows"), 1)
        self.assertIn("goes on in memory", json.loads(get("/api/state")[2])["history"]["problem"])
        expect(lambda: "the history goes on in memory" in get("/")[2])
        # What the file lacks is shown all the same.
        expect(lambda: "going on" in get("/")[2])
        disk.empty()
        with self.daemon.lock:
            self.daemon.answer(self.one)
        expect(lambda: "is written again; nothing was lost" in watch.notices, within=90)
        expect(lambda: metric(get("/metrics")[2], "lb_history_written") == 1)
        self.assertIsNone(json.loads(get("/api/state")[2])["history"]["problem"])

        done = lbwatch("events", "--json", "--history", HISTORY)

        self.assertEqual([json.loads(line) for line in done.stdout.splitlines()], watch.events())

    def test_file_that_is_damaged_while_it_runs_is_moved_aside(self):
        watch = self.settled("--hooks", "none")
        watch.kill(15)
        with open(HISTORY, "r+b") as file:
            file.seek(100)
            file.write(os.urandom(8000))
        again = self.watch("--hooks", "none")
        expect(lambda: "is kept as" in again.notices)
        with self.daemon.lock:
            self.daemon.fail(self.one)
        again.expect_state("eth0", "failed")
        self.assertTrue(any(".damaged-" in name for name in os.listdir(os.path.dirname(HISTORY))))
        expect(lambda: "failed" in lbwatch("events", "--history", HISTORY).stdout)

    @unittest.skipUnless(os.path.exists(os.environ.get("LB_STEPPED_CLOCK", "")), "LB_STEPPED_CLOCK names no library")
    def test_clock_that_is_set_leaves_a_gap_and_no_wrong_length(self):
        offset = "/run/clock-offset"
        with open(offset, "wb") as file:
            file.write(bytes(8))
        with open(offset, "r+b") as file:
            mapped = mmap.mmap(file.fileno(), 8)
        self.one.update(since_failure=60)
        watch = self.settled("--hooks", "none", environment={
            **preload(os.environ["LB_STEPPED_CLOCK"]), "LB_CLOCK_OFFSET": offset,
            "ASAN_OPTIONS": "verify_asan_link_order=0:" + os.environ.get("ASAN_OPTIONS", "")})
        before = len(watch.events())
        for hours, told in ((24, "forward by 1d 0h 0m"), (-24, "back by 2d 0h 0m"), (0, "forward by 1d 0h 0m")):
            mapped[:] = struct.pack("=q", hours * 3600)
            expect(lambda told=told: f"the clock was set {told}" in watch.notices)
        self.assertEqual(watch.events()[before:], [])
        with self.daemon.lock:
            self.daemon.fail(self.one)
        failed = watch.expect_state("eth0", "failed")
        self.assertGreaterEqual(failed["after_s"], 60)
        self.assertLess(failed["after_s"], 180)
        watch.kill(15)
        with sqlite3.connect(f"file:{HISTORY}?mode=ro", uri=True) as database:
            longest = database.execute("SELECT max(end_ms - begin_ms) FROM span").fetchone()[0]
        self.assertLess(longest, 60_000)

    def test_report_agrees_with_the_script(self):
        watch = self.settled("--hooks", "none")
        seen_from = self.daemon.cycles
        for _ in range(3):
            with self.daemon.lock:
                self.daemon.fail(self.one)
            watch.expect_state("eth0", "failed")
            self.daemon.pass_by(8)
            with self.daemon.lock:
                self.daemon.answer(self.one)
            watch.expect_state("eth0", "active")
        # The last state is seen for a while, too.
        self.daemon.pass_by(4)
        watch.kill(15)
        cycles = self.daemon.cycles

        report = json.loads(lbwatch("report", "--json", "--since", "1h", "--history", HISTORY).stdout)

        one, two = report["uplinks"]
        told = [event["time"] for event in watch.events("uplink", uplink="eth0")
                if "failed" in (event["from"], event["to"])]
        self.assertEqual([time for outage in one["outages"] for time in (outage["begin"], outage["end"])], told)
        self.assertEqual((one["flaps"], two["outages"]), (6, []))
        self.assertEqual(two["availability_percent"], 100)
        self.assertLess(one["availability_percent"], 100)
        self.assertGreater(two["unwatched_s"], 3000)
        with sqlite3.connect(f"file:{HISTORY}?mode=ro", uri=True) as database:
            answered, missed = database.execute("SELECT sum(answered), sum(missed) FROM minute").fetchone()
        # Each cycle that was seen counts once for each target.
        self.assertLessEqual(answered + missed, 2 * cycles)
        self.assertGreaterEqual(answered + missed, 2 * (cycles - seen_from) * 0.8)


if __name__ == "__main__":
    main()

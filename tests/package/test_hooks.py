#!/usr/bin/python3
"""The hooks that the package brings, run by themselves: neither a network nor an installed package is needed.

    test_hooks.py PROJECT
"""
import http.server
import pathlib
import re
import shutil
import socketserver
import subprocess
import sys
import tempfile
import threading
import unittest

PROJECT = pathlib.Path(sys.argv[1]).resolve()
HOOKS = PROJECT / "packaging/hooks"

# What the hook mails of each change. "end" is mailed only to who was told of something bad before.
NEWS, END, NOTHING = "news", "end", "nothing"
CHANGES = {
    "uplink": {
        ("absent", "unknown"): NOTHING, ("absent", "active"): END, ("absent", "failed"): NEWS,
        ("unknown", "active"): END, ("unknown", "failed"): NEWS, ("unknown", "absent"): NEWS,
        ("active", "unknown"): NEWS, ("active", "failed"): NEWS, ("active", "absent"): NEWS,
        ("failed", "unknown"): NEWS, ("failed", "active"): NEWS, ("failed", "absent"): NEWS,
    },
    "daemon": {
        ("unknown", "running"): END, ("unknown", "stale"): NEWS, ("unknown", "stopped"): NEWS,
        ("running", "stale"): NEWS, ("running", "stopped"): NEWS,
        ("stale", "running"): NEWS, ("stale", "stopped"): NEWS,
        ("stopped", "running"): NEWS,
    },
    "target": {("success", "failure"): NOTHING, ("failure", "success"): NOTHING},
    "nexthop": {("192.0.2.1", "192.0.2.2"): NOTHING, ("", "192.0.2.1"): NOTHING},
    "routes": {("eth0, eth1", "eth0"): NOTHING, ("eth0", "none"): NOTHING},
}
BAD = {"uplink": ("active", "failed"), "daemon": ("running", "stopped")}


class Mail(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.told = self.folder / "told"
        self.sendmail = self.folder / "sendmail"
        self.take_mail()

    def take_mail(self, status=0):
        self.sendmail.write_text(f'#!/bin/sh\n[ "$*" = -t ] && cat >>{self.folder}/mail && exit {status}\n')
        self.sendmail.chmod(0o755)

    def happened(self, event, before, after, uplink="eth0", family="ipv4", namespace="", fails=False):
        """Runs the hook as lbwatch does; what it mailed, empty where it mailed nothing."""
        if event == "daemon":
            uplink = family = ""
        mail = self.folder / "mail"
        mail.write_text("")
        done = subprocess.run(
            [HOOKS / "mail"], capture_output=True, text=True, stdin=subprocess.DEVNULL, check=False,
            env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "MAIL_TO": "noc@example.org", "SENDMAIL": str(self.sendmail),
                 "MAIL_TOLD": str(self.told), "LB_EVENT": event, "LB_UPLINK": uplink, "LB_FAMILY": family,
                 "LB_NAMESPACE": namespace, "LB_TARGET": "", "LB_FROM": before, "LB_TO": after, "LB_AFTER": "",
                 "LB_REASON": "", "LB_TIME": "2026-11-21T14:05:00Z", "LB_LINE": f"{event} {before} -> {after}"})
        self.assertEqual((done.returncode != 0, done.stdout, done.stderr), (fails, "", ""))
        return mail.read_text()

    def test_each_change_is_mailed_or_not(self):
        for event, changes in CHANGES.items():
            for (before, after), what in changes.items():
                with self.subTest(event, before=before, after=after, first=True):
                    self.assertEqual(self.happened(event, before, after) != "", what == NEWS)
                self.forget()
                if event not in BAD:
                    continue
                with self.subTest(event, before=before, after=after, first=False):
                    self.assertNotEqual(self.happened(event, *BAD[event]), "")
                    self.assertEqual(self.happened(event, before, after) != "", what in (NEWS, END))
                self.forget()

    def forget(self):
        for path in self.told.glob("*"):
            path.unlink()

    def test_mail_names_the_change_and_whom_it_goes_to(self):
        lines = self.happened("uplink", "active", "failed").splitlines()

        self.assertEqual(lines[0], "To: noc@example.org")
        self.assertRegex(lines[1], r"^Subject: \[.+\] uplink active -> failed$")
        self.assertEqual(lines[-1], "at 2026-11-21T14:05:00Z")

    def test_end_is_mailed_once(self):
        self.happened("uplink", "active", "failed")

        self.assertNotEqual(self.happened("uplink", "absent", "active"), "")
        self.assertEqual(self.happened("uplink", "absent", "active"), "")

    def test_end_that_could_not_be_mailed_is_mailed_by_the_next_occasion(self):
        self.happened("uplink", "active", "unknown")
        self.take_mail(status=75)
        self.happened("uplink", "unknown", "active", fails=True)
        self.take_mail()

        self.assertNotEqual(self.happened("uplink", "absent", "active"), "")

    def test_what_was_told_of_one_uplink_is_not_told_of_another(self):
        self.happened("uplink", "active", "failed", namespace="a/b")

        for other in ({}, {"uplink": "eth1"}, {"family": "ipv6"}, {"namespace": "b"}):
            self.assertEqual(self.happened("uplink", "unknown", "active", **other), "", other)
        self.assertNotEqual(self.happened("uplink", "unknown", "active", namespace="a/b"), "")


class LocalServer(socketserver.ThreadingMixIn, socketserver.UnixStreamServer):
    daemon_threads = True


@unittest.skipUnless(shutil.which("curl"), "curl is not installed")
class Webhook(unittest.TestCase):
    EVENT = '{"event":"uplink","uplink":"eth0"}'

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.home = pathlib.Path(folder.name)
        self.socket = str(self.home / "socket")
        (self.home / ".curlrc").write_text(f'unix-socket = "{self.socket}"\n')

    def serve(self, *answers):
        """Gives the requests these answers, each a status and headers, the last one to all that follow; what they held."""
        left, posted = list(answers), []

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_POST(self):  # pylint: disable=invalid-name
                posted.append((self.rfile.read(int(self.headers["Content-Length"])).decode(), self.headers["Content-Type"]))
                status, headers = left.pop(0) if len(left) > 1 else left[0]
                self.send_response(status)
                for name, value in headers.items():
                    self.send_header(name, value)
                self.end_headers()

            def log_message(self, *_):  # pylint: disable=arguments-differ
                pass

        server = LocalServer(self.socket, Handler)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        return posted

    def post(self):
        """Runs the hook as lbwatch does, which kills what takes longer."""
        return subprocess.run([HOOKS / "webhook"], input=self.EVENT, capture_output=True, text=True, check=False, timeout=30,
                              env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": str(self.home),
                                   "WEBHOOK_URL": "http://noc.example.org/lb"})

    def test_object_is_posted_again_where_the_far_end_had_no_time(self):
        posted = self.serve((503, {}), (200, {}))

        done = self.post()

        self.assertEqual((done.returncode, posted), (0, [(self.EVENT, "application/json")] * 2))

    def test_far_end_that_asks_for_a_long_pause_is_told_as_a_failure(self):
        posted = self.serve((503, {"Retry-After": "60"}))

        done = self.post()

        self.assertEqual((done.returncode, len(posted)), (22, 3), done.stderr)
        self.assertIn("503", done.stderr)

    def test_all_tries_fit_into_the_time_of_a_hook(self):
        script = (HOOKS / "webhook").read_text()
        most_s = int(re.search(r"--max-time (\d+)", script).group(1))
        pauses_s = [int(word) for word in re.search(r'for pause in ([\d ]+) ""', script).group(1).split()]
        limit_s = int(re.search(r"After (\d+) s a hook is killed", (PROJECT / "man/lbwatch.8").read_text()).group(1))

        self.assertLess((len(pauses_s) + 1) * most_s + sum(pauses_s), limit_s)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)

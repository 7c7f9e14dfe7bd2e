#!/usr/bin/python3
"""The hooks that the package brings, run by themselves: neither a network nor an installed package is needed.

    test_hooks.py PROJECT
"""
import pathlib
import subprocess
import sys
import tempfile
import unittest

HOOKS = pathlib.Path(sys.argv[1]).resolve() / "packaging/hooks"

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


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])

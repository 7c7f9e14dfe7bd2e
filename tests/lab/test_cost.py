"""System calls of a cycle: what would make a cycle cost the square of its uplinks must not come back.

Forty uplinks (macvlan) with a probe each, watched by strace.
"""
import re
import shutil
import subprocess
import unittest

from kit import Conf, LabTest, expect, main, ping
from scenes import PREFIX

UPLINKS = 40


@unittest.skipUnless(shutil.which("strace"), "strace is not installed")
class SystemCalls(LabTest):
    def start(self):
        self.lab.uplink("trunk", "10.9.9.9/24", "10.9.9.1")
        conf = Conf()
        for i in range(UPLINKS):
            self.lab.router.ip(f"link add up{i} link trunk type macvlan mode private")
            self.lab.router.ip(f"address add 10.0.{i}.2/24 dev up{i}")
            self.lab.router.ip(f"link set up{i} up")
            self.lab.router.ip(f"neigh add 10.0.{i}.1 lladdr 02:00:5e:20:00:01 dev up{i} nud permanent")
            conf.interface(f"up{i}", nexthop=f"10.0.{i}.1", probes=[ping(f"198.18.0.{i + 1}", 500)])
        conf.rule("1_ipv4", {f"up{i}": 1 for i in range(UPLINKS)}, {PREFIX: None})
        daemon = self.lab.start(conf)
        expect(lambda: len(self.lab.peers["default-trunk"].echo_requests()) >= UPLINKS)
        return daemon

    @staticmethod
    def calls(daemon, seconds):
        """Calls by name in so many seconds."""
        path = "/run/calls"
        subprocess.run(["timeout", "-s", "INT", str(seconds), "strace", "-qq", "-f", "-c", "-o", path,
                        "-p", str(daemon.pid)], check=False, capture_output=True)
        with open(path, encoding="utf-8") as file:
            rows = [line.split() for line in file]
        return {row[-1]: int(row[3]) for row in rows if len(row) >= 5 and re.fullmatch(r"\d+", row[3])}

    def test_sockets_and_address_lists_are_not_asked_for_by_every_probe(self):
        daemon = self.start()
        calls = self.calls(daemon, 4)
        self.assertGreater(calls.get("sendto", 0), 2 * UPLINKS)  # probes and their records went out
        self.assertLess(calls.get("socket", 0), UPLINKS)
        self.assertLess(calls.get("close", 0), UPLINKS)
        self.assertLess(calls.get("bind", 0), UPLINKS)


if __name__ == "__main__":
    main()

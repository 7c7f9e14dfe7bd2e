"""System calls and wake-ups of a cycle: what makes a probe dear, or a cycle cost the square of its uplinks.

Forty uplinks (macvlan) with a probe each, watched by strace.
"""
import os
import re
import shutil
import subprocess
import unittest

from kit import Conf, LabTest, expect, main, ping
from kit.daemon import is_built_with
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

    def probes(self):
        return len(self.lab.peers["default-trunk"].echo_requests())

    def start_calm(self):
        """All uplinks are active, and nothing is left to be logged or routed."""
        daemon = self.start()
        expect(lambda: sum("changed state to active" in text for text in self.lab.log.texts()) == UPLINKS)
        self.lab.cycles.pass_by(2)
        return daemon

    def test_call_serves_many_probes(self):
        daemon = self.start_calm()
        before = self.probes()
        calls = self.calls(daemon, 6)
        probes = self.probes() - before
        self.assertGreaterEqual(probes, UPLINKS)
        self.assertLess(calls.get("socket", 0) + calls.get("bind", 0), UPLINKS / 2, calls)
        for name in ("ioctl", "sendto", "sendmsg", "sendmmsg", "recv", "recvmsg", "recvmmsg", "poll", "ppoll"):
            self.assertLess(calls.get(name, 0), probes / 2, (name, calls))
        self.assertLess(sum(calls.values()) - calls.get("total", 0), 6 * probes, calls)

    @staticmethod
    def wake_ups(daemon):
        """How often threads of the daemon have gone to sleep, which is as often as they were woken."""
        count = 0
        for task in os.listdir(f"/proc/{daemon.pid}/task"):
            with open(f"/proc/{daemon.pid}/task/{task}/status", encoding="utf-8") as file:
                count += sum(int(line.split()[1]) for line in file if line.startswith("voluntary_ctxt"))
        return count

    @unittest.skipIf(is_built_with("__tsan"), "the thread sanitizer has a thread that wakes by itself")
    def test_threads_are_not_woken_for_each_reply(self):
        daemon = self.start_calm()
        self.lab.peers["default-trunk"].echo = lambda request, number: [
            (0.02 + number % UPLINKS * 0.1 / UPLINKS, request.reply())]  # one after another
        self.lab.cycles.pass_by(2)
        before, probes_before = self.wake_ups(daemon), self.probes()
        self.lab.cycles.pass_by(6)
        woken, probes = self.wake_ups(daemon) - before, self.probes() - probes_before
        self.assertGreaterEqual(probes, 2 * UPLINKS)
        self.assertLess(woken, probes / 2, (woken, probes))


if __name__ == "__main__":
    main()

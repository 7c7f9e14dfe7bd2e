"""The hooks of lbwatch over scripted dumps: what they get, in which order, and what becomes of bad ones."""
import json
import os

from kit import expect, main
from lbwatch_scene import Scripted

HOOKS = "/run/hooks.d"
PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


class Hooks(Scripted):
    def setUp(self):
        super().setUp()
        os.mkdir(HOOKS, 0o755)
        for one in (self.one, self.two):
            one.update(success_ct=1, failure_ct=1)

    @staticmethod
    def hook(name, body, mode=0o755):
        path = os.path.join(HOOKS, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write("#!/bin/sh\n" + body)
        os.chmod(path, mode)
        return path

    @staticmethod
    def lines(path):
        if not os.path.exists(path):
            return []
        with open(path, encoding="utf-8") as file:
            return file.read().splitlines()

    def flap(self, one, times):
        """So many changes, each told before the next."""
        for i in range(times):
            cycles = self.daemon.cycles
            with self.daemon.lock:
                (self.daemon.fail if i % 2 == 0 else self.daemon.answer)(one)
            expect(lambda cycles=cycles: self.daemon.cycles >= cycles + 2)

    def test_every_event_reaches_every_hook_with_its_variables_and_its_object(self):
        self.hook("10-env", 'echo "$LB_EVENT|$LB_UPLINK|$LB_FAMILY|$LB_FROM|$LB_TO|$LB_REASON" >> /run/env\n')
        self.hook("20-json", "cat >> /run/json\n")
        self.hook("30-not-executable", "echo x >> /run/never\n", mode=0o644)
        watch = self.settled("--hooks", HOOKS)
        with self.daemon.lock:
            self.daemon.fail(self.two)
        watch.expect_change("routes", "eth0, eth1", "eth0")

        expect(lambda: len(self.lines("/run/json")) == len(watch.events()))

        told = [json.loads(line) for line in self.lines("/run/json")]
        self.assertEqual(sorted(told, key=str), sorted(watch.events(), key=str))
        self.assertIn("uplink|eth1|ipv4|active|failed|198.51.100.1 no answer (1 in a row)",
                      self.lines("/run/env"))
        self.assertFalse(os.path.exists("/run/never"))

    def test_events_of_one_uplink_come_in_their_order(self):
        self.hook("slow", 'sleep 0.$(( $$ % 4 )); echo "$LB_TIME $LB_TO" >> /run/order.$LB_UPLINK\n')
        watch = self.settled("--hooks", HOOKS)

        self.flap(self.one, 6)

        told = [one for one in watch.events(uplink="eth0")]
        expect(lambda: len(self.lines("/run/order.eth0")) == len(told))
        self.assertEqual(self.lines("/run/order.eth0"), [f"{one['time']} {one['to']}" for one in told])

    def test_failing_hook_is_logged_and_the_next_runs(self):
        self.hook("10-bad", "echo broken >&2\nexit 3\n")
        self.hook("20-good", "echo good >> /run/good\n")
        watch = self.settled("--hooks", HOOKS)

        expect(lambda: "hook 10-bad ended with status 3, over: eth0 ipv4" in watch.notices)

        self.assertIn("hook 10-bad: broken", watch.notices)
        expect(lambda: len(self.lines("/run/good")) >= 2)

    def test_hook_that_others_may_write_is_refused_once(self):
        path = self.hook("loose", "echo x >> /run/never\n", mode=0o777)
        foreign = self.hook("foreign", "echo x >> /run/never\n")
        os.chown(foreign, 1, 1)
        watch = self.settled("--hooks", HOOKS)

        expect(lambda: f"{path} is not run: others than its owner may write it" in watch.notices)

        self.assertIn(f"{foreign} is not run: its owner is not root", watch.notices)
        self.assertEqual(watch.notices.count(path), 1)
        self.assertFalse(os.path.exists("/run/never"))

    def test_folder_that_others_may_write_is_refused(self):
        self.hook("good", "echo x >> /run/never\n")
        os.chmod(HOOKS, 0o777)
        watch = self.settled("--hooks", HOOKS)

        expect(lambda: f"{HOOKS} is not run: others than its owner may write it" in watch.notices)

        self.assertFalse(os.path.exists("/run/never"))

    def test_what_a_hook_leaves_behind_ends_with_it(self):
        self.hook("forks", "sleep 1234 > /dev/null 2>&1 &\necho $! >> /run/children\n")
        self.settled("--hooks", HOOKS)

        expect(lambda: self.lines("/run/children"))

        expect(lambda: all(not os.path.exists(f"/proc/{child}")
                           or "Z" in self.lines(f"/proc/{child}/stat")[0].rpartition(")")[2].split()[0]
                           for child in self.lines("/run/children")))

    def test_uplink_that_was_dead_from_the_start_is_mailed_and_so_is_its_end(self):
        mail = os.path.join(PROJECT, "packaging/hooks/mail")
        sendmail = self.hook("sendmail", "cat >> /run/mail\n", mode=0o644)
        os.rename(sendmail, "/run/sendmail")
        os.chmod("/run/sendmail", 0o755)
        self.hook("mail", f"MAIL_TO=noc@example.org SENDMAIL=/run/sendmail MAIL_TOLD=/run/told exec {mail}\n")
        self.daemon.fail(self.one)
        self.one["targets"][0].update(result=0, failure=0)
        self.one["since_success"] = 0  # never
        self.daemon.start()
        watch = self.watch("--hooks", HOOKS)
        watch.expect_state("eth1", "active")
        watch.expect_change("uplink", "absent", "unknown", uplink="eth0")

        with self.daemon.lock:
            self.daemon.fail(self.one)
        watch.expect_change("uplink", "unknown", "failed", uplink="eth0")
        with self.daemon.lock:
            self.daemon.answer(self.one)
        watch.expect_change("uplink", "failed", "active", uplink="eth0")

        def told():
            return [line.partition("] ")[2].partition(":")[0].partition(" after ")[0]
                    for line in self.lines("/run/mail") if line.startswith("Subject: ")]
        expect(lambda: len(told()) >= 2)
        self.assertEqual(told(), ["eth0 ipv4 unknown -> failed", "eth0 ipv4 failed -> active"])

    def test_storm_is_held_and_the_latest_state_wins(self):
        self.hook("slow", 'sleep 0.5; echo "$LB_TIME $LB_EVENT $LB_TO" >> /run/slow.$LB_UPLINK\n')
        self.daemon.period_s = 0.15
        watch = self.settled("--hooks", HOOKS)

        self.flap(self.one, 24)

        expect(lambda: "hooks are slower than events come" in watch.notices)
        last = [one["time"] for one in watch.events("uplink", uplink="eth0")][-1]
        expect(lambda: any(line.startswith(last) for line in self.lines("/run/slow.eth0")), within=60)


if __name__ == "__main__":
    main()

"""lbwatch over dumps written by script: what is half-written, foreign, gone or back again is never believed."""
import os
import shutil
import time

from kit import expect, main
from kit.lbwatch import HISTORY, LBWATCH, lbwatch
from lbwatch_scene import Scripted


class Following(Scripted):
    def test_destinations_that_change_alike_are_one_event(self):
        watch = self.settled()
        with self.daemon.lock:
            self.daemon.fail(self.two)

        told = watch.expect_change("routes", "eth0, eth1", "eth0")

        self.assertEqual(told["destinations"], [f"198.51.{i}.0/24" for i in range(3)])
        self.assertEqual(len(watch.events("routes")), 1)

    def test_next_hop_that_changes_is_told(self):
        watch = self.settled()
        with self.daemon.lock:
            self.two["nexthop"] = "192.0.2.9"

        watch.expect_change("nexthop", "192.0.2.2", "192.0.2.9", "eth1")

    def test_uplink_of_a_namespace_carries_its_name(self):
        self.one["namespace"] = "blue"
        self.daemon.start()
        watch = self.watch()

        told = watch.expect_state("eth0", "active")

        self.assertEqual(told["namespace"], "blue")

    def test_daemon_that_was_never_there_is_stopped_and_its_old_dumps_are_not_believed(self):
        self.daemon.write()
        watch = self.watch()

        told = watch.expect_change("daemon", "unknown", "stopped")

        self.assertEqual(told["reason"], "there is no process of it")
        self.assertEqual(watch.events("uplink"), [])

    def test_uplink_that_is_no_longer_evaluated_is_unknown(self):
        watch = self.settled()
        # Its worker has stopped; another one goes on to rewrite the records of all.
        with self.daemon.lock:
            self.two.update(namespace="blue")
        watch.expect_change("uplink", "active", "absent", "eth1")
        with self.daemon.lock:
            self.two.update(since_success=31)

        told = watch.expect_change("uplink", "active", "unknown", "eth1")

        self.assertEqual(told["reason"], "not evaluated for 31s")

    def test_thresholds_of_one_result_are_told_without_delay(self):
        for one in (self.one, self.two):
            one.update(success_ct=1, failure_ct=1)
        watch = self.settled()
        for i in range(5):
            with self.daemon.lock:
                self.daemon.fail(self.one)
            expect(lambda i=i: len(watch.events("uplink", uplink="eth0", to="failed")) == i + 1)
            with self.daemon.lock:
                self.daemon.answer(self.one)
            expect(lambda i=i: len(watch.events("uplink", uplink="eth0", to="active")) >= i + 1
                   and watch.changes("uplink", "eth0")[-1] == ("failed", "active"))


class WithCommands(Scripted):
    def test_end_of_a_command_that_the_daemon_runs_is_not_the_daemon_s(self):
        """Until a child becomes the command, it is called like the daemon, with its arguments."""
        self.daemon.program = ("import os, time\n"
                               "while True:\n"
                               "    child = os.fork()\n"
                               "    if child == 0:\n"
                               "        time.sleep(0.4)\n"
                               "        os._exit(0)\n"
                               "    os.waitpid(child, 0)\n")
        watch = self.settled()

        self.daemon.pass_by(10)

        self.assertEqual(watch.changes("daemon"), [("unknown", "running")])


class Damaged(Scripted):
    """Each leaves the states as they were, and is told once."""

    def undisturbed(self, watch, name, data, notice):
        before = len(watch.events())
        self.daemon.pause()
        self.daemon.put(name, data)
        expect(lambda: notice in watch.notices, what=f"{notice}\n{watch.notices}")
        self.assertEqual(watch.notices.count(notice), 1)
        self.assertEqual(watch.events()[before:], [])
        self.daemon.stop()
        self.daemon.start()
        expect(lambda: f"wlb_{name}.bin can be read again" in watch.notices)

    def test_dump_of_another_size(self):
        watch = self.settled()
        self.undisturbed(watch, "ipv4_outbounds", self.daemon.record(self.one)[:-1],
                         "wlb_ipv4_outbounds.bin is empty or ends within a record")

    def test_empty_dump(self):
        watch = self.settled()
        self.undisturbed(watch, "ipv4_outbounds", b"",
                         "wlb_ipv4_outbounds.bin is empty or ends within a record")

    def test_dump_of_garbage(self):
        watch = self.settled()
        self.undisturbed(watch, "rules", b"\xff" * 3343, "wlb_rules.bin is no dump of the daemon")

    def test_dump_of_the_other_byte_order(self):
        watch = self.settled()
        record = self.daemon.record({**self.one, "success_ct": 3 << 24, "failure_ct": 3 << 24})
        self.undisturbed(watch, "ipv4_outbounds", record, "one of the other byte order")

    def test_names_with_control_characters_come_out_harmless(self):
        self.one["name"] = "e\x1b[2J\xff\n"
        self.daemon.start()
        watch = self.watch()
        told = watch.expect_state("e\x1b[2J\ufffd\n", "active")
        self.assertEqual(told["event"], "uplink")
        watch.kill(15)
        text = lbwatch("events", "--history", HISTORY).stdout
        self.assertIn(r"e\x1b[2J\xff\x0a ipv4 ", text)
        self.assertNotIn("\x1b", text)

    def test_uplink_missing_in_one_dump_is_not_believed_to_be_gone(self):
        watch = self.settled()
        with self.daemon.lock:
            whole = self.daemon.record(self.one) + self.daemon.record(self.two)
            self.daemon.put("ipv4_outbounds", whole[:len(whole) // 2])
            time.sleep(0.2)  # it is read, and the next rewrite is whole again
        self.daemon.pass_by(4)
        self.assertEqual(watch.events("uplink", to="absent"), [])


class Folder(Scripted):
    def test_folder_that_is_missing_is_waited_for(self):
        folder = self.daemon.folder
        os.rmdir(folder)
        watch = self.watch()
        expect(lambda: f"no dumps below {folder}; waiting for the daemon" in watch.notices)

        os.mkdir(folder)
        self.daemon.start()

        watch.expect_state("eth1", "active")

    def test_folder_that_is_replaced_is_followed(self):
        watch = self.settled()
        with self.daemon.lock:
            shutil.move(self.daemon.folder, "/run/elsewhere")
            os.mkdir(self.daemon.folder)
            self.daemon.fail(self.one)

        watch.expect_state("eth0", "failed")

    def test_without_inotify_the_dates_of_the_files_are_followed(self):
        # The limit of a user namespace of its own, so that nobody else is short of them.
        none = "echo 0 >/proc/sys/user/max_inotify_instances; exec \"$@\""
        # Its root may not enter the home directory that the program may lie in.
        watch = self.settled(prefix=("unshare", "--user", "--map-root-user", "sh", "-ec", none, "sh"),
                             program=shutil.copy(LBWATCH, "/run/lbwatch-without-inotify"))
        self.assertIn("cannot be watched", watch.notices)
        with self.daemon.lock:
            self.daemon.fail(self.one)
        watch.expect_state("eth0", "failed")


if __name__ == "__main__":
    main()

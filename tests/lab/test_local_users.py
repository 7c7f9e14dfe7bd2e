"""What a user of the router gains who may put something where the programs write or read: nothing, and nobody is held up.

Other cases stand beside what they are about: hold files and the state folder (LbrouteHolds, LbrouteStateFolder), pid
files (LbrouteOwnership, pid_files), lease files that lb-lease writes (lb_lease), hooks (lbwatch_hooks), fragments
(LbrouteFragmentFile), dumps (LbshowDumpFiles), pages and drawings (OutputFile).
"""
import os
import subprocess
import time

from kit import LabTest, expect, lb_lease, main
from kit.lbwatch import HISTORY, Lbwatch, lbwatch
from kit.routing_daemon import fragment_path
from running import NOT_OPENED, OUTBOUNDS, REPORT, RunningTest
from scenes import GATEWAY, ROUTER, VIA_1, error, fragment, one_uplink, two_uplinks
from test_lease_faults import LEASE, NO_ROUTER, lease

PID_FILE = "/run/lb.pid"
AS_NOBODY = ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups")


def put_pipe(path):
    if os.path.lexists(path):
        os.unlink(path)
    os.mkfifo(path)


class Daemon(RunningTest):
    def test_pipes_in_the_place_of_its_files_hold_nobody_up(self):
        self.start()
        for path in (REPORT, OUTBOUNDS, os.path.join(os.path.dirname(OUTBOUNDS), "wlb_rules.bin")):
            put_pipe(path)
        self.cycles.pass_by(3)
        for text in NOT_OPENED:
            self.assertIn(text, self.lab.log.texts())
        self.lose_second_uplink()
        self.return_second_uplink()
        for path in (REPORT, OUTBOUNDS, os.path.join(os.path.dirname(OUTBOUNDS), "wlb_rules.bin")):
            os.unlink(path)
        self.assert_everything_follows()

    def test_pipe_in_the_place_of_the_fragment_costs_the_fragment_only(self):
        put_pipe(fragment_path())
        self.start()
        self.lose_second_uplink()
        os.unlink(fragment_path())
        self.return_second_uplink()
        self.assert_everything_follows()

    def test_pipe_in_the_place_of_the_pid_file_does_not_hold_the_start_up(self):
        put_pipe(PID_FILE)
        self.start(two_uplinks(), "-i", PID_FILE)
        self.assertIn(error(f"Can't fopen pid lock file {PID_FILE}, continuing"), self.lab.log.texts())


class Leases(LabTest):
    def test_pipe_or_device_in_the_place_of_a_lease_tells_no_router(self):
        self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY, known=True)
        os.symlink("/dev/zero", LEASE)
        self.lab.start(one_uplink(nexthop="dhcp"))
        self.lab.cycles.expect(lambda: self.lab.log.count(NO_ROUTER), what=NO_ROUTER)
        put_pipe(LEASE)
        writer = os.open(LEASE, os.O_RDWR)  # a pipe that has a writer, who writes nothing
        told = self.lab.log.count(NO_ROUTER)
        self.lab.cycles.expect(lambda: self.lab.log.count(NO_ROUTER) > told + 2, what=NO_ROUTER)
        os.close(writer)
        os.unlink(LEASE)
        with open(LEASE, "w", encoding="ascii") as file:
            file.write(lease(GATEWAY))
        self.lab.cycles.expect(lambda: self.lab.fragment() == fragment(VIA_1), 8, "the lease counts")


class LockedLeases(LabTest):
    def test_locks_that_any_user_can_take_hold_no_lease_up(self):
        conf = "/run/lb.conf"
        self.lab.write_conf(one_uplink(nexthop="dhcp"))
        self.assertEqual(lb_lease.run("-f", conf, "gi1_1", GATEWAY), (0, ""))
        for path in (os.path.dirname(LEASE), LEASE):
            holder = subprocess.Popen([*AS_NOBODY, "flock", path, "sh", "-c", "echo; exec sleep 60"],
                                      stdout=subprocess.PIPE)
            self.addCleanup(holder.wait)
            self.addCleanup(holder.kill)
            self.addCleanup(holder.stdout.close)
            self.assertEqual(holder.stdout.readline(), b"\n", "it has the lock")
            start = time.monotonic()
            self.assertEqual(lb_lease.run("-f", conf, "gi1_1", "--gone"), (0, ""))
            self.assertEqual(lb_lease.run("-f", conf, "gi1_1", GATEWAY), (0, ""))
            self.assertLess(time.monotonic() - start, 5)

    def test_lock_of_the_leases_is_opened_by_nobody_else(self):
        self.lab.write_conf(one_uplink(nexthop="dhcp"))
        self.assertEqual(lb_lease.run("-f", "/run/lb.conf", "gi1_1", GATEWAY), (0, ""))
        tried = subprocess.run([*AS_NOBODY, "flock", "--nonblock", lb_lease.LOCK, "true"], stderr=subprocess.PIPE,
                               text=True, check=False)
        self.assertNotEqual(tried.returncode, 0)
        self.assertIn("Permission denied", tried.stderr)


class History(LabTest):
    def watch(self):
        watch = Lbwatch(self.folder)
        self.lab.own(watch.close)
        return watch

    def check_report(self):
        done = lbwatch("report", "--history", HISTORY)
        self.assertNotEqual(done.returncode, 0)
        self.assertIn(HISTORY, done.stderr)

    def test_pipe_in_the_place_of_the_history_holds_nobody_up(self):
        os.makedirs(os.path.dirname(HISTORY))
        os.mkfifo(HISTORY)
        watch = self.watch()
        expect(lambda: f"{HISTORY} cannot be written (it is no regular file)" in watch.notices)
        self.check_report()
        watch.kill()
        self.assertTrue(os.path.exists(HISTORY))

    def test_link_of_another_user_in_the_place_of_the_history_is_not_followed(self):
        os.makedirs(os.path.dirname(HISTORY))
        os.symlink("/run/victim", HISTORY)
        os.chown(HISTORY, 1, 1, follow_symlinks=False)
        watch = self.watch()
        expect(lambda: f"{HISTORY} cannot be written (it is a symbolic link of another user)" in watch.notices)
        watch.kill()
        self.assertFalse(os.path.exists("/run/victim"))

    def test_link_in_the_place_of_the_historys_lock_is_not_followed(self):
        os.makedirs(os.path.dirname(HISTORY))
        os.symlink("/run/victim", HISTORY + ".lock")
        watch = self.watch()
        expect(lambda: os.path.exists(HISTORY))
        watch.kill()
        self.assertFalse(os.path.exists("/run/victim"))


if __name__ == "__main__":
    main()

"""What a user of the router gains who may put something where the programs write or read: nothing, and nobody is held up.

Other cases stand beside what they are about: hold files and the state folder (LbrouteHolds, LbrouteStateFolder), pid
files (LbrouteOwnership, pid_files), lease files that lb-lease writes (lb_lease), hooks (lbwatch_hooks), fragments
(LbrouteFragmentFile), dumps (LbshowDumpFiles), pages and drawings (OutputFile).
"""
import os

from kit import LabTest, expect, main
from kit.lbwatch import HISTORY, Lbwatch, lbwatch
from kit.routing_daemon import fragment_path
from running import NOT_OPENED, OUTBOUNDS, REPORT, RunningTest
from scenes import GATEWAY, ROUTER, VIA_1, error, fragment, one_uplink, two_uplinks
from test_lease_faults import LEASE, NO_ROUTER, lease

PID_FILE = "/run/lb.pid"


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

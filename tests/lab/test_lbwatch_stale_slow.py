"""lbwatch beside a daemon that stands still: half a minute without a file, and it is stale."""
import os
import signal

from kit import LabTest, main
from kit.lbwatch import Lbwatch
from scenes import attach_two, two_uplinks


class Stale(LabTest):
    def test_stopped_process_is_stale_after_half_a_minute(self):
        attach_two(self.lab)
        daemon = self.lab.start(two_uplinks())
        watch = Lbwatch(self.folder, "--hooks", "none")
        self.addCleanup(watch.close)
        watch.expect_state("gi1_1", "active")
        os.kill(daemon.pid, signal.SIGSTOP)
        self.addCleanup(os.kill, daemon.pid, signal.SIGCONT)

        told = watch.expect_change("daemon", "running", "stale", within=45)

        self.assertRegex(told["reason"], r"^no file rewritten for 3\ds, its process is there$")
        os.kill(daemon.pid, signal.SIGCONT)
        watch.expect_change("daemon", "stale", "running")


if __name__ == "__main__":
    main()

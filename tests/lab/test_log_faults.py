"""The system log goes away under the running daemon and comes back (see running.py)."""
from kit import main
from running import RunningTest
from scenes import ACTIVE_2, INACTIVE_2


class SystemLogFaults(RunningTest):
    def assert_next_messages_arrive(self):
        """A daemon that was silent for a while is heard with its next change."""
        before = len(self.lab.log.lines())
        self.assert_everything_follows()
        texts = self.lab.log.texts()[before:]
        self.assertEqual([text for text in texts if text in (INACTIVE_2, ACTIVE_2)],
                         [INACTIVE_2, ACTIVE_2])
        self.assertEqual({line.identity for line in self.lab.log.lines()[before:]}, {"wan_lb"})

    def test_log_that_ends_and_starts_again_is_found_again(self):
        self.start()
        self.lab.log.stop()
        self.assert_everything_follows()
        self.lab.log.start()
        self.assert_next_messages_arrive()

    def test_socket_that_nobody_reads_any_more_is_replaced_by_the_next(self):
        self.start()
        self.lab.log.stop(leave_socket=True)
        self.assert_everything_follows()
        self.lab.log.start()
        self.assert_next_messages_arrive()

    def test_log_that_is_absent_at_the_start_is_found_when_it_comes(self):
        self.lab.log.stop()
        self.start()
        self.lab.log.start()
        self.assert_next_messages_arrive()


if __name__ == "__main__":
    main()

"""The daemon is stopped for a while and goes on (see running.py)."""
import os
import signal
import time

from kit import expect, main
from kit import echo_policies as policy
from running import RunningTest
from scenes import INACTIVE, INACTIVE_2, VIA_2, VIA_BOTH, fragment, two_uplinks

SECONDS = 10  # of a long stop; one of a minute is in test_stopped_for_a_minute_slow.py


class StoppingTest(RunningTest):
    def losses(self):
        return [text for text in self.lab.log.texts()[2:] if text in (INACTIVE, INACTIVE_2)]


class StoppedForAWhile(StoppingTest):
    def stop_for_a_while(self, meanwhile=lambda: None):
        """Stops the whole process, waits, and lets it go on; the moment of that."""
        os.kill(self.daemon.pid, signal.SIGSTOP)
        end = time.monotonic() + SECONDS
        try:
            meanwhile()
            while time.monotonic() < end:
                time.sleep(0.1)
        finally:
            os.kill(self.daemon.pid, signal.SIGCONT)
        return time.monotonic()

    def test_uplinks_that_work_all_along_are_not_judged_lost(self):
        self.start()
        self.stop_for_a_while()
        self.cycles.pass_by(4)
        self.assertEqual(self.losses(), [])
        self.expect_everywhere(True)
        self.assert_everything_follows()

    def test_cycles_missed_are_not_made_up_for(self):
        self.start()
        before = len(self.one.echo_requests())
        resumed = self.stop_for_a_while()
        self.cycles.pass_by(5)
        times = [frame.time_s for frame in self.one.echo_frames()[before:] if frame.time_s > resumed]
        gaps = [later - earlier for earlier, later in zip(times, times[1:])]
        self.assertGreaterEqual(len(times), 2)
        self.assertGreater(min(gaps), 0.9)  # a target is asked at most once in a cycle

    def test_outage_that_began_meanwhile_is_seen_and_one_that_ended_too(self):
        self.start()

        def exchange_outages():
            self.one.echo, self.two.echo = policy.silence, policy.answer

        self.lose_second_uplink()
        self.stop_for_a_while(exchange_outages)
        self.cycles.expect(lambda: self.lab.fragment() == fragment(VIA_2), what="the other uplink")
        self.one.echo = policy.answer
        self.cycles.expect(lambda: self.lab.fragment() == fragment(VIA_BOTH), what="both uplinks")
        self.assert_everything_follows()


class StoppedBriefly(StoppingTest):
    def test_answer_that_came_in_time_is_taken_however_late_it_is_read(self):
        self.one.echo = policy.delayed(0.3)  # so that it comes while the process stands
        self.start(two_uplinks(resp_time=900))
        for _ in range(6):
            sent = len(self.one.echo_requests())
            expect(lambda: len(self.one.echo_requests()) > sent)  # pylint: disable=cell-var-from-loop
            os.kill(self.daemon.pid, signal.SIGSTOP)
            time.sleep(1.2)  # longer than the answer may take
            os.kill(self.daemon.pid, signal.SIGCONT)
            self.cycles.pass_by(2)
        self.assertEqual(self.losses(), [])


if __name__ == "__main__":
    main()

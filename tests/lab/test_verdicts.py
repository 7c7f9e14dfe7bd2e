"""From outcomes to the state of an interface.

    router                                far
      gi1_1 192.0.2.10/24 ---------------- scripted peer 192.0.2.1
"""
from kit import LabTest, expect, main, ping
from kit import echo_policies as policy
from kit.system_log import INFO
from scenes import (ACTIVE, GATEWAY, INACTIVE, ROUTER, TARGET, TARGET_2, information, one_uplink)

BOTH = [ping(TARGET, 300), ping(TARGET_2, 300)]


def checked(target, result):
    return information(f"IP interface gigabitethernet 1/0/1 last check target {target} {result}")


class Verdicts(LabTest):
    def setUp(self):
        super().setUp()
        self.peer = self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY, known=True)

    def state_lines(self):
        return [text for text in self.lab.log.texts() if text in (ACTIVE, INACTIVE)]

    def requests_before(self, text):
        """How many requests had gone out when a line was logged for the last time."""
        logged = [line for line in self.lab.log.lines() if line.text == text][-1]
        return sum(frame.time_s < logged.time_s for frame in self.peer.echo_frames())

    def test_failure_between_successes_starts_the_count_again(self):
        self.peer.echo = policy.scripted([True, False, True])
        self.lab.start(one_uplink(success=2, failure=1))
        expect(lambda: ACTIVE in self.lab.log.texts(), within=25)
        self.assertEqual(self.requests_before(ACTIVE), 4)

    def test_single_lost_echo_is_forgiven_and_two_in_a_row_are_not(self):
        self.peer.echo = policy.scripted([True, False, True, False, False])
        self.lab.start(one_uplink(success=1, failure=2))
        expect(lambda: self.state_lines() == [INACTIVE, ACTIVE, INACTIVE], within=25)
        self.assertEqual(self.requests_before(INACTIVE), 5)

    def test_change_of_state_names_each_targets_last_check(self):
        self.peer.echo = policy.only_to({TARGET_2})
        self.lab.start(one_uplink(probes=BOTH))
        expect(lambda: ACTIVE in self.lab.log.texts())
        self.assertEqual(self.lab.log.texts(INFO), [
            INACTIVE, checked(TARGET, "failure"), checked(TARGET_2, "success"), ACTIVE])

    def test_unchanged_state_is_not_logged_again(self):
        self.lab.start(one_uplink())
        expect(lambda: ACTIVE in self.lab.log.texts())
        expect(lambda: len(self.peer.echo_requests()) >= 4)
        self.assertEqual(self.lab.log.texts(INFO), [INACTIVE, checked(TARGET, "success"), ACTIVE])

    def test_one_of_two_targets_keeps_the_interface_up(self):
        self.lab.start(one_uplink(probes=BOTH))
        expect(lambda: ACTIVE in self.lab.log.texts())
        self.peer.echo = policy.only_to({TARGET})
        self.lab.cycles.never(lambda: self.state_lines()[2:], cycles=4)

    def test_with_check_all_one_failed_target_takes_the_interface_down(self):
        self.lab.start(one_uplink(probes=BOTH, check_all=True))
        expect(lambda: ACTIVE in self.lab.log.texts())
        self.peer.echo = policy.only_to({TARGET})
        expect(lambda: self.state_lines() == [INACTIVE, ACTIVE, INACTIVE])
        self.assertEqual(self.lab.log.texts(INFO)[-3:], [
            checked(TARGET, "success"), checked(TARGET_2, "failure"), INACTIVE])

    def assert_every_outcome_counts_at_once(self, **counts):
        self.peer.echo = policy.scripted([True, False, True])
        self.lab.start(one_uplink(**counts))
        expect(lambda: self.state_lines() == [INACTIVE, ACTIVE, INACTIVE, ACTIVE])

    def test_without_counts_every_outcome_counts_at_once(self):
        self.assert_every_outcome_counts_at_once(success=None, failure=None)

    def test_with_a_failure_count_alone_every_outcome_counts_at_once(self):
        self.assert_every_outcome_counts_at_once(success=None, failure=3)

    def test_with_a_success_count_alone_every_outcome_counts_at_once(self):
        self.assert_every_outcome_counts_at_once(success=3, failure=None)

    def test_state_lines_are_informational(self):
        self.lab.start(one_uplink())
        expect(lambda: ACTIVE in self.lab.log.texts())
        self.assertEqual({line.severity for line in self.lab.log.lines()
                          if line.text in (INACTIVE, checked(TARGET, "success"), ACTIVE)}, {INFO})


if __name__ == "__main__":
    main()

"""The daemon with two uplinks that work, running before a fault begins, throughout and after it.

    router                                far
      gi1_1 192.0.2.10/24 ---------------- scripted peer 192.0.2.1    weight 1
      gi1_2 203.0.113.10/24 -------------- scripted peer 203.0.113.1  weight 3
"""
import os

from kit import LabTest, expect
from kit import echo_policies as policy
from kit.lab import OUTPUT_DIRECTORY
from kit.lbshow import active
from kit.routing_daemon import text_of
from scenes import (ACTIVE_2, INACTIVE_2, VIA_1, VIA_BOTH, attach_two, error, fragment,
                    two_uplinks)

REPORT = os.path.join(OUTPUT_DIRECTORY, "wlb_ipv4.out")
DUMPS = os.path.join(OUTPUT_DIRECTORY, "wlb_dump")
OUTBOUNDS = os.path.join(DUMPS, "wlb_ipv4_outbounds.bin")
# What a cycle logs that can open none of its files.
NOT_OPENED = [error(f"wan_lb: error open file for writing '{OUTBOUNDS}'"),
              error(f"wan_lb: Error open file for writing '{DUMPS}/wlb_rules.bin'"),
              error(f"wan_lb: error ordering output file {REPORT}")]


def reported():
    """The status words of the report for people."""
    lines = (text_of(REPORT) or "").split("\n")
    return [line.split()[1] for line in lines if line.startswith("  Status:  ")]


def published(*states):
    """Whether report and dumps are there and tell just these states."""
    return (reported() == ["active" if state else "failed" for state in states]
            and active() == list(states))


class RunningTest(LabTest):
    """After start() both uplinks work (or as `states` says), and that is published."""

    def setUp(self):
        super().setUp()
        self.one, self.two = attach_two(self.lab)
        self.cycles = self.lab.cycles

    def start(self, conf=None, *arguments, environment=None, states=(True, True)):
        self.daemon = self.lab.start(conf or two_uplinks(), *arguments, environment=environment)
        expect(lambda: published(*states))

    def lose_second_uplink(self):
        """The second uplink goes silent; the daemon is expected to notice, fault or not."""
        before = self.lab.log.count(INACTIVE_2)
        self.two.echo = policy.silence
        self.cycles.expect(lambda: self.lab.log.count(INACTIVE_2) > before, what=INACTIVE_2)

    def return_second_uplink(self):
        before = self.lab.log.count(ACTIVE_2)
        self.two.echo = policy.answer
        self.cycles.expect(lambda: self.lab.log.count(ACTIVE_2) > before, what=ACTIVE_2)

    def assert_everything_follows(self):
        """Log, fragment, report and dumps follow an outage of the second uplink and its end."""
        self.two.echo = policy.silence
        self.expect_everywhere(False)
        self.two.echo = policy.answer
        self.expect_everywhere(True)

    def expect_everywhere(self, second_is_active):
        """What everybody is told of the second uplink, within a few cycles."""
        routes = fragment(VIA_BOTH if second_is_active else VIA_1)
        self.cycles.expect(lambda: self.lab.fragment() == routes, what=f"the fragment is {routes}")
        self.cycles.expect(lambda: published(True, second_is_active),
                           what=f"the second uplink is shown with {second_is_active}")

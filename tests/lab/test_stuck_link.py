"""An uplink whose queue stands still, as behind a modem that hangs: its frames wait in the kernel and go nowhere.

The stage: running.py, with fifty targets behind the first uplink, so that it soon holds more frames than a socket may have
on their way.
"""
import re

from kit import Conf, main, ping
from running import RunningTest
from scenes import GATEWAY, GATEWAY_2, PREFIX

TARGETS = 50
RESP_TIME_MS = 700
MOST_OF_A_SOCKET = 256  # frames, by the kernel's usual room for a sender


class StuckLink(RunningTest):
    def waiting(self):
        """Frames that wait in the first uplink's queue."""
        shown = self.lab.router.run("tc", "-s", "qdisc", "show", "dev", "gi1_1")
        return int(re.search(r"backlog \S+ (\d+)p", shown)[1])

    def test_other_uplinks_are_probed_and_judged_as_before(self):
        targets = [ping(f"198.51.100.{host}", RESP_TIME_MS) for host in range(1, TARGETS + 1)]
        self.start(Conf().interface("gi1_1", nexthop=GATEWAY, probes=targets)
                   .interface("gi1_2", nexthop=GATEWAY_2, probes=[ping("198.51.100.200", RESP_TIME_MS)])
                   .rule("1_ipv4", {"gi1_1": 1, "gi1_2": 3}, {PREFIX: None}))
        self.lab.router.run("tc", "qdisc", "replace", "dev", "gi1_1", "root",
                            "tbf", "rate", "8bit", "burst", "1600", "limit", "10000000")
        self.cycles.expect(lambda: self.waiting() > 2 * MOST_OF_A_SOCKET, within=30)
        self.lose_second_uplink()
        self.return_second_uplink()

        self.lab.router.run("tc", "qdisc", "delete", "dev", "gi1_1", "root")
        self.expect_everywhere(second_is_active=True)


if __name__ == "__main__":
    main()

"""The daemon of another machine, emulated, and the lbshow of this one, whatever byte order and word size the other has.

    gre_1 192.0.2.10 peer 192.0.2.1       answers
    gre_2 203.0.113.10 peer 203.0.113.1   is silent
"""
import os
import unittest

from kit import Conf, LabTest, expect, main, ping, ping_ext
from kit.echo_policies import silence
from kit.lbshow import lbshow, state
from scenes import GATEWAY, GATEWAY_2, PREFIX, ROUTER, ROUTER_2, changed, fragment

BYTE_ORDER = os.environ.get("LB_BYTE_ORDER", "big")
# Numbers of several bytes that differ, so that no other reading gives the same.
FAILURE_CT, RULE, METRIC, RTT_LIMIT, WEIGHT = 258, 772, 70000, 1029, 200


def shown():
    """What is shown of the foreign dumps; nothing as long as there are none."""
    return state("--byte-order", BYTE_ORDER)


class ForeignDaemon(LabTest):
    def setUp(self):
        super().setUp()
        self.lab.uplink("gre_1", ROUTER, GATEWAY, point_to_point=GATEWAY)
        self.lab.uplink("gre_2", ROUTER_2, GATEWAY_2, point_to_point=GATEWAY_2).echo = silence
        measured = ping_ext(GATEWAY, count=2, period=1, timeout=1000, loss=50, rtt=RTT_LIMIT, jitter=RTT_LIMIT)
        self.lab.start(Conf()
                       .interface("gre_1", nexthop="tunnel", success=2, failure=FAILURE_CT,
                                  probes=[ping(None, 900), measured])
                       .interface("gre_2", nexthop=GATEWAY_2, probes=[ping(None, 300)])
                       .rule(f"{RULE}_ipv4", {"gre_1": WEIGHT, "gre_2": 1}, {PREFIX: METRIC}))
        expect(lambda: {changed("gre 1", "active"), changed("gre 2", "inactive")} <= set(self.lab.log.texts()))

    def test_routes_over_the_uplink_that_answers(self):
        expect(lambda: self.lab.fragment() == fragment(
            f"route {PREFIX} multipath via {GATEWAY} weight {WEIGHT} metric {METRIC};"))

    def test_dumps_tell_the_same_here(self):
        expect(lambda: [one["active"] for one in shown()["interfaces"]] == [True, False])
        told = shown()
        answers, silent = told["interfaces"]
        self.assertEqual([answers[key] for key in ("name", "nexthop", "nexthop_from", "success_ct", "failure_ct")],
                         ["gre_1", GATEWAY, "tunnel", 2, FAILURE_CT])
        self.assertIn(answers["since_success_s"], range(60))
        self.assertIsNone(silent["since_success_s"])
        quality = answers["probes"][1]["quality"]
        self.assertEqual([quality[key] for key in ("loss_percent", "loss_limit", "rtt_limit", "jitter_limit")],
                         [0, 50, RTT_LIMIT, RTT_LIMIT])
        self.assertIn(quality["rtt_ms"], range(1000))
        probe = silent["probes"][0]
        self.assertEqual((probe["last_result"], probe["success_run"], probe["failure_run"]), ("timed_out", 0, 1))
        self.assertEqual((told["rules"][0]["number"], told["rules"][0]["members"][0]["weight"]), (RULE, WEIGHT))
        self.assertEqual((told["routes"][0]["metric"], told["routes"][0]["position"]), (METRIC, 1))

    @unittest.skipIf(BYTE_ORDER == "little", "its byte order is this machine's")
    def test_dumps_are_refused_by_who_is_not_told_their_byte_order(self):
        expect(lambda: len(shown()["routes"]) == 1)
        done = lbshow("--json")
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertIn("is no dump of the daemon", done.stderr)


if __name__ == "__main__":
    main()

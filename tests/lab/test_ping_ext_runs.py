"""The extended ping over several runs: when it runs, what a run leaves behind, what a long one holds up.

    router                                        far
      gi1_1 192.0.2.10/24 ------------------------ scripted peer 192.0.2.1
"""
import pathlib

from kit import Conf, expect, main, ping_ext
from kit import echo_policies as policy
from kit.lab import OUTPUT_DIRECTORY
from kit.reply_counters import ReplyCounters
from kit.system_log import DEBUG
from ping_scene import (FAILURE, LOOSE, SUCCESS, Pinging, after_a_run, dumped)
from scenes import (ACTIVE, GATEWAY, INACTIVE, PREFIX, ROUTER, TARGET, TARGET_2, warning)

SEND_ERROR = "wan_lb: error on sending icmp packet: "
NETWORK_IS_DOWN = 100


def silent_after(count, inner=policy.answer):
    """Answers so many requests and then none."""
    return lambda request, number: inner(request, number) if number <= count else []


class Results(Pinging):
    def test_run_that_loses_its_first_echo_keeps_the_results_of_the_run_before(self):
        peer = self.attach(silent_after(2, policy.delayed(0.06)))
        self.start(count=2, period=0)
        probe = after_a_run(FAILURE)
        self.assertEqual(probe.figures[0], 0)
        # The time of the run before, which is told in whole milliseconds; without it there would be none.
        self.assertGreaterEqual(probe.figures[1], 55)
        expect(lambda: len(peer.echo_requests()) >= 4)
        self.assertEqual([echo.sequence for echo in peer.echo_requests()[:4]], [0, 1, 0, 0])

    def test_failed_target_recovers_with_the_first_run_that_is_answered(self):
        self.attach(policy.scripted([False]))
        self.start(count=2, period=0, timeout=500)
        self.expect_logged(ACTIVE)
        self.assertEqual((after_a_run(SUCCESS).failures, after_a_run(SUCCESS).figures[0]), (0, 0))

    def start_run_and_take_link_down(self):
        peer = self.attach(silent_after(1))
        self.start(count=9, timeout=1500)
        expect(lambda: len(peer.echo_requests()) >= 2)
        self.lab.router.ip("link set gi1_1 down")
        return peer

    def test_echo_that_cannot_be_sent_is_a_debug_line_with_the_error_number(self):
        self.start_run_and_take_link_down()
        self.assertEqual(expect(lambda: self.lab.log.texts(DEBUG)), [SEND_ERROR + str(NETWORK_IS_DOWN)])

    def test_echo_that_cannot_be_sent_fails_the_run_and_keeps_the_results(self):
        self.start_run_and_take_link_down()
        self.assertEqual(after_a_run(FAILURE).figures, (0, 0, 0))

    def test_echo_that_cannot_be_sent_ends_the_run(self):
        peer = self.start_run_and_take_link_down()
        after_a_run(FAILURE)
        self.assertLess(len(peer.echo_requests()), 9)

    def test_source_that_vanishes_leaves_the_verdict_as_it_was(self):
        self.attach()
        self.start(uplink={"source": ROUTER}, count=2, period=5)  # no run meets the change half-way
        self.expect_logged(ACTIVE)
        self.lab.router.ip("address add 192.0.2.11/24 dev gi1_1")
        self.lab.router.ip(f"address delete {ROUTER}/24 dev gi1_1")
        text = warning(f"Address '{ROUTER}' not present on any interface")
        expect(lambda: self.lab.log.count(text) >= 3)
        self.assertEqual(after_a_run().result, SUCCESS)
        self.assertEqual(self.lab.log.count(INACTIVE), 1)  # that of the start

    def test_loss_limit_of_zero_fails_run_after_run(self):
        peer = self.attach()
        self.start(count=2, loss=0, period=0, uplink={"failure": 3})
        expect(lambda: len(peer.echo_requests()) >= 6)
        expect(lambda: dumped()[0].failures == 3)
        self.assertNotIn(ACTIVE, self.lab.log.texts())

    def test_negative_count_fails_without_an_echo(self):
        peer = self.attach()
        self.start(count="4294967295")
        self.assertEqual(after_a_run(FAILURE).figures, (0, 0, 0))
        self.assertEqual(peer.echo_requests(), [])

    def test_limits_are_published_beside_the_figures(self):
        self.attach()
        self.start(count=1, loss=11, rtt=901, jitter=902)
        probe = after_a_run()
        self.assertEqual((probe.target, probe.is_extended, probe.limits), (TARGET, True, (11, 901, 902)))


class Schedule(Pinging):
    def test_second_run_does_not_come_before_the_period_is_over(self):
        peer = self.attach()
        self.start(count=2)  # the period is 240 s unless configured
        after_a_run(SUCCESS)
        self.lab.cycles.never(lambda: len(peer.echo_requests()) > 2, cycles=4)

    def test_run_without_a_next_hops_address_counts_as_the_first(self):
        peer = self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY)
        peer.arp_delay_s = 1.0  # not within the cycle that asks
        self.start(count=2)
        after_a_run(FAILURE)
        expect(lambda: "02:00:5e:20:00:01" in self.lab.neighbour(GATEWAY, "gi1_1"))
        self.lab.cycles.never(peer.echo_requests, cycles=3)

    def test_each_run_takes_the_next_packet_identifier(self):
        peer = self.attach()
        self.start(count=2, period=0)
        expect(lambda: len(peer.echo_requests()) >= 6)
        self.assertEqual([(echo.packet_id, echo.sequence) for echo in peer.echo_requests()[:6]],
                         [(1, 0), (1, 1), (2, 0), (2, 1), (3, 0), (3, 1)])

    def test_two_probes_of_an_interface_run_one_after_the_other(self):
        peer = self.attach(policy.delayed(0.1))
        probes = [ping_ext(target, count=3, **LOOSE) for target in (TARGET, TARGET_2)]
        self.lab.start(Conf().interface("gi1_1", nexthop=GATEWAY, check_all=True, probes=probes)
                       .rule("1_ipv4", {"gi1_1": 1}, {PREFIX: None}))
        self.expect_logged(ACTIVE)
        self.assertEqual([(echo.destination, echo.packet_id) for echo in peer.echo_requests()],
                         [(TARGET, 1)] * 3 + [(TARGET_2, 2)] * 3)

    def test_probe_without_a_target_asks_the_next_hop_and_says_so(self):
        peer = self.attach()
        self.start(target=None, count=2)
        self.expect_logged(ACTIVE)
        self.assertEqual({echo.destination for echo in peer.echo_requests()}, {GATEWAY})
        self.assertEqual(after_a_run(SUCCESS).target, GATEWAY)
        report = pathlib.Path(OUTPUT_DIRECTORY, "wlb_ipv4.out")  # empty while it is being rewritten
        expect(lambda: f"Test:  ping extended\tTarget: {GATEWAY}\n" in report.read_text(encoding="ascii"))

    def test_probe_without_a_target_waits_for_the_next_hop_to_be_learnt(self):
        peer = self.attach()
        self.start(target=None, count=2, uplink={"nexthop": "dhcp"})
        head = warning("Failed to get routers option from DHCP on interface ")
        expect(lambda: any(text.startswith(head) for text in self.lab.log.texts()))
        self.assertEqual(peer.echo_requests(), [])


class ConnectionTracking(Pinging):
    def test_one_record_covers_every_answer_of_a_run(self):
        self.attach()
        counters = ReplyCounters(self.lab.router)
        self.start(count=5)
        after_a_run(SUCCESS)
        self.assertEqual((counters.packets("established"), counters.packets("other")), (5, 0))
        records = self.lab.router.run("conntrack", "-L", "-p", "icmp").splitlines()
        self.assertEqual(len(records), 1)
        self.assertIn(f"src={ROUTER} dst={TARGET}", records[0])


class LongWaits(Pinging):
    def test_single_long_wait_does_not_hold_up_the_keep_alives(self):
        alive = self.lab.keep_alives
        peer = self.attach(policy.silence)
        self.start(count=3, timeout=5000)
        begin = expect(peer.echo_frames)[0].time_s
        after_a_run(FAILURE)
        during = [time_s for time_s in alive.times("WATCHDOG=1")
                  if begin + 0.1 < time_s < begin + 4.9]
        self.assertGreaterEqual(len(during), 2)

    def test_silent_target_costs_one_wait_and_not_one_for_each_echo(self):
        peer = self.attach(policy.silence)
        self.start(count=10, timeout=1000, period=0)
        frames = expect(lambda: len(peer.echo_frames()) >= 4 and peer.echo_frames())
        self.assertEqual({echo.sequence for echo in peer.echo_requests()}, {0})
        # A wait and the cycle's sleep lie between two runs.
        self.assertLess(min(later.time_s - earlier.time_s
                            for earlier, later in zip(frames, frames[1:])), 4)


if __name__ == "__main__":
    main()

"""The extended ping: frames, figures, verdicts, and its reply socket shared with echo probes.

    router                                        far
      gi1_1 192.0.2.10/24 ------------------------ scripted peer 192.0.2.1
"""
from kit import Conf, LabTest, expect, main, ping, ping_ext
from kit import echo_policies as policy
from ping_scene import FAILURE, LOOSE, NOT_YET, SUCCESS, Pinging, after_a_run, dumped
from scenes import ACTIVE, GATEWAY, PREFIX, ROUTER, TARGET, changed, one_uplink, warning


def figures():
    """Loss, mean and jitter of the first probe's latest run."""
    return after_a_run().figures


class Frames(Pinging):
    def run_of_four(self):
        """(the daemon, the echoes of a run, their frames)"""
        peer = self.attach()
        daemon = self.start(count=4)
        expect(lambda: len(peer.echo_frames()) == 4)
        return daemon, peer.echo_requests(), peer.echo_frames()

    def test_run_counts_its_sequence_up_from_0(self):
        _, echoes, _ = self.run_of_four()
        self.assertEqual([echo.sequence for echo in echoes], [0, 1, 2, 3])

    def test_run_keeps_its_packet_identifier(self):
        _, echoes, _ = self.run_of_four()
        self.assertEqual([echo.packet_id for echo in echoes], [1] * 4)

    def test_echoes_are_identified_by_the_process_number(self):
        daemon, echoes, _ = self.run_of_four()
        self.assertEqual([echo.identifier for echo in echoes], [daemon.pid & 0xFFFF] * 4)

    def test_echo_has_46_bytes(self):
        _, _, frames = self.run_of_four()
        self.assertEqual([len(frame.data) for frame in frames], [46] * 4)

    def test_every_echo_has_right_checksums_to_scapy(self):
        peer = self.attach()
        self.start(count=3)
        expect(lambda: len(peer.echo_frames()) == 3)
        for frame in peer.echo_frames():
            packet = frame.decoded()
            rebuilt = packet.copy()
            del rebuilt["IP"].chksum, rebuilt["ICMP"].chksum
            rebuilt = type(packet)(bytes(rebuilt))
            self.assertEqual((packet["IP"].chksum, packet["ICMP"].chksum),
                             (rebuilt["IP"].chksum, rebuilt["ICMP"].chksum))

    def test_tunnel_echo_has_24_bytes(self):
        peer = self.lab.uplink("gre_1", ROUTER, GATEWAY, point_to_point=GATEWAY)
        self.lab.start(one_uplink("gre_1", probes=[ping_ext(GATEWAY, count=2, **LOOSE)]))
        expect(lambda: len(peer.echo_frames()) == 2)
        for sequence, frame in enumerate(peer.echo_frames()):
            message = frame.data[34:]
            self.assertEqual((len(message), message[6:8].hex(), message[8:].hex()),
                             (24, f"{sequence:04x}", "00000001" + "00" * 12))


class Figures(Pinging):
    def test_one_of_ten_lost_counts_with_its_whole_wait(self):
        self.attach(policy.scripted([True] * 4 + [False], policy.delayed(0.005)))
        self.start(count=10)
        after_a_run(FAILURE)
        loss, mean_ms, jitter_ms = figures()
        self.assertEqual(loss, 10)
        self.assertGreaterEqual(mean_ms, 103)
        self.assertEqual(mean_ms + jitter_ms, 1000)

    def test_all_answered_is_a_success(self):
        self.attach(policy.delayed(0.005))
        self.start(count=10)
        expect(lambda: ACTIVE in self.lab.log.texts())
        self.assertEqual(figures()[0], 0)
        # Counted from when the echo has left, in whole milliseconds.
        self.assertGreaterEqual(figures()[1], 4)

    def test_slow_answers_fail_by_their_mean(self):
        self.attach(policy.delayed(0.08))
        self.start(count=3, rtt=60)
        after_a_run(FAILURE)
        self.assertEqual(figures()[0], 0)
        self.assertGreaterEqual(figures()[1], 75)

    def test_one_slow_answer_fails_by_jitter(self):
        self.attach(lambda request, number: [(0.4 if number == 2 else 0.0, request.reply())])
        self.start(count=4, rtt=900, jitter=150)
        after_a_run(FAILURE)
        self.assertEqual(figures()[0], 0)
        self.assertGreaterEqual(figures()[2], 150)

    def test_loss_limit_of_zero_fails_every_run(self):
        self.attach()
        self.start(count=2, loss=0)
        after_a_run(FAILURE)
        self.assertEqual(figures()[0], 0)

    def test_tolerated_loss_is_a_success(self):
        self.attach(policy.scripted([True, False]))
        self.start(count=4, loss=26, timeout=500)
        expect(lambda: ACTIVE in self.lab.log.texts())
        self.assertEqual(figures()[0], 25)

    def test_limit_of_the_loss_that_is_reached_fails_the_run(self):
        self.attach(policy.scripted([True, False]))
        self.start(count=4, loss=25, timeout=500)
        self.assertEqual(after_a_run(FAILURE).figures[0], 25)

    def test_losses_of_a_pattern_are_all_counted_with_their_wait(self):
        self.attach(policy.scripted([True, False, True, True, False, False, True, False]))
        self.start(count=8, loss=60, timeout=400)
        self.assertEqual(after_a_run(SUCCESS).figures[0], 50)
        self.assertGreaterEqual(figures()[1], 200)
        self.assertEqual(figures()[1] + figures()[2], 400)

    def test_count_of_zero_fails_without_an_echo(self):
        peer = self.attach()
        self.start(count=0)
        after_a_run(FAILURE)
        self.assertEqual(peer.echo_requests(), [])


class Answers(Pinging):
    def assert_first_echo_lost(self, echo):
        peer = self.attach(echo)
        self.start(count=5, timeout=400)
        after_a_run(FAILURE)
        self.assertEqual(len(peer.echo_requests()), 1)
        self.assertEqual(figures(), (0, 0, 0))

    def test_lost_first_echo_ends_the_run(self):
        self.assert_first_echo_lost(policy.silence)

    def test_answer_of_another_source_is_refused(self):
        self.assert_first_echo_lost(policy.lying(source="203.0.113.66"))

    def test_answer_with_another_packet_identifier_is_refused(self):
        self.assert_first_echo_lost(policy.lying(payload=b"\0\0\0\x63"))

    def test_answer_with_another_sequence_is_refused(self):
        self.assert_first_echo_lost(policy.lying(sequence=7))

    def test_foreign_icmp_identifier_is_not_looked_at(self):
        self.attach(policy.lying(identifier=9))
        self.start(count=2)
        expect(lambda: ACTIVE in self.lab.log.texts())

    def test_icmp_type_is_not_looked_at(self):
        self.attach(policy.lying(request=True))
        self.start(count=2)
        expect(lambda: ACTIVE in self.lab.log.texts())

    def test_late_answer_to_an_earlier_echo_does_not_count(self):
        peer = self.attach(lambda request, number: [(0.6 if number == 2 else 0.0, request.reply())])
        self.start(count=3, timeout=400)
        after_a_run(FAILURE)
        self.assertEqual(len(peer.echo_requests()), 3)
        self.assertEqual(figures()[0], 33)

    def test_answers_that_change_places_lose_the_overtaken_echo(self):
        held = []

        def swap(request, number):
            if number == 2:
                held.append(request.reply())
                return []
            late = [(0.0, held.pop())] if held else []
            return late + [(0.1 * len(late), request.reply())]
        self.attach(swap)
        self.start(count=4, timeout=600, loss=26)
        loss, mean_ms, _ = after_a_run(SUCCESS).figures
        self.assertEqual(loss, 25)
        self.assertGreaterEqual(mean_ms, (600 + 100) // 4)  # the third waited for its own answer

    def test_answer_with_ip_options_is_misread(self):
        self.assert_first_echo_lost(policy.lying(ip_options=b"\x01\x01\x01\x00"))

    def test_answer_without_a_payload_is_refused(self):
        self.assert_first_echo_lost(policy.lying(payload=b""))

    def test_answer_is_found_among_those_of_strangers(self):
        def crowd(request, _number):
            stranger = request.reply(payload=b"\0\0\x12\x34")
            # Fewer than a reply socket's queue holds (about 270), so that none is lost on the way.
            return [(0.0, stranger)] * 150 + [(0.0, request.reply())]
        self.attach(crowd)
        self.start(count=5)
        self.assertEqual(after_a_run(SUCCESS).figures[0], 0)

    def test_duplicated_answers_count_once(self):
        self.attach(policy.duplicated(3))
        self.start(count=5)
        expect(lambda: ACTIVE in self.lab.log.texts())
        self.assertEqual(figures()[0], 0)


class Runs(Pinging):
    def test_second_run_comes_a_period_later(self):
        peer = self.attach()
        self.start(count=2, period=4)
        expect(lambda: len(peer.echo_frames()) >= 6)
        times = [frame.time_s for frame in peer.echo_frames()]
        self.assertGreaterEqual(times[2] - times[0], 3.9)
        self.assertLess(times[4] - times[2], 3.9)

    def test_absent_source_is_a_warning_and_no_verdict(self):
        peer = self.attach()
        self.lab.start(one_uplink(probes=[ping_ext(TARGET, period=0, **LOOSE)],
                                  source="192.0.2.77"))
        text = warning("Address '192.0.2.77' not present on any interface")
        expect(lambda: self.lab.log.count(text) >= 2)
        self.assertEqual(peer.echo_requests(), [])
        probe = expect(dumped)[0]
        self.assertEqual((probe.result, probe.failures), (NOT_YET, 0))

    def test_tunnel_wait_of_whole_seconds_works(self):
        self.lab.uplink("gre_1", ROUTER, GATEWAY, point_to_point=GATEWAY)
        self.lab.start(one_uplink("gre_1", probes=[ping_ext(GATEWAY, count=2, **LOOSE)]))
        expect(lambda: changed("gre 1", "active") in self.lab.log.texts())

    def test_tunnel_wait_of_broken_seconds_fails_every_run(self):
        peer = self.lab.uplink("gre_1", ROUTER, GATEWAY, point_to_point=GATEWAY)
        self.lab.start(one_uplink("gre_1", probes=[ping_ext(GATEWAY, count=2, timeout=1500,
                                                            period=0, **LOOSE)]))
        expect(lambda: len(peer.echo_requests()) >= 3)
        self.assertEqual({echo.sequence for echo in peer.echo_requests()}, {0})
        after_a_run(FAILURE)

    def test_missing_tunnel_is_a_warning(self):
        self.lab.start(one_uplink("gre_1", probes=[ping_ext(GATEWAY, **LOOSE)]))
        expect(lambda: warning("Failure to bind to interface: gre 1") in self.lab.log.texts())

    def test_burst_does_not_hold_up_another_worker(self):
        self.attach(lambda request, number: policy.silence(request, number) if number > 1
                    else policy.answer(request, number))
        blue = self.lab.namespace("blue")
        other = self.lab.uplink("gi1_2", ROUTER + "/24", GATEWAY, namespace=blue, known=True)
        conf = (one_uplink(probes=[ping_ext(TARGET, count=8, timeout=1000, **LOOSE)])
                .interface("gi1_2", nexthop=GATEWAY, probes=[ping(TARGET, 300)], namespace="blue")
                .rule("2_ipv4", {"gi1_2": 1}, {PREFIX: None}, namespace="blue"))
        self.lab.start(conf)
        expect(lambda: len(self.lab.peers["default-gi1_1"].echo_requests()) == 2)
        before = len(other.echo_requests())
        expect(lambda: len(other.echo_requests()) >= before + 2, within=7)
        self.assertLess(len(self.lab.peers["default-gi1_1"].echo_requests()), 8)

    def test_burst_does_not_hold_up_the_keep_alives(self):
        alive = self.lab.keep_alives
        peer = self.attach(lambda request, number: policy.answer(request, number) if number == 1
                           else policy.silence(request, number))
        self.lab.start(one_uplink(probes=[ping_ext(TARGET, count=7, timeout=1000, **LOOSE)]))
        expect(lambda: len(peer.echo_frames()) == 7)
        times = [frame.time_s for frame in peer.echo_frames()]
        during = [time_s for time_s in alive.times("WATCHDOG=1") if times[0] < time_s < times[-1]]
        self.assertGreaterEqual(len(during), 4)


class SharedSocket(LabTest):
    """Ten uplinks, each with both types of probe: ten runs a cycle beside ten echoes."""

    UPLINKS = 10

    def test_a_hundred_runs_beside_echo_probes_lose_nothing(self):
        conf = Conf()
        peers = []
        for i in range(1, self.UPLINKS + 1):
            gateway = f"10.0.{i}.1"
            peers.append(self.lab.uplink(f"gi1_{i}", f"10.0.{i}.10/24", gateway, known=True))
            conf.interface(f"gi1_{i}", nexthop=gateway, check_all=True, probes=[
                ping(f"10.1.{i}.1", 4000), ping_ext(f"10.1.{i}.2", count=4, period=0, **LOOSE)])
        conf.rule("1_ipv4", {f"gi1_{i}": 1 for i in range(1, self.UPLINKS + 1)}, {PREFIX: None})
        self.lab.start(conf)

        def runs():
            return [len(peer.echo_requests(f"10.1.{i}.2")) // 4 for i, peer in enumerate(peers, 1)]
        expect(lambda: min(runs()) >= 10, within=60)
        self.assertEqual([text for text in self.lab.log.texts() if "failure" in text
                          and ".2 failure" in text], [])
        states = [text for text in self.lab.log.texts() if "changed state to inactive" in text]
        self.assertEqual(len(states), self.UPLINKS)  # those of the start
        losses = [probe.figures[0] for probe in expect(dumped) if probe.is_extended]
        self.assertEqual(losses, [0] * self.UPLINKS)


if __name__ == "__main__":
    main()

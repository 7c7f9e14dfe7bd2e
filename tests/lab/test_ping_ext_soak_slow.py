"""Both probe types on one reply socket, at the daemon's own pace and for long: nothing is lost, nothing misjudged.

    router                                        far
      gi1_1 10.0.1.10/24 ------------------------- scripted peer 10.0.1.1, answers at once
      gi1_2 10.0.2.10/24 ------------------------- scripted peer 10.0.2.1, answers after 20 ms
      gi1_3 10.0.3.10/24 ------------------------- scripted peer 10.0.3.1, answers everything three times

About two minutes: a hundred runs of each uplink, one in a cycle.
"""
from kit import Conf, LabTest, expect, main, ping, ping_ext
from kit import echo_policies as policy
from ping_scene import LOOSE, SUCCESS, dumped
from scenes import PREFIX

RUNS, ECHOES = 100, 5
POLICIES = {1: policy.answer, 2: policy.delayed(0.02), 3: policy.duplicated(3)}


class Soak(LabTest):
    def start(self):
        conf = Conf()
        for i, echo in POLICIES.items():
            gateway = f"10.0.{i}.1"
            peer = self.lab.uplink(f"gi1_{i}", f"10.0.{i}.10/24", gateway, known=True)
            peer.echo = echo
            conf.interface(f"gi1_{i}", nexthop=gateway, check_all=True, probes=[
                ping_ext(f"10.1.{i}.2", count=ECHOES, period=0, **LOOSE),
                ping(f"10.1.{i}.1", 4000)])
        self.lab.start(conf.rule("1_ipv4", {f"gi1_{i}": 1 for i in POLICIES}, {PREFIX: None}))

    def runs(self, i):
        return len(self.lab.peers[f"default-gi1_{i}"].echo_requests(f"10.1.{i}.2")) // ECHOES

    def test_a_hundred_runs_of_each_uplink_lose_nothing(self):
        self.start()
        expect(lambda: min(map(self.runs, POLICIES)) >= RUNS, within=600)
        turns = [text for text in self.lab.log.texts() if "changed state" in text]
        self.assertEqual(len(turns), 2 * len(POLICIES))  # inactive at the start, then active for good
        for probe in expect(dumped):
            self.assertEqual((probe.result, probe.failures, probe.figures[0]), (SUCCESS, 0, 0))
        for i in POLICIES:  # a run that loses its first echo sends no second
            sequences = [echo.sequence for echo in
                         self.lab.peers[f"default-gi1_{i}"].echo_requests(f"10.1.{i}.2")]
            self.assertEqual(sequences[:RUNS * ECHOES], list(range(ECHOES)) * RUNS)


if __name__ == "__main__":
    main()

"""What lbwatch costs beside a daemon with a hundred uplinks: of its cycle, and of the memory."""
from kit import main
from lbwatch_scene import Scripted


class Cost(Scripted):
    def test_a_hundred_uplinks_cost_little(self):
        for i in range(98):
            self.daemon.uplink(f"gi{i}", targets=[{"address": f"198.51.100.{i + 1}", "result": 1,
                                                   "success": 3, "failure": 0}])
        self.daemon.period_s = 1
        watch = self.settled()
        before = watch.cpu_s()
        self.daemon.pass_by(10)

        a_cycle_s = (watch.cpu_s() - before) / 10
        print(f"\nlbwatch, 100 uplinks: {a_cycle_s * 1000:.2f} ms of a core in a cycle, {watch.rss_kb()} kB", flush=True)
        self.assertLess(a_cycle_s, 0.003)
        self.assertLess(watch.rss_kb(), 30_000)


if __name__ == "__main__":
    main()

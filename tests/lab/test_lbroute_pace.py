"""How fast lbroute is, and that it sleeps otherwise (topology: route_scene.py)."""
import os
import time

from kit import expect, main
from kit.lbroute import NextHopMonitor, own_objects, own_routes, route, status
from route_scene import DEFAULT, GATEWAYS, RouteTest

BUCKETS_OF_TEN = 2048


class Pace(RouteTest):
    def test_program_sleeps_until_something_happens(self):
        self.write(route(DEFAULT, *GATEWAYS))
        self.start()
        # What the links still tell of themselves is over when it slept through a second.
        self.slept_through_a_second()
        before = self.program.wakes()
        time.sleep(4)
        self.assertEqual(self.program.wakes(), before)

    def slept_through_a_second(self):
        def calm():
            before = self.program.wakes()
            time.sleep(1)
            return self.program.wakes() == before
        expect(calm, within=20)

    def test_ten_routes_are_in_the_kernel_20_ms_after_the_signal(self):
        prefixes = [f"10.{number}.0.0/16" for number in range(10)]
        self.write(*(route(prefix, *GATEWAYS[:2]) for prefix in prefixes))
        self.start()
        busy = os.getloadavg()[0] > os.cpu_count()
        times_ms, kernel_ms = [], []
        for turn in range(10):
            kernel_ms.append(self.ms_of_the_kernel_alone(len(prefixes), turn))
            times_ms.append(self.ms_to_the_kernel(prefixes, GATEWAYS[1:] if turn % 2 else GATEWAYS[:1]))
        # The best of some: others run on this machine too. Where they keep it busy, the kernel itself
        # is slow to replace groups: it waits for every processor each time.
        allowed_ms = 20 + (min(kernel_ms) if busy else 0)
        self.assertLess(min(times_ms), allowed_ms, (times_ms, kernel_ms))

    def ms_of_the_kernel_alone(self, count, turn):
        """What ip(8) takes to replace so many groups of others, as large as ours, in one run."""
        members = ("1/2", "1/2/3/4")
        lines = [f"nexthop replace id {1000 + number} group {members[turn % 2]} type resilient "
                 f"buckets {BUCKETS_OF_TEN}" for number in range(count)]
        path = os.path.join(self.folder, "batch")
        with open(path, "w", encoding="ascii") as file:
            hops = [] if turn else [f"nexthop add id {number} via {GATEWAYS[number % 2]} "
                                    f"dev gi1_{number % 2 + 1}" for number in range(1, 5)]
            file.write("\n".join(hops + lines) + "\n")
        began = time.monotonic()
        self.router.ip(f"-batch {path}")
        return (time.monotonic() - began) * 1000

    def ms_to_the_kernel(self, prefixes, gateways):
        """From a changed fragment and its signal to the last group's replacement."""
        expect(self.program.is_asleep)
        monitor = NextHopMonitor(self.router)
        self.write(*(route(prefix, *gateways) for prefix in prefixes))
        began = time.monotonic()
        self.program.hup()
        ended = monitor.wait_for(len(prefixes))
        monitor.close()
        for prefix in prefixes:
            self.expect_path({(one, f"gi1_{GATEWAYS.index(one) + 1}"): 1 for one in gateways}, prefix)
        return (ended - began) * 1000

    def test_thousand_prefixes_of_three_next_hops_are_all_there(self):
        prefixes = [f"10.{number // 256}.{number % 256}.0/24" for number in range(1000)]
        self.write(*(route(prefix, *GATEWAYS) for prefix in prefixes))
        self.start()
        self.assertEqual(len(own_routes(self.router)), 1000)
        self.write(*(route(prefix, *GATEWAYS[:2]) for prefix in prefixes))
        expect(lambda: all(len(one["group"]) == 4 for one in own_objects(self.router) if "group" in one),
               within=20)
        self.assertEqual(status(self.router)[0], 0)


if __name__ == "__main__":
    main()

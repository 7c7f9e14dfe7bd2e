"""Namespaces and workers at start-up.

    router (default)             far
      gi1_1 192.0.2.10/24 ------- scripted peer 192.0.2.1
    router, namespace blue
      gi1_2 203.0.113.10/24 ----- scripted peer 203.0.113.1
    router, namespace red
      gi1_3 192.0.2.30/24 ------- scripted peer 192.0.2.3
"""
import os
import signal

from kit import Conf, LabTest, expect, main, ping
from kit import echo_policies as policy
from scenes import (ACTIVE, ACTIVE_2, GATEWAY, GATEWAY_2, INACTIVE, INACTIVE_2, PREFIX, ROUTER, ROUTER_2,
                    TARGET_2, changed, error, one_uplink)


def add_blue(conf, namespace="blue"):
    return (conf.interface("gi1_2", nexthop=GATEWAY_2, namespace=namespace,
                           probes=[ping(TARGET_2, 300)])
            .rule("2_ipv4", {"gi1_2": 1}, {PREFIX: None}, namespace=namespace))


def main_thread_sleeps(daemon):
    """How often the daemon's main thread has gone to sleep."""
    with open(f"/proc/{daemon.pid}/task/{daemon.pid}/status", encoding="ascii") as status:
        return int(next(line.split()[1] for line in status if line.startswith("voluntary_ctxt_switches:")))


class StartUp(LabTest):
    def setUp(self):
        super().setUp()
        self.peer = self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY, known=True)

    def test_every_interface_is_first_reported_inactive(self):
        conf = one_uplink().interface("wan0", nexthop="192.0.2.2").interface(
            "po1.10", nexthop="192.0.2.3")
        self.peer.echo = policy.silence
        self.lab.start(conf)
        expected = [INACTIVE, changed("port-channel 1.10", "inactive"),
                    changed("unknown interface", "inactive")]
        expect(lambda: self.lab.log.texts()[:3] == expected)
        self.lab.cycles.never(lambda: self.lab.log.count(INACTIVE) > 1, cycles=2)
        self.assertEqual(self.lab.log.lines()[0].severity, 6)

    def test_missing_namespace_file_is_reported_and_the_others_run(self):
        self.lab.start(add_blue(one_uplink(), "ghost"))
        expect(lambda: error("wan_lb, can't open /var/run/netns/ghost") in self.lab.log.texts())
        expect(lambda: ACTIVE in self.lab.log.texts())
        self.assertNotIn(INACTIVE_2, self.lab.log.texts())

    def test_file_that_is_no_namespace_is_reported_and_the_others_run(self):
        self.lab.namespace("real")  # makes the directory
        with open("/var/run/netns/broken", "w", encoding="ascii"):
            self.addCleanup(os.unlink, "/var/run/netns/broken")
        self.lab.start(add_blue(one_uplink(), "broken"))
        expect(lambda: error("wan_lb, setns failed") in self.lab.log.texts())
        expect(lambda: ACTIVE in self.lab.log.texts())
        self.assertNotIn(INACTIVE_2, self.lab.log.texts())

    def test_namespace_threads_start_in_the_order_of_names(self):
        blue, red = self.lab.namespace("blue"), self.lab.namespace("red")
        self.lab.uplink("gi1_2", ROUTER_2 + "/24", GATEWAY_2, namespace=blue)
        self.lab.uplink("gi1_3", "192.0.2.30/24", "192.0.2.3", namespace=red)
        conf = (add_blue(Conf().interface("gi1_3", nexthop="192.0.2.3", namespace="red"))
                .rule("3_ipv4", {"gi1_3": 1}, {PREFIX: None}, namespace="red")
                .interface("gi1_1", nexthop=GATEWAY).rule("1_ipv4", {"gi1_1": 1}, {PREFIX: None}))
        daemon = self.lab.start(conf)
        expect(lambda: len([line for line in self.lab.log.texts() if "inactive" in line]) == 3)
        first = {}
        for thread in sorted(int(name) for name in os.listdir(f"/proc/{daemon.pid}/task")):
            if thread != daemon.pid:
                first.setdefault(os.stat(f"/proc/{daemon.pid}/task/{thread}/ns/net").st_ino, thread)
        order = [first[os.stat(space.path).st_ino] for space in (self.lab.router, blue, red)]
        self.assertEqual(order, sorted(order))

    def test_interfaces_without_a_rule_get_no_worker(self):
        self.assert_no_worker(Conf().interface("gi1_1", nexthop=GATEWAY))

    def test_rule_without_interfaces_gets_no_worker(self):
        self.assert_no_worker(Conf().rule("1_ipv4", {"gi1_1": 1}, {PREFIX: None}))

    def test_ipv4_interface_and_ipv6_rule_make_no_worker(self):
        self.assert_no_worker(Conf().interface("gi1_1", nexthop=GATEWAY)
                              .rule("1_ipv6", interfaces6={"gi1_1": 1}))

    def assert_no_worker(self, conf):
        """Nothing is done or said of the uplink while the worker of another namespace works."""
        blue = self.lab.namespace("blue")
        self.lab.uplink("gi1_2", ROUTER_2 + "/24", GATEWAY_2, namespace=blue, known=True)
        self.lab.start(add_blue(conf))
        expect(lambda: ACTIVE_2 in self.lab.log.texts())
        self.lab.cycles.never(lambda: INACTIVE in self.lab.log.texts() or self.peer.frames(),
                              cycles=2)

    def test_hangup_ends_the_daemon(self):
        daemon = self.lab.start(one_uplink())
        expect(lambda: ACTIVE in self.lab.log.texts())
        self.assertEqual(daemon.kill(signal.SIGHUP), -signal.SIGHUP)

    def test_one_keep_alive_a_cycle(self):
        alive = self.lab.keep_alives
        self.peer.echo = policy.delayed(0.2)  # never in time for the collection of its own cycle
        self.lab.start(one_uplink())
        expect(lambda: len(self.peer.echo_frames()) >= 4)
        self.assertEqual(len(alive.times("READY=1")), 1)
        first, last = (self.peer.echo_frames()[index].time_s for index in (0, 3))
        # A healthy target is probed every second cycle: six cycles lie between these.
        between = [time_s for time_s in alive.times("WATCHDOG=1") if first < time_s < last]
        self.assertIn(len(between), (5, 6, 7))

    def test_nothing_to_do_is_no_standstill(self):
        alive = self.lab.keep_alives
        self.lab.start(Conf().interface("gi1_1", nexthop=GATEWAY))
        expect(lambda: len(alive.times("WATCHDOG=1")) >= 2)

    def test_work_in_a_namespace_that_is_not_there_is_a_standstill(self):
        """The service manager starts the daemon anew: the namespace may be there by then."""
        alive = self.lab.keep_alives
        daemon = self.lab.start(add_blue(Conf(), "ghost"))
        expect(lambda: error("wan_lb, can't open /var/run/netns/ghost") in self.lab.log.texts())
        idle_from = main_thread_sleeps(daemon)
        expect(lambda: main_thread_sleeps(daemon) >= idle_from + 2, within=30, what="the main thread idles")
        self.assertEqual(alive.times("WATCHDOG=1"), [])

    def test_every_descriptor_is_closed_on_exec(self):
        daemon = self.lab.start(one_uplink())
        expect(lambda: ACTIVE in self.lab.log.texts())
        inherited = []
        for number in os.listdir(f"/proc/{daemon.pid}/fd"):
            try:
                with open(f"/proc/{daemon.pid}/fdinfo/{number}", encoding="ascii") as info:
                    flags = next(line for line in info if line.startswith("flags:"))
            except FileNotFoundError:  # closed meanwhile
                continue
            if int(number) > 2 and not int(flags.split()[1], 8) & os.O_CLOEXEC:
                inherited.append(os.readlink(f"/proc/{daemon.pid}/fd/{number}"))
        self.assertEqual(inherited, [])


if __name__ == "__main__":
    main()

"""The fragment for the routing daemon and who is told about it.

    router                                far
      gi1_1 192.0.2.10/24 ---------------- scripted peer 192.0.2.1
      gi1_2 203.0.113.10/24 -------------- scripted peer 203.0.113.1
    (the example has eth0 with the router 10.0.0.1 of a lease, and eth1 with 192.168.1.1)
"""
import os
import shutil
import signal

from kit import Conf, LabTest, expect, main, ping
from kit import echo_policies as policy
from kit.routing_daemon import fragment_path
from kit.system_log import DEBUG
from scenes import (ACTIVE, GATEWAY, PREFIX, VIA_1, VIA_2, VIA_BOTH, attach_two, fragment, one_uplink,
                    two_uplinks)

NO_PID = "LBDecision::run() can't execute 'cat /var/run/routing.pid'"

EXAMPLE = """\
protocol static {
check link 1;
route 0.0.0.0/0 multipath via 10.0.0.1 weight 1 via 192.168.1.1 weight 3;
route 10.8.0.0/16 multipath via 10.0.0.1 weight 1 via 192.168.1.1 weight 3 metric 20;
};
"""
FAILOVER_EXAMPLE = """\
protocol static {
check link 1;
route 0.0.0.0/0 multipath via 192.168.1.1 weight 3;
route 10.8.0.0/16 multipath via 192.168.1.1 weight 3 metric 20;
};
"""


class Text(LabTest):
    def start_example(self, failover):
        self.lab.uplink("eth0", "10.0.0.10/24", "10.0.0.1", known=True)
        self.lab.uplink("eth1", "192.168.1.10/24", "192.168.1.1", known=True)
        with open("/var/db/dhclient_eth0.leases", "w", encoding="ascii") as file:
            file.write("lease {\n  option routers 10.0.0.1;\n}\n")
        self.lab.start(Conf()
                       .interface("eth0", nexthop="dhcp", probes=[ping(None, 300)])
                       .interface("eth1", nexthop="192.168.1.1", probes=[ping(None, 300)])
                       .rule("1_ipv4", {"eth0": 1, "eth1": 3},
                             {"0.0.0.0/0": None, "10.8.0.0/16": 20}, failover=failover))

    def test_weighted_routes_come_out_byte_for_byte(self):
        self.start_example(failover=False)
        expect(lambda: self.lab.fragment() == EXAMPLE)

    def test_failover_routes_come_out_byte_for_byte(self):
        self.start_example(failover=True)
        expect(lambda: self.lab.fragment() == FAILOVER_EXAMPLE)

    def test_rules_follow_each_other_in_the_order_of_their_names(self):
        attach_two(self.lab)
        self.lab.start(two_uplinks().rule("2_ipv4", {"gi1_1": 7}, {"198.18.9.0/24": 5})
                       .rule("10_ipv4", {"gi1_2": 2}, {"198.18.8.0/24": None}))
        expect(lambda: self.lab.fragment() == fragment(
            "route 198.18.8.0/24 multipath via 203.0.113.1 weight 2;", VIA_BOTH,
            "route 198.18.9.0/24 multipath via 192.0.2.1 weight 7 metric 5;"))

    def test_member_without_a_weight_is_never_routed(self):
        attach_two(self.lab)
        text = two_uplinks().text().replace("weight 1", "weightless")
        self.lab.start(text)
        expect(lambda: self.lab.fragment() == fragment(VIA_2))
        expect(lambda: ACTIVE in self.lab.log.texts())
        self.lab.cycles.never(lambda: self.lab.fragment() != fragment(VIA_2), cycles=2)

    def test_fragment_of_an_earlier_run_stays_until_the_first_verdict(self):
        one, _ = attach_two(self.lab)
        one.echo = policy.silence
        with open(fragment_path(), "w", encoding="ascii") as file:
            file.write("of an earlier run")
        self.lab.start(one_uplink())
        expect(lambda: len(one.echo_requests()) >= 2)
        self.assertEqual(self.lab.fragment(), "of an earlier run")
        one.echo = policy.answer
        expect(lambda: self.lab.fragment() == fragment(VIA_1))

    def test_missing_directory_costs_the_fragment_and_nothing_else(self):
        blue = self.lab.namespace("blue")
        shutil.rmtree("/var/vrfs/blue/usr/etc")
        self.lab.uplink("gi1_1", "192.0.2.10/24", "192.0.2.1", namespace=blue, known=True)
        captured = self.lab.routing_daemon("blue")
        shutil.rmtree("/var/vrfs/blue/usr/etc")
        conf = one_uplink(namespace="blue").text().replace("rule 1_ipv4 {",
                                                           "rule 1_ipv4 {\n    namespace blue")
        self.lab.start(conf)
        expect(captured.hups)
        self.assertEqual(captured.fragments(), [None])


class Notice(LabTest):
    def setUp(self):
        super().setUp()
        self.one, self.two = attach_two(self.lab)

    def test_routing_daemon_finds_the_whole_fragment_when_signalled(self):
        captured = self.lab.routing_daemon()
        daemon = self.lab.start(one_uplink())
        hup = expect(captured.hups)[0]
        self.assertEqual((hup["fragment"], hup["sender"]), (fragment(VIA_1), daemon.pid))

    def test_unchanged_routes_write_nothing_and_signal_nobody(self):
        captured = self.lab.routing_daemon()
        self.lab.start(one_uplink())
        expect(captured.hups)
        before = os.stat(fragment_path())
        expect(lambda: len(self.one.echo_requests()) >= 4)
        after = os.stat(fragment_path())
        self.assertEqual((after.st_mtime_ns, after.st_ino), (before.st_mtime_ns, before.st_ino))
        self.assertEqual(len(captured.hups()), 1)

    def test_each_change_is_signalled_once(self):
        captured = self.lab.routing_daemon()
        self.lab.start(one_uplink())
        expect(captured.hups)
        self.one.echo = policy.silence
        expect(lambda: captured.fragments() == [fragment(VIA_1), fragment()])
        self.one.echo = policy.answer
        expect(lambda: captured.fragments()[2:] == [fragment(VIA_1)])

    def test_route_cache_is_flushed_after_the_signal(self):
        self.lab.routing_daemon()
        commands = os.path.join(self.folder, "commands")
        os.mkdir("/run/bin")
        with open("/run/bin/ip", "w", encoding="ascii") as script:
            script.write(f'#!/bin/sh\necho "$@" >> {commands}\n')
        os.chmod("/run/bin/ip", 0o755)
        self.lab.start(one_uplink(), environment={"PATH": "/run/bin:" + os.environ["PATH"]})
        expect(lambda: os.path.exists(commands))
        with open(commands, encoding="ascii") as file:
            self.assertEqual(file.read(), "route flush cache\n")

    def test_without_a_pid_file_there_is_a_debug_line(self):
        self.lab.start(one_uplink())
        lines = expect(lambda: [line for line in self.lab.log.lines() if line.text == NO_PID])
        self.assertEqual(lines[0].severity, DEBUG)
        self.assertEqual(self.lab.fragment(), fragment(VIA_1))

    def test_empty_pid_file_is_like_none(self):
        self.assert_signals_nobody("")
        expect(lambda: NO_PID in self.lab.log.texts())

    def test_pid_file_with_garbage_signals_nobody(self):
        self.assert_signals_nobody("garbage\n")

    def test_pid_0_does_not_signal_the_daemons_own_group(self):
        self.assert_signals_nobody("0\n")

    def test_pid_minus_1_does_not_signal_everyone(self):
        self.assert_signals_nobody("-1\n")

    def test_negative_pid_does_not_signal_a_group(self):
        self.assert_signals_nobody(lambda daemon: f"-{daemon.pid}\n")

    def assert_signals_nobody(self, pid_text):
        """A bystander in the daemon's process group stands for all who must not be signalled."""
        self.one.echo = policy.silence
        daemon = self.lab.start(one_uplink())
        text = pid_text(daemon) if callable(pid_text) else pid_text
        bystander = self.lab.routing_daemon(pid_text=text, group=daemon.pid)
        self.one.echo = policy.answer
        expect(lambda: self.lab.fragment() == fragment(VIA_1))
        self.lab.cycles.never(bystander.hups, cycles=1)
        self.assertTrue(daemon.running())

    def test_process_that_is_gone_is_no_error(self):
        captured = self.lab.routing_daemon()
        os.kill(captured.pid, signal.SIGKILL)
        self.lab.start(one_uplink())
        expect(lambda: self.lab.fragment() == fragment(VIA_1))
        self.assertEqual(self.lab.log.errors(), [])

    def test_rule_of_another_namespace_adds_no_route(self):
        self.lab.start(one_uplink().rule("2_ipv4", {"gi1_1": 1}, {"198.18.8.0/24": None},
                                         namespace="blue"))
        expect(lambda: self.lab.fragment() == fragment(VIA_1))

    def test_rule_without_targets_adds_no_route(self):
        self.lab.start(one_uplink().rule("2_ipv4", {"gi1_1": 1}))
        expect(lambda: self.lab.fragment() == fragment(VIA_1))

    def test_destination_of_two_rules_stands_twice(self):
        self.lab.start(one_uplink().rule("2_ipv4", {"gi1_1": 7}, {PREFIX: None}))
        expect(lambda: self.lab.fragment() == fragment(
            VIA_1, f"route {PREFIX} multipath via {GATEWAY} weight 7;"))

    def test_prefix_without_a_usable_interface_gets_no_line(self):
        self.two.echo = policy.silence
        self.lab.start(two_uplinks().rule("2_ipv4", {"gi1_2": 1}, {"198.18.8.0/24": None}))
        expect(lambda: self.lab.fragment() == fragment(VIA_1))


if __name__ == "__main__":
    main()

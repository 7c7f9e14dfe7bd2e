"""The tour of test_lbcheck_live.py goes on with daemons that run: dead ones, old dumps, routes of others, routing daemons that refuse.

    router                                    far
      gi1_1 192.0.2.10/24 ------------------- scripted peer 192.0.2.1
      gi1_2 203.0.113.10/24 ----------------- scripted peer 203.0.113.1
"""
import os
import shutil
import unittest

from kit import Conf, expect, main, ping
from kit.lab import OUTPUT_DIRECTORY
from kit.lbcheck import Look
from kit.lbroute import path_of, start
from kit.newer_bird import NewerBird, newer_bird_binary, why_absent
from kit.routing_daemon import bird_binary, next_hops, pid_path, why_no_bird
from look_scene import RoutedTour
from scenes import GATEWAY, GATEWAY_2, PREFIX, ROUTER, two_uplinks
from scenes6 import GATEWAY6, PREFIX6, ROUTER6, TARGET6

DUMPS = os.path.join(OUTPUT_DIRECTORY, "wlb_dump")
IPV4_DUMP, IPV6_DUMP = (os.path.join(DUMPS, f"wlb_ipv{family}_outbounds.bin") for family in (4, 6))


def make_older(by_s, names=None):
    for name in names or os.listdir(DUMPS):
        path = os.path.join(DUMPS, name)
        written_s = os.stat(path).st_mtime
        os.utime(path, (written_s - by_s, written_s - by_s))


def with_metric(lab, metric):
    """two_uplinks() whose route has a metric; the path of the file."""
    conf = two_uplinks()
    text = conf.text().replace(f"address {PREFIX}", f"address {PREFIX}\n        metric {metric}")
    path = lab.write_conf(conf)
    with open(path, "w", encoding="ascii") as file:
        file.write(text)
    return path


class Shadowed(RoutedTour):
    def test_route_of_others_with_a_lower_metric(self):
        path = with_metric(self.lab, 100)
        start(self.lab)
        self.lab.run_daemon("-f", path)
        expect(lambda: len(path_of(self.router, PREFIX) or ()) == 2, within=20)
        self.router.ip(f"route add {PREFIX} via {GATEWAY} metric 50")
        look = self.assert_finds("error", f"route {PREFIX} (IPv4): a route of others with a lower metric, or the same, is used",
                                 "ip route del")
        # The command is one that helps.
        self.router.run(*look.with_words("lower metric")[0].partition("; mend: ")[2].split())
        self.assert_finds("ok", f"route {PREFIX} (IPv4): the kernel routes as the fragment asks")


class OfLbroute(RoutedTour):
    def setUp(self):
        super().setUp()
        self.lab.write_conf(two_uplinks())
        self.program = start(self.lab)
        self.daemon = self.lab.start(two_uplinks())
        expect(lambda: len(path_of(self.router, PREFIX) or ()) == 2, within=20)

    def test_router_that_works_has_no_error_and_no_warning(self):
        def well():
            return [line for state in ("error", "warning") for line in Look(self.router).of(state)] == []
        expect(well, within=10)
        look = Look(self.router)
        self.assert_finds("ok", f"route {PREFIX} (IPv4): the kernel routes as the fragment asks", look=look)
        self.assert_finds("ok", "routing daemon of IPv4", "(lbroute)", look=look)
        self.assert_finds("ok", "dumps of IPv4: they are of now", look=look)
        for name in ("gi1_1", "gi1_2"):
            self.assert_finds("ok", f"{name} (IPv4): the daemon holds it for active", look=look)

    def test_daemon_that_is_dead_and_what_it_left_of_an_earlier_configuration(self):
        # The first dumps follow the first fragment.
        expect(lambda: os.path.exists(IPV4_DUMP) and os.path.exists(os.path.join(DUMPS, "wlb_routes.bin")))
        self.daemon.kill()
        make_older(40)
        self.assert_finds("error", "dumps of IPv4: they were written 4", "does not run, or hangs",
                          "mend: systemctl restart lb")
        shutil.copy(IPV4_DUMP, IPV6_DUMP)
        make_older(400, [os.path.basename(IPV6_DUMP)])
        self.assert_finds("warning", "dumps of IPv6: they are of an earlier configuration", f"mend: rm {IPV6_DUMP}")
        make_older(-4000)
        self.assert_finds("error", "dumps of IPv4: they are from the future", "systemctl restart lb")

    def test_route_that_is_missing_or_in_whose_place_another_stands(self):
        self.program.end()
        self.assert_finds("error", "routing daemon of IPv4", "names no process")
        self.router.ip(f"route del {PREFIX} proto 76")
        self.assert_finds("error", f"route {PREFIX} (IPv4): the kernel has it otherwise", "(missing)",
                          "systemctl restart lbroute")
        self.router.ip(f"route add {PREFIX} via {GATEWAY}")
        self.assert_finds("error", f"route {PREFIX} (IPv4): a route of others stands in its place", "ip route del")


@unittest.skipUnless(bird_binary(), why_no_bird())
class OfBird(RoutedTour):
    def test_bird_that_takes_the_fragment_and_one_that_has_died(self):
        bird = self.lab.bird(ROUTER)
        self.lab.start(two_uplinks())
        expect(lambda: next_hops(self.router, "-4", PREFIX) == {GATEWAY: 1, GATEWAY_2: 3}, within=20)
        look = self.assert_finds("ok", "routing daemon of IPv4", "(bird), which takes the fragment")
        self.assert_finds("ok", f"route {PREFIX} (IPv4): the kernel routes as the fragment asks", look=look)
        bird.end()
        self.assert_finds("error", "routing daemon of IPv4", "which does not run")

    def test_bird_that_refuses_the_fragment(self):
        self.lab.bird(ROUTER)
        self.lab.run_daemon("-f", with_metric(self.lab, 10))
        expect(lambda: "metric" in (self.lab.fragment() or ""), within=20)
        look = self.assert_finds("error", "routing daemon of IPv4", "refuses its configuration with the fragment in it",
                                 "syntax error")
        self.assert_finds("error", f"route {PREFIX} (IPv4): the kernel has none", look=look)

    def test_mistakes_for_which_bird_refuses_everything_are_named_in_the_file(self):
        self.lab.bird(ROUTER)
        conf = two_uplinks()
        path = self.lab.write_conf(conf)
        with open(path, "w", encoding="ascii") as file:
            file.write(conf.text().replace(PREFIX, "10.1.2.3/8"))
        self.lab.run_daemon("-f", path)
        expect(lambda: "10.1.2.3/8" in (self.lab.fragment() or ""), within=20)
        look = self.assert_finds("error", "routing daemon of IPv4", "refuses its configuration with the fragment in it")
        self.assertEqual([one["text"] for one in look.findings if "write 10.0.0.0/8" in one["message"]],
                         ["address 10.1.2.3/8"])

    def test_bird_of_the_other_family(self):
        self.lab.bird(ROUTER)
        shutil.copy(pid_path(), pid_path(ipv6=True))
        self.lab.write_conf(Conf().interface("gi1_1", nexthop=GATEWAY6, source=ROUTER6, ipv6=True, probes=[ping(TARGET6)])
                            .rule("1_ipv6", interfaces6={"gi1_1": 1}, targets={PREFIX6: None}))
        self.assert_finds("error", "routing daemon of IPv6", "(bird), which is of the other family", "number of bird6")


@unittest.skipUnless(newer_bird_binary(2), why_absent(2))
class OfNewerBird(RoutedTour):
    def test_bird_that_cannot_read_fragments(self):
        included = os.path.join(self.folder, "empty.conf")
        with open(included, "w", encoding="ascii"):
            pass
        bird = NewerBird(self.router, self.folder, 2, included)
        self.lab.own(bird.close)
        bird.start()
        with open(pid_path(), "w", encoding="ascii") as file:
            file.write(f"{bird.pid}\n")
        self.lab.write_conf(two_uplinks())
        self.assert_finds("error", "routing daemon of IPv4", "cannot read fragments", "lbroute --bird2")


if __name__ == "__main__":
    main()

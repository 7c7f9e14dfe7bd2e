"""The whole road: lb probes and decides, lbroute puts it into force.

    client                     router                                far
      lan 10.1.0.2/24 -------- lan 10.1.0.1/24
                               gi1_1 192.0.2.10/24 ---------------- scripted peer 192.0.2.1    weight 1
                               gi1_2 203.0.113.10/24 -------------- scripted peer 203.0.113.1  weight 3
    and for IPv6
                               gi1_1 2001:db8:1::10/64 ------------ scripted peer fe80::1  weight 1
                               gi1_2 2001:db8:2::10/64 ------------ scripted peer fe80::1  weight 1

As with a virtual router, both peers of IPv6 have one hardware address: the daemon looks it up by
the address alone.
"""
import os
import shutil
import signal
import socket

from kit import Conf, expect, main, ping
from kit import echo_policies as policy
from kit.lab import CONF, LabTest
from kit.lbroute import assert_stays, own_objects, path_of, route, start, status, write_fragment
from kit.lbwatch import Lbwatch
from kit.netns import Namespace
from kit.prometheus import ask
from scenes import GATEWAY, GATEWAY_2, PREFIX, ROUTER, ROUTER_2, TARGET, attach_two, two_uplinks
from scenes6 import PREFIX6, TARGET6, TARGET6_2

ONE, TWO = (GATEWAY, "gi1_1"), (GATEWAY_2, "gi1_2")
SHARED = "fe80::1"
ONE6, TWO6 = (SHARED, "gi1_1"), (SHARED, "gi1_2")
SHARED_MAC = "00:00:5e:00:02:01"


class Road(LabTest):
    def run_both(self, conf, *arguments):
        self.lab.write_conf(conf)
        self.program = start(self.lab, *arguments)
        self.daemon = self.lab.run_daemon("-f", CONF)

    def expect_path(self, path, prefix=PREFIX):
        expect(lambda: path_of(self.lab.router, prefix) == path, within=20,
               what=f"{prefix} is routed over {path}")


class Leaving(Road):
    def test_namespace_that_leaves_the_configuration_is_left_while_the_dumps_still_name_it(self):
        attach_two(self.lab)
        blue = self.lab.namespace("blue")
        self.lab.uplink("gi1_3", "198.51.100.10/24", "198.51.100.254", namespace=blue, known=True)
        self.run_both(two_uplinks().interface("gi1_3", nexthop="198.51.100.254", namespace="blue", probes=[ping(TARGET)])
                      .rule("3_ipv4", {"gi1_3": 1}, {PREFIX: None}, namespace="blue"))
        self.expect_path({ONE: 1, TWO: 3})
        expect(lambda: path_of(blue, PREFIX) == {("198.51.100.254", "gi1_3"): 1}, within=20)
        self.lab.write_conf(two_uplinks())
        told = expect(lambda: self.program.lines("namespace blue is not served any more: "))
        self.lab.router.run("sh", "-c", told[0].partition("which end with: ")[2])
        # The daemon goes on with what it read at its start, dumps and signals included.
        assert_stays(lambda: path_of(blue, PREFIX) is None, during=4)
        self.assertEqual(status(self.lab.router)[0], 0)


class Ipv4(Road):
    def setUp(self):
        super().setUp()
        self.peers = attach_two(self.lab)

    def test_watcher_tells_that_the_routing_daemon_has_died(self):
        os.system("ip link set lo up")
        self.run_both(two_uplinks())
        watch = Lbwatch(self.folder, "--listen", "127.0.0.1:9837")
        self.addCleanup(watch.close)
        watch.expect_state("gi1_1", "active")
        routers = 'lb_router_up{family="ipv4",namespace=""} '
        expect(lambda: routers + "1\n" in ask(9837, "/metrics"))
        self.program.end(signal.SIGKILL)
        expect(lambda: routers + "0\n" in ask(9837, "/metrics"))

    def test_routes_follow_an_outage_and_its_end(self):
        self.run_both(two_uplinks())
        self.expect_path({ONE: 1, TWO: 3})
        self.peers[1].echo = policy.silence
        self.expect_path({ONE: 1})
        self.peers[1].echo = policy.answer
        self.expect_path({ONE: 1, TWO: 3})
        self.assertEqual(status(self.lab.router)[0], 0)

    def test_routes_go_when_all_uplinks_are_down_and_come_back_with_the_first(self):
        self.run_both(two_uplinks())
        self.expect_path({ONE: 1, TWO: 3})
        for peer in self.peers:
            peer.echo = policy.silence
        self.expect_path(None)
        expect(lambda: own_objects(self.lab.router) == [])
        self.peers[0].echo = policy.answer
        self.expect_path({ONE: 1})

    def test_signal_of_the_daemon_alone_is_enough(self):
        """The daemon finds the process number, though it wrote its fragment before."""
        self.lab.write_conf(two_uplinks())
        self.daemon = self.lab.run_daemon("-f", CONF)
        expect(self.lab.fragment)
        self.program = start(self.lab)
        self.expect_path({ONE: 1, TWO: 3})
        self.peers[0].echo = policy.silence
        self.expect_path({TWO: 3})

    def test_end_of_the_daemon_leaves_the_routes(self):
        self.run_both(two_uplinks())
        self.expect_path({ONE: 1, TWO: 3})
        self.daemon.kill(15)
        assert_stays(lambda: path_of(self.lab.router, PREFIX) == {ONE: 1, TWO: 3}, during=1)
        self.assertTrue(self.program.running())
        write_fragment(route(PREFIX, GATEWAY))
        self.expect_path({ONE: 1})


class TranslatedFlows(Road):
    """Masqueraded flows of an uplink that left go on over what is left, at once."""

    def setUp(self):
        super().setUp()
        if not shutil.which("nft") or not shutil.which("conntrack"):
            self.skipTest("no nft or conntrack")
        router = self.lab.router
        self.peers = attach_two(self.lab)
        self.client = Namespace.anonymous()
        self.lab.own(self.client.close)
        router.ip(f"link add lan up type veth peer name lan netns {self.client.path}")
        router.ip("address add 10.1.0.1/24 dev lan")
        self.client.ip("address add 10.1.0.2/24 dev lan")
        self.client.ip("link set lan up")
        self.client.ip("route add default via 10.1.0.1")
        expect(lambda: " state UP " in router.ip("link show lan"))
        router.sysctl("ipv4/ip_forward", "1")
        router.sysctl("ipv4/fib_multipath_hash_policy", "1")
        router.run("nft", 'table ip nat { chain out { type nat hook postrouting priority 100; '
                          'oifname "gi1_*" masquerade; }; }')

    def talk(self):
        with self.client.inside():
            for port in range(20000, 20060):
                with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
                    sender.bind(("10.1.0.2", port))
                    sender.sendto(b"on", ("198.18.0.9", 9))

    def flows(self, address):
        """Ports of the client's flows translated to an address."""
        lines = self.lab.router.run("conntrack", "-L", "-p", "udp", check=False).splitlines()
        return {line.split("sport=")[1].split()[0] for line in lines
                if "src=10.1.0.2" in line and f"dst={address} " in line}

    def lose_the_second(self, *arguments):
        self.run_both(two_uplinks(), *arguments)
        self.expect_path({ONE: 1, TWO: 3})
        self.talk()
        before = expect(lambda: self.flows(ROUTER) and self.flows(ROUTER_2) and
                        (self.flows(ROUTER), self.flows(ROUTER_2)))
        self.assertEqual(sum(len(ports) for ports in before), 60)
        self.peers[1].echo = policy.silence
        self.expect_path({ONE: 1})
        return before

    def test_flows_of_the_lost_uplink_are_translated_anew_and_others_stay(self):
        of_one, of_two = self.lose_the_second()
        expect(lambda: not self.flows(ROUTER_2))
        self.assertEqual(self.flows(ROUTER), of_one)
        self.talk()
        expect(lambda: self.flows(ROUTER) == of_one | of_two)
        self.assertTrue(self.program.lines(f"forgot {len(of_two)} flows translated to {ROUTER_2}"))

    def test_flows_stay_where_that_is_asked_for(self):
        _, of_two = self.lose_the_second("--keep-flows")
        assert_stays(lambda: self.flows(ROUTER_2) == of_two, during=1)
        self.peers[1].echo = policy.answer
        self.expect_path({ONE: 1, TWO: 3})


class LinkLocal(Road):
    def setUp(self):
        super().setUp()
        self.peers = [self.lab.uplink(f"gi1_{number}", address6=f"2001:db8:{number}::10/64",
                                      gateway6=SHARED) for number in (1, 2)]
        for number, peer in enumerate(self.peers, 1):
            self.lab.far.ip(f"link set far{number} address {SHARED_MAC}")
            peer.mac = bytes.fromhex(SHARED_MAC.replace(":", ""))

    def conf(self, weights=(1, 1)):
        conf = Conf()
        for number, target in ((1, TARGET6), (2, TARGET6_2)):
            conf.interface(f"gi1_{number}", nexthop=SHARED, source=f"2001:db8:{number}::10",
                           probes=[ping(target, 300)], ipv6=True)
        return conf.rule("1_ipv6", interfaces6=dict(zip(("gi1_1", "gi1_2"), weights)),
                         targets={PREFIX6: None})

    def test_next_hop_that_two_uplinks_share_is_that_of_the_one_that_works(self):
        self.run_both(self.conf())
        self.expect_path({ONE6: 1, TWO6: 1}, PREFIX6)
        # The fragment says the same of either: only the dumps tell which one it means.
        self.peers[0].echo = policy.silence
        self.expect_path({TWO6: 1}, PREFIX6)
        self.peers[0].echo = policy.answer
        self.expect_path({ONE6: 1, TWO6: 1}, PREFIX6)
        self.peers[1].echo = policy.silence
        self.expect_path({ONE6: 1}, PREFIX6)
        self.assertEqual(status(self.lab.router)[0], 0)

    def test_weights_go_to_the_members_in_the_order_of_their_names(self):
        self.run_both(self.conf((2, 5)))
        self.expect_path({ONE6: 2, TWO6: 5}, PREFIX6)

    def test_plain_route_takes_them_too(self):
        self.run_both(self.conf((2, 5)), "--no-sticky")
        self.expect_path({ONE6: 2, TWO6: 5}, PREFIX6)


if __name__ == "__main__":
    main()

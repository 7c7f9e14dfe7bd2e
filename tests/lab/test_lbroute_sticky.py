"""Busy flows over healthy uplinks stay where they are when another uplink leaves or returns.

    client                     router                               far
      lan 10.1.0.2/24 -------- lan 10.1.0.1/24
                               gi1_1 192.0.2.10/24    ------------- scripted peer 192.0.2.1
                               gi1_2 198.51.100.10/24 ------------- scripted peer 198.51.100.1
                               gi1_3 203.0.113.10/24  ------------- scripted peer 203.0.113.1

A flow is a source port of the client; which peer its datagrams come to tells its uplink.
"""
import socket
import struct
import time

from kit import expect, main
from kit.lbroute import buckets, route, standing
from kit.netns import Namespace
from route_scene import DEFAULT, GATEWAYS, ONE, THREE, TWO, RouteTest

CLIENT, DESTINATION = "10.1.0.2", "172.31.0.9"
FLOWS = range(20000, 20300)
NEW_FLOWS = range(30000, 30300)
HANDFUL = 50
ETHERNET = 14


def source_port(data):
    """The source port of an IPv4 datagram to the destination, None for any other frame."""
    if data[12:14] != b"\x08\x00" or data[ETHERNET + 16:ETHERNET + 20] != socket.inet_aton(DESTINATION):
        return None
    return struct.unpack_from("!H", data, ETHERNET + 20)[0]


class Sticky(RouteTest):
    def setUp(self):
        super().setUp()
        self.client = Namespace.anonymous()
        self.lab.own(self.client.close)
        self.router.ip(f"link add lan up type veth peer name lan netns {self.client.path}")
        self.router.ip("address add 10.1.0.1/24 dev lan")
        self.client.ip(f"address add {CLIENT}/24 dev lan")
        self.client.ip("link set lan up")
        expect(lambda: " state UP " in self.router.ip("link show lan"))
        self.client.ip("route add default via 10.1.0.1")
        self.router.sysctl("ipv4/ip_forward", "1")
        self.router.sysctl("ipv4/fib_multipath_hash_policy", "1")

    def talk(self, ports=FLOWS):
        """One datagram of each flow; {port: number of the uplink that it took}."""
        before = [len(peer.frames()) for peer in self.peers]
        found = {}
        # In handfuls, and again what a busy machine's sockets lost.
        for start in range(0, len(ports), HANDFUL):
            handful = ports[start:start + HANDFUL]

            def has_arrived(handful=handful):
                self.send(port for port in handful if port not in found)
                time.sleep(0.005)
                self.note(found, before, handful)
                return found.keys() >= set(handful)
            expect(has_arrived, what="a datagram of every flow arrived")
        return found

    def keep_talking(self):
        """Flows that are busy: to the kernel a datagram does not count as use of a bucket that moved within the same tick
        of its clock, so a second one follows."""
        self.talk()
        return self.talk()

    def send(self, ports):
        with self.client.inside():
            for port in ports:
                with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
                    sender.bind((CLIENT, port))
                    sender.sendto(b"on", (DESTINATION, 9))

    def note(self, found, before, ports):
        """Notes the uplinks of the flows whose datagrams came since; each flow has just one."""
        for number, (peer, start) in enumerate(zip(self.peers, before), 1):
            for frame in peer.frames()[start:]:
                port = source_port(frame.data)
                if port in ports:
                    self.assertEqual(found.setdefault(port, number), number)

    @staticmethod
    def moved(before, after, but=None):
        """Flows that took another uplink than before, but those that took `but`."""
        return [port for port in before if before[port] not in (but, after[port])]

    def route_over(self, *gateways, path):
        self.write(route(DEFAULT, *gateways))
        self.expect_path(path)


class TwoUplinks(Sticky):
    """The kernel keeps no idle times for a group of one next hop: the pair in its place does."""

    def test_no_busy_flow_of_the_other_uplink_moves_when_one_leaves_and_returns(self):
        self.route_over_two_from_the_start()
        first = self.talk()
        self.assertEqual(set(first.values()), {1, 2})
        self.route_over(GATEWAYS[0], path={ONE: 1})
        alone = self.keep_talking()
        self.assertEqual(self.moved(first, alone, but=2), [])
        self.assertEqual(set(alone.values()), {1})
        self.route_over(*GATEWAYS[:2], path={ONE: 1, TWO: 1})
        # All of them spoke within the idle timer, most only while there was one uplink.
        self.assertEqual(self.moved(alone, self.talk()), [])
        # The uplink that returned has the buckets that nobody used: new flows take them.
        self.assertEqual(set(self.talk(NEW_FLOWS).values()), {1, 2})
        self.assertEqual(self.moved(alone, self.talk()), [])

    def route_over_two_from_the_start(self):
        self.write(route(DEFAULT, *GATEWAYS[:2]))
        self.start()

    def test_buckets_of_the_uplink_that_stays_are_left_to_it(self):
        self.route_over_two_from_the_start()
        group = standing(self.router, DEFAULT)["nhid"]
        before = buckets(self.router, group)
        objects = self.objects_of("gi1_1")
        self.route_over(GATEWAYS[0], path={ONE: 1})
        after = buckets(self.router, group)
        kept = [index for index, owner in before.items() if owner in objects]
        self.assertEqual(len(objects), 2)
        self.assertEqual(len(kept), len(before) // 2)
        self.assertEqual([index for index in kept if after[index] != before[index]], [])
        self.assertEqual(set(after.values()), set(objects))

    def objects_of(self, device):
        return [int(line.split()[1]) for line in self.router.ip(f"nexthop show dev {device}").splitlines()]

    def test_lost_carrier_and_its_return_move_no_busy_flow_of_the_other_uplink(self):
        self.route_over_two_from_the_start()
        first = self.talk()
        self.peers[1].link("down")
        self.expect_path({ONE: 1})
        alone = self.keep_talking()
        self.assertEqual(self.moved(first, alone, but=2), [])
        self.peers[1].link("up")
        self.expect_path({ONE: 1, TWO: 1})
        self.assertEqual(self.moved(alone, self.talk()), [])

    def test_restart_moves_no_flow(self):
        self.route_over_two_from_the_start()
        first = self.talk()
        self.program.end(9)
        self.start()
        self.assertEqual(self.moved(first, self.talk()), [])


class ThreeUplinks(Sticky):
    def flows_that_moved(self, *arguments):
        """Busy flows of the other uplinks that moved while one left, and while it returned."""
        self.write(route(DEFAULT, *GATEWAYS))
        self.start(*arguments)
        first = self.talk()
        self.assertEqual(set(first.values()), {1, 2, 3})
        self.route_over(*GATEWAYS[:2], path={ONE: 1, TWO: 1})
        second = self.keep_talking()
        self.route_over(*GATEWAYS, path={ONE: 1, TWO: 1, THREE: 1})
        third = self.talk()
        return len(self.moved(first, second, but=3)), len(self.moved(second, third))

    def test_sticky_routes_move_none(self):
        self.assertEqual(self.flows_that_moved(), (0, 0))

    def test_plain_routes_move_some_so_this_would_be_seen(self):
        leaving, returning = self.flows_that_moved("--no-sticky")
        self.assertGreater(leaving, 0)
        self.assertGreater(returning, 0)


if __name__ == "__main__":
    main()

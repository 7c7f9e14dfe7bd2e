"""What stops a probe from leaving: each reported, each a failed target, never the daemon's end.

    router                                far
      gi1_1 192.0.2.10/24 ---------------- scripted peer 192.0.2.1
      gi1_2 203.0.113.10/24 -------------- scripted peer 203.0.113.1
      gre_1 192.0.2.10 peer 192.0.2.1 ---- scripted peer 192.0.2.1
"""
import errno

from kit import Conf, LabTest, expect, main, ping
from kit.system_log import DEBUG
from scenes import (ACTIVE, ACTIVE_2, GATEWAY, INACTIVE, PREFIX, ROUTER, TARGET, attach_two,
                    changed, error, one_uplink, two_uplinks)

SEND_ERROR = "wan_lb: error on sending icmp packet: "


class Interfaces(LabTest):
    def attach(self, address=ROUTER + "/24", name="gi1_1"):
        return self.lab.uplink(name, address, GATEWAY, known=True)

    def logged(self, text):
        return lambda: text in self.lab.log.texts()

    def test_source_on_no_interface_is_reported_at_every_attempt(self):
        peer = self.attach()
        self.lab.start(one_uplink(source="192.0.2.99"))
        message = error("address '192.0.2.99' not present on any interface")
        expect(lambda: self.lab.log.count(message) >= 2)
        self.assertEqual(peer.echo_requests(), [])

    def test_source_of_another_interface_does_not_serve(self):
        attach_two(self.lab)
        self.lab.start(one_uplink(source="203.0.113.10"))
        expect(self.logged(error("address '203.0.113.10' not present on any interface")))

    def test_source_with_leading_zeros_does_not_serve(self):
        self.attach()
        self.lab.start(one_uplink(source="192.0.2.010"))
        expect(self.logged(error("address '192.0.2.010' not present on any interface")))

    def test_second_address_of_the_interface_serves(self):
        peer = self.attach()
        self.lab.router.ip("address add 192.0.2.11/24 dev gi1_1")
        self.lab.start(one_uplink(source="192.0.2.11"))
        expect(self.logged(ACTIVE))
        self.assertEqual({echo.source for echo in peer.echo_requests()}, {"192.0.2.11"})

    def test_source_of_a_sub_interface_serves(self):
        peer = self.attach()
        self.lab.uplink("gi1_1.100", "203.0.113.77/24")
        self.lab.start(one_uplink(source="203.0.113.77"))
        self.assertEqual(expect(peer.echo_requests)[0].source, "203.0.113.77")

    def test_source_of_a_vrrp_interface_serves(self):
        peer = self.attach()
        self.lab.uplink("vrrp7", "203.0.113.77/24")
        self.lab.start(one_uplink(source="203.0.113.77"))
        self.assertEqual(expect(peer.echo_requests)[0].source, "203.0.113.77")

    def test_interface_without_an_address_sends_nothing_and_turns_no_message_of_its_own(self):
        peer = self.lab.uplink("gi1_1")
        self.lab.start(one_uplink())
        expect(self.logged(INACTIVE))
        self.lab.cycles.never(lambda: peer.echo_requests() or self.lab.log.errors(), cycles=2)

    def test_missing_interface_is_reported_and_the_others_run(self):
        attach_two(self.lab)
        self.lab.router.ip("link delete gi1_1")
        self.lab.start(two_uplinks())
        expect(self.logged(error("ioctl() failed to get source MAC address No such device")))
        expect(self.logged(ACTIVE_2))

    def test_target_that_is_no_address_is_reported(self):
        peer = self.attach()
        self.lab.start(one_uplink(probes=[ping("far.example", 300)]))
        head = error("inet_pton() failed.\nError message: ")
        expect(lambda: any(text.startswith(head) for text in self.lab.log.texts()))
        self.assertEqual(peer.echo_requests(), [])

    def test_interface_that_is_down_is_reported_and_comes_back(self):
        self.attach()
        self.lab.start(one_uplink())
        expect(self.logged(ACTIVE))
        self.lab.router.ip("link set gi1_1 down")
        expect(self.logged(error("<send_arp> sendto() failed")))
        expect(lambda: self.lab.log.count(INACTIVE) == 2)
        self.lab.router.ip("link set gi1_1 up")
        expect(lambda: self.lab.log.count(ACTIVE) == 2)

    def test_failed_send_is_a_debug_line_with_the_error_number(self):
        self.attach()
        self.lab.start(one_uplink())
        expect(self.logged(ACTIVE))
        self.lab.router.ip("link set gi1_1 down")
        # The kernel has forgotten the next hop with the link; known, only the sending fails.
        self.lab.router.ip(f"neigh replace {GATEWAY} lladdr {self.lab.macs()[1]} dev gi1_1 nud permanent")
        text = SEND_ERROR + str(errno.ENETDOWN)
        lines = expect(lambda: [line for line in self.lab.log.lines() if line.text == text])
        self.assertEqual(lines[0].severity, DEBUG)


class Tunnels(LabTest):
    def attach(self, name="gre_1"):
        return self.lab.uplink(name, ROUTER, GATEWAY, point_to_point=GATEWAY)

    def logged(self, text):
        return lambda: text in self.lab.log.texts()

    def test_tunnel_is_probed_through_its_interface(self):
        peer = self.attach()
        self.lab.router.ip(f"route add {TARGET} via {GATEWAY} dev gre_1")
        self.lab.start(one_uplink("gre_1", probes=[ping(TARGET, 900)]))
        expect(self.logged(changed("gre 1", "active")))
        self.assertEqual(peer.echo_requests()[0].sequence, 1)

    def test_modems_and_ipip_tunnels_take_the_same_path(self):
        peers = [self.lab.uplink(name, f"192.0.2.{10 * number}", point_to_point=f"192.0.2.{number}")
                 for number, name in ((1, "modem0"), (2, "ip4ip4_1"))]
        conf = Conf()
        for number, name in ((1, "modem0"), (2, "ip4ip4_1")):
            conf.interface(name, nexthop=f"192.0.2.{number}", probes=[ping(None, 900)])
        self.lab.start(conf.rule("1_ipv4", {"modem0": 1, "ip4ip4_1": 1}, {PREFIX: None}))
        expect(self.logged(changed("modem 0", "active")))
        expect(self.logged(changed("ip4ip4 1", "active")))
        self.assertEqual([peer.echo_requests()[0].sequence for peer in peers], [1, 1])

    def test_name_without_a_tunnels_word_takes_the_frame_path(self):
        peer = self.lab.uplink("tun0", ROUTER + "/24", GATEWAY, known=True)
        self.lab.start(one_uplink("tun0"))
        self.assertEqual(expect(peer.echo_requests)[0].sequence, 0)

    def test_missing_tunnel_is_reported_by_its_router_name(self):
        self.lab.start(one_uplink("gre_9"))
        expect(self.logged(error("wan_lb: failure to bind to interface: gre 9")))

    def test_missing_tunnel_without_a_router_name_is_an_unknown_interface(self):
        self.lab.start(one_uplink("mygre"))
        expect(self.logged(error("wan_lb: failure to bind to interface: unknown interface")))

    def test_host_name_is_resolved_and_then_refused(self):
        self.attach()
        self.lab.start(one_uplink("gre_1", probes=[ping("localhost", 300)]))
        head = error("inet_aton() failed: ")
        expect(lambda: any(text.startswith(head) for text in self.lab.log.texts()))

    def test_host_name_that_nobody_knows_is_reported(self):
        self.attach()
        self.lab.start(one_uplink("gre_1", probes=[ping("far.invalid", 300)]))
        expect(self.logged(error("wan_lb: error in resolving configured hostname: far.invalid")),
               within=30)

    def test_unreachable_network_is_silent(self):
        peer = self.attach()
        self.lab.router.ip("link set gre_1 down")
        self.lab.start(one_uplink("gre_1"))
        expect(self.logged(changed("gre 1", "inactive")))
        self.lab.cycles.never(lambda: self.lab.log.texts()[1:], cycles=3)
        self.assertEqual(peer.echo_requests(), [])


if __name__ == "__main__":
    main()

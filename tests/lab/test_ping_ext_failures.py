"""What stops a run of the extended ping before its first echo: each is reported and is a failed target.

    router                                        far
      gi1_1 192.0.2.10/24 ------------------------ scripted peer 192.0.2.1
      gre_1 192.0.2.10 peer 192.0.2.1 ------------ scripted peer 192.0.2.1
"""
from kit import expect, main
from kit.system_log import DEBUG
from ping_scene import FAILURE, Pinging, after_a_run
from scenes import GATEWAY, INACTIVE, ROUTER, TARGET, changed, error, one_uplink, warning

ETHERNET_HEADER, IPV4_HEADER = 14, 20


class Interfaces(Pinging):
    def assert_failed(self, peer=None):
        probe = after_a_run(FAILURE)
        self.assertEqual((probe.failures, probe.figures), (1, (0, 0, 0)))
        if peer:
            self.assertEqual(peer.echo_requests(), [])

    def test_missing_interface_is_reported(self):
        self.start()
        self.expect_logged(error("ioctl() failed to get source MAC address No such device"))
        self.assert_failed()

    def test_target_that_is_no_address_is_reported(self):
        peer = self.attach()
        self.start(target="far.example")
        self.expect_logged(error("inet_pton() failed.\nError message: Invalid argument"))
        self.assert_failed(peer)

    def test_interface_without_an_address_fails_without_a_message(self):
        peer = self.lab.uplink("gi1_1")
        self.start()
        self.assert_failed(peer)
        self.assertEqual(self.lab.log.errors(), [])

    def test_unknown_next_hop_is_asked_for_and_fails_the_run(self):
        peer = self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY)
        peer.arp_delay_s = 1.0  # not within the cycle that asks
        self.start()
        expect(lambda: peer.arp_requests(GATEWAY))
        self.assert_failed(peer)

    def test_next_hop_that_was_asked_for_serves_a_later_run(self):
        peer = self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY)
        self.start(count=2, period=0)
        expect(lambda: len(peer.echo_requests()) >= 2)

    def test_next_hop_that_is_silent_for_arp_fails_every_run(self):
        peer = self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY)
        peer.arp_silent = True
        self.start(period=0)
        expect(lambda: len(peer.arp_requests(GATEWAY)) >= 3)
        self.assert_failed(peer)

    def test_modem_is_probed_by_frames(self):
        peer = self.lab.uplink("modem0", ROUTER + "/24", GATEWAY, known=True)
        self.start(interface="modem0", count=1)
        self.assertEqual(len(expect(peer.echo_frames)[0].data), 46)


class Tunnels(Pinging):
    def attach_tunnel(self, name="gre_1"):
        return self.lab.uplink(name, ROUTER, GATEWAY, point_to_point=GATEWAY)

    def assert_takes_the_tunnels_path(self, name):
        peer = self.attach_tunnel(name)
        self.start(target=GATEWAY, interface=name, count=1)
        self.assertEqual(len(expect(peer.echo_frames)[0].data), ETHERNET_HEADER + IPV4_HEADER + 24)

    def test_ipip_tunnel_takes_the_tunnels_path(self):
        self.assert_takes_the_tunnels_path("ip4ip4_1")

    def test_tunnels_word_anywhere_in_the_name_takes_the_tunnels_path(self):
        self.assert_takes_the_tunnels_path("wangre7")

    def test_tunnel_echo_goes_where_the_kernel_routes_it(self):
        peer = self.attach_tunnel()
        self.lab.router.ip(f"route add {TARGET} via {GATEWAY} dev gre_1")
        self.start(interface="gre_1", count=2)
        self.expect_logged(changed("gre 1", "active"))
        packet = peer.echo_frames()[0].decoded()
        self.assertEqual((packet["IP"].src, packet["IP"].dst, packet["IP"].len, packet["ICMP"].seq),
                         (ROUTER, TARGET, 44, 0))

    def test_tunnel_echo_has_right_checksums_to_scapy(self):
        peer = self.attach_tunnel()
        self.start(target=GATEWAY, interface="gre_1", count=3)
        expect(lambda: len(peer.echo_frames()) == 3)
        for frame in peer.echo_frames():
            packet = frame.decoded()
            rebuilt = packet.copy()
            del rebuilt["ICMP"].chksum
            self.assertEqual(packet["ICMP"].chksum, type(packet)(bytes(rebuilt))["ICMP"].chksum)

    def assert_reported(self, text, **start):
        self.start(**start)
        self.expect_logged(text)
        self.assertEqual(after_a_run(FAILURE).failures, 1)

    def test_missing_tunnel_is_reported_by_its_router_name(self):
        self.assert_reported(warning("Failure to bind to interface: gre 9"), interface="gre_9")

    def test_missing_tunnel_without_a_router_name_is_an_unknown_interface(self):
        self.assert_reported(warning("Failure to bind to interface: unknown interface"),
                             interface="mygre")

    def test_host_name_is_resolved_and_then_refused(self):
        peer = self.attach_tunnel()
        self.assert_reported(error("inet_aton() failed: Invalid argument"), interface="gre_1",
                             target="localhost")
        self.assertEqual(peer.echo_requests(), [])

    def test_host_name_that_nobody_knows_is_reported(self):
        peer = self.attach_tunnel()
        self.start(interface="gre_1", target="far.invalid")
        expect(lambda: warning("Error in resolving configured hostname: far.invalid")
               in self.lab.log.texts(), within=30)
        self.assertEqual(after_a_run(FAILURE).failures, 1)
        self.assertEqual(peer.echo_requests(), [])

    def test_unreachable_network_is_a_silent_failure(self):
        peer = self.attach_tunnel()
        self.lab.router.ip("link set gre_1 down")
        self.start(interface="gre_1", target=GATEWAY)
        self.assertEqual(after_a_run(FAILURE).failures, 1)
        self.assertEqual(self.lab.log.texts(), [changed("gre 1", "inactive")])
        self.assertEqual(peer.echo_requests(), [])

    def test_tunnel_without_an_answer_is_a_debug_line(self):
        peer = self.attach_tunnel()
        peer.echo = lambda request, number: []
        self.start(interface="gre_1", target=GATEWAY, count=4)
        self.assertEqual(after_a_run(FAILURE).figures, (0, 0, 0))
        self.assertEqual(len(self.lab.log.texts(DEBUG)), 1)
        self.assertEqual(len(peer.echo_requests()), 1)


if __name__ == "__main__":
    main()

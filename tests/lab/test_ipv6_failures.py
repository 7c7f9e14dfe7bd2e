"""What stops an IPv6 probe or a neighbour's entry: each reported, never the daemon's end.

    router                                far
      gi1_1 2001:db8::10/64 -------------- scripted peer 2001:db8::1:2:3
      gi1_2 2001:db8:2::10/64 ------------ scripted peer 2001:db8:2::1
"""
import errno

from kit import expect, main, packets
from kit.system_log import DEBUG
from scenes import error
from scenes6 import (ACTIVE6, FAR_MAC, GATEWAY6, INACTIVE6, NEAR_MAC, ROUTER6, Ipv6Test, attach_two6,
                     changed6, one_uplink6, two_uplinks6)

ACTIVE6_2 = changed6("active", "gigabitethernet 1/0/2")
NO_ADDRESS = "inet_pton() failed.\nError message: Success"


class Probes(Ipv6Test):
    def test_missing_interface_is_reported_and_the_others_run(self):
        attach_two6(self.lab)
        self.lab.router.ip("link delete gi1_1")
        self.lab.start(two_uplinks6())
        expect(self.logged(error("ioctl() failed to get source MAC adds No such device")))
        expect(self.logged(ACTIVE6_2))

    def test_target_that_is_no_address_is_reported(self):
        peer = self.attach()
        self.know_gateway()
        self.lab.start(one_uplink6(target="far.example"))
        expect(self.logged(error(NO_ADDRESS)))
        self.assertEqual(peer.echo_requests(), [])

    def test_failed_send_is_a_debug_line_with_the_error_number(self):
        self.attach()
        self.lab.start(one_uplink6())
        expect(self.logged(ACTIVE6))
        self.lab.router.ip("link set gi1_1 down")
        self.know_gateway()
        text = f"wan_lb: error on sending icmp6 packet: {errno.ENETDOWN}"
        lines = expect(lambda: [line for line in self.lab.log.lines() if line.text == text])
        self.assertEqual(lines[0].severity, DEBUG)
        expect(lambda: self.lab.log.count(INACTIVE6) == 2)

    def test_unreadable_source_is_told_on_standard_error_when_the_next_hop_is_unknown(self):
        peer = self.attach()
        daemon = self.lab.start(one_uplink6(source="2001:db8::zz"))
        expect(lambda: daemon.stderr.count(NO_ADDRESS) >= 2)
        self.assertEqual(self.solicitations() + peer.echo_requests(), [])
        self.assertNotIn(error(NO_ADDRESS), self.lab.log.texts())

    def test_probe_that_is_never_answered_by_a_neighbour_fails_its_target(self):
        peer = self.attach()
        self.lab.start(one_uplink6())
        expect(self.logged(ACTIVE6))
        peer.arp_silent = True
        self.lab.forget_neighbours("gi1_1")
        expect(lambda: self.lab.log.count(INACTIVE6) == 2)
        peer.arp_silent = False
        expect(lambda: self.lab.log.count(ACTIVE6) == 2)


class Entries(Ipv6Test):
    def test_entry_that_the_kernel_refuses_is_reported_with_its_reason(self):
        self.attach()
        self.lab.router.ip("link set gi1_1 mtu 1200")  # too small for IPv6: the kernel drops it
        self.lab.start(one_uplink6())
        expect(self.logged(error("RTNETLINK answers: Invalid argument")))
        self.assertEqual(self.entry(), "")

    def test_refused_entry_does_not_end_the_receiver(self):
        self.attach()
        self.lab.router.ip("link set gi1_1 mtu 1200")
        self.lab.start(one_uplink6())
        expect(self.logged(error("RTNETLINK answers: Invalid argument")))
        self.lab.router.ip("link set gi1_1 mtu 1500")
        self.lab.router.sysctl("ipv6/conf/gi1_1/disable_ipv6", "0")
        self.lab.router.ip(f"address add {ROUTER6}/64 dev gi1_1 nodad")
        expect(lambda: FAR_MAC in self.entry())

    def test_answer_for_an_interface_that_is_gone_is_reported(self):
        one, two = attach_two6(self.lab)
        one.arp_silent = True
        self.lab.start(two_uplinks6())
        expect(self.solicitations)
        self.lab.router.ip("link delete gi1_1")
        two.send(packets.advertisement(two.mac, GATEWAY6, packets.mac_bytes(NEAR_MAC),
                                       "2001:db8:2::10"))
        expect(self.logged(error("if_nametoindex() failed to obtain interface index "
                                 "No such device")))
        expect(self.logged(ACTIVE6_2))


if __name__ == "__main__":
    main()

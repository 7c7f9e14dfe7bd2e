"""A tour of the failures that no log tells: each on a real kernel, found by one command with its mend.

    router (nothing of ours runs on it yet)      far
      gi1_1 192.0.2.10/24 ---------------------- scripted peer 192.0.2.1
      gi1_2 203.0.113.10/24 -------------------- scripted peer 203.0.113.1
"""
import os
import shutil
import time

from kit import Conf, LabTest, main, ping
from kit import echo_policies as policy
from kit.lbcheck import Look
from kit.routing_daemon import fragment_path, pid_path
from scenes import (GATEWAY, GATEWAY_2, PREFIX, TARGET, TARGET_2, attach_two, two_uplinks)
from scenes6 import GATEWAY6, ROUTER6

LEASE = "/var/db/dhclient_gi1_1.leases"


class Tour(LabTest):
    """Before the first start of the daemon."""

    def setUp(self):
        super().setUp()
        self.router = self.lab.router
        self.peers = attach_two(self.lab)
        for name in ("all", "default", "gi1_1", "gi1_2"):
            self.router.sysctl(f"ipv4/conf/{name}/rp_filter", "0")
        self.lab.write_conf(two_uplinks())

    def look(self, *arguments, **options):
        return Look(self.router, *arguments, **options)

    def assert_finds(self, state, *words, look=None):
        """One line of that state holds all the words, and the exit status tells an error."""
        look = look or self.look()
        found = [line for line in look.with_words(*words) if line.startswith(state + " ")]
        self.assertEqual(len(found), 1, "\n".join(look.lines))
        if state == "error":
            self.assertEqual(look.status, 2)
        return look

    def with_next_hop(self, nexthop):
        """gi1_1 with another next hop."""
        self.lab.write_conf(Conf().interface("gi1_1", nexthop=nexthop, probes=[ping(TARGET, 300)])
                            .rule("1_ipv4", {"gi1_1": 1}, {PREFIX: None}))


class Links(Tour):
    def test_good_uplinks_are_ok_and_what_is_not_there_yet_is_not(self):
        look = self.look()
        for name, gateway, target in (("gi1_1", GATEWAY, TARGET), ("gi1_2", GATEWAY_2, TARGET_2)):
            self.assertEqual(look.with_words(f" {name} "), [
                f"ok {name} (IPv4): it is up, with carrier and address",
                f"ok {name} (IPv4): no reverse-path check",
                f"ok {name} (IPv4): next hop {gateway} is known, {target} answers through it"])
        self.assert_finds("unknown", "dumps", look=look)
        self.assert_finds("error", "routing daemon of IPv4: there is none", "systemctl enable --now lbroute", look=look)
        self.assert_finds("unknown", "services", "no service manager", look=look)

    def test_it_changes_nothing(self):
        def everything():
            return [self.router.ip(words) for words in ("-d link", "address", "route show table all", "rule",
                                                        "-6 route show table all", "nexthop")] + [
                self.router.run("sysctl", "-a", "--pattern", "rp_filter|forwarding"), sorted(os.listdir("/run")),
                sorted(os.listdir("/usr/etc")), sorted(os.listdir("/var/db"))]
        before = everything()
        self.look()
        self.assertEqual(everything(), before)

    def test_interface_that_is_not_there(self):
        self.router.ip("link set gi1_2 down")
        self.router.ip("link set gi1_2 name eth7")
        self.assert_finds("error", "gi1_2 (IPv4): there is no such interface, but: ", "eth7", ".link file")

    def test_interface_that_is_down(self):
        self.router.ip("link set gi1_2 down")
        self.assert_finds("error", "gi1_2 (IPv4): it is down", "mend: ip link set gi1_2 up")

    def test_interface_without_carrier(self):
        self.lab.far.ip("link set far2 down")
        self.assert_finds("error", "gi1_2 (IPv4): it has no carrier", "cable")

    def test_interface_without_an_address(self):
        self.router.ip("address flush dev gi1_2")
        self.assert_finds("error", "gi1_2 (IPv4): it has no address", "mend: ip address add ADDRESS/LENGTH dev gi1_2")

    def test_source_address_that_is_not_its_own(self):
        self.lab.write_conf(two_uplinks(source="192.0.2.99"))
        self.assert_finds("error", "gi1_1", "source_address 192.0.2.99 is not among its addresses", "ip address add")

    def test_namespace_that_is_not_there(self):
        self.lab.write_conf(two_uplinks(namespace="blue"))
        self.assert_finds("error", "namespace blue: there is no such namespace; mend: ip netns add blue")

    def test_uplink_in_a_namespace(self):
        blue = self.lab.namespace("blue")
        self.lab.uplink("gi1_3", "198.51.100.10/24", "198.51.100.254", namespace=blue, known=True)
        blue.sysctl("ipv4/conf/gi1_3/rp_filter", "1")
        shutil.rmtree(os.path.dirname(fragment_path("blue")))
        self.lab.write_conf(Conf().interface("gi1_3", nexthop="198.51.100.254", namespace="blue", probes=[ping(TARGET)])
                            .rule("1_ipv4", {"gi1_3": 1}, {PREFIX: None}, namespace="blue"))
        look = self.assert_finds("error", "namespace blue: gi1_3 (IPv4)", "drops the answers while",
                                 "mend: ip netns exec blue sysctl -w")
        self.assert_finds("error", "no folder /var/vrfs/blue/usr/etc", "mend: mkdir -p /var/vrfs/blue/usr/etc", look=look)


class Answers(Tour):
    def test_next_hop_outside_of_the_interfaces_networks(self):
        self.with_next_hop("198.18.99.1")
        self.assert_finds("error", "next hop 198.18.99.1 lies in none of its networks", "correct nexthop")

    def test_next_hop_that_nobody_has(self):
        self.with_next_hop("192.0.2.77")
        self.assert_finds("error", "next hop 192.0.2.77 does not answer ARP requests", "ip neigh show dev gi1_1")

    def test_next_hop_that_has_to_be_asked_for_is_found(self):
        self.lab.forget_neighbours("gi1_1")
        self.router.ip(f"neigh del {GATEWAY} dev gi1_1", check=False)
        self.assert_finds("ok", f"next hop {GATEWAY} is known")

    def test_target_that_is_silent(self):
        self.peers[0].echo = policy.silence
        self.assert_finds("error", f"no answer of {TARGET} comes in through next hop {GATEWAY}", "ping -I gi1_1")

    def test_firewall_that_drops_answers(self):
        self.router.run("nft", "add table inet strict; add chain inet strict input { type filter hook input priority 0;"
                               " policy drop; }")
        look = self.look()
        for name in ("gi1_1", "gi1_2"):
            self.assert_finds("error", name, "the firewall drops it", "ct state established,related accept", look=look)

    def test_firewall_that_lets_answers_in(self):
        self.router.run("nft", "add table inet strict; add chain inet strict input { type filter hook input priority 0;"
                               " policy drop; }; add rule inet strict input ct state established,related accept")
        self.assert_finds("ok", "gi1_1", f"{TARGET} answers through it")

    def test_reverse_path_check_that_drops_answers(self):
        self.router.sysctl("ipv4/conf/gi1_1/rp_filter", "1")
        look = self.assert_finds("error", "gi1_1 (IPv4): the reverse-path check drops the answers",
                                 "mend: sysctl -w net.ipv4.conf.all.rp_filter=0 net.ipv4.conf.gi1_1.rp_filter=0")
        self.assert_finds("error", f"the answer of {TARGET} comes in, and is lost", "the reverse-path check drops it",
                          look=look)
        self.assert_finds("ok", "gi1_2", "no reverse-path check", look=look)

    def test_ipv6_uplink(self):
        self.lab.uplink("gi1_3", address6=ROUTER6 + "/64", gateway6=GATEWAY6)
        self.lab.write_conf(Conf().interface("gi1_3", nexthop=GATEWAY6, source=ROUTER6, ipv6=True,
                                             probes=[ping("2001:db8:53::1")])
                            .rule("1_ipv6", interfaces6={"gi1_3": 1}, targets={"2001:db8:100::/48": None}))
        self.assert_finds("ok", "gi1_3 (IPv6)", "2001:db8:53::1 answers through it")
        self.router.run("nft", "add table inet strict; add chain inet strict input { type filter hook input priority 0;"
                               " policy drop; }; add rule inet strict input icmpv6 type { nd-neighbor-solicit,"
                               " nd-neighbor-advert } accept")
        self.assert_finds("error", "gi1_3 (IPv6)", "the firewall drops it")

    def test_without_root_what_cannot_be_looked_at_is_not_ok(self):
        os.chmod("/run/lb.conf", 0o644)
        look = self.look("--strict", prefix=("setpriv", "--reuid", "65534", "--clear-groups"))
        self.assert_finds("unknown", "gi1_1", "no probe could be sent", "run it as root", look=look)
        self.assertEqual(look.with_words("answers through it"), [])


class Leases(Tour):
    def setUp(self):
        super().setUp()
        self.with_next_hop("dhcp")

    def lease(self, text):
        with open(LEASE, "w", encoding="ascii") as file:
            file.write(text)
        before = time.time() - 60
        os.utime(LEASE, (before, before))

    def test_lease_that_is_missing(self):
        self.assert_finds("error", "gi1_1", f"{LEASE} cannot be read: No such file", "lb-lease gi1_1 ROUTER")

    def test_lease_in_a_form_that_the_daemon_does_not_read(self):
        self.lease(f"ROUTER={GATEWAY}\n")
        self.assert_finds("error", "gi1_1", "the daemon finds no router in it", "lb-lease gi1_1 ROUTER")

    def test_lease_of_another_network(self):
        self.lease("  option routers 198.51.100.77;\n")
        self.assert_finds("error", "next hop 198.51.100.77 lies in none of its networks: the lease is of another",
                          "renew the lease")

    def test_lease_that_is_good(self):
        self.lease(f"  option routers {GATEWAY};\n")
        look = self.assert_finds("ok", f"tells the router {GATEWAY}")
        self.assert_finds("ok", "gi1_1", "answers through it", look=look)


class ProcessNumbers(Tour):
    def pid_file(self, text):
        with open(pid_path(), "w", encoding="ascii") as file:
            file.write(text)

    def test_process_that_does_not_run(self):
        self.pid_file("999999\n")
        self.assert_finds("error", "names process 999999, which does not run", "systemctl restart lbroute")

    def test_process_that_is_no_routing_daemon(self):
        self.pid_file(f"{os.getpid()}\n")
        self.assert_finds("warning", "which is no routing daemon that is known here", "SIGHUP")


if __name__ == "__main__":
    main(None if shutil.which("nft") else "nft")

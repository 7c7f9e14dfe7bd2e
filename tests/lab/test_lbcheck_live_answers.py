"""The tour goes on: where answers are lost, next hops and leases (topology: look_scene.py)."""
import os
import shutil
import time

from kit import Conf, main, ping
from kit import echo_policies as policy
from look_scene import Tour
from scenes import GATEWAY, TARGET
from scenes6 import GATEWAY6, ROUTER6

LEASE = "/var/db/dhclient_gi1_1.leases"


class Answers(Tour):
    def test_next_hop_outside_of_the_interfaces_networks(self):
        self.with_next_hop("198.18.99.1")
        self.assert_finds("warning", "next hop 198.18.99.1 lies in none of its networks", "correct nexthop")

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
        self.lab.write_conf(Conf().interface("gi1_3", nexthop=GATEWAY6, source=ROUTER6.upper(), ipv6=True,
                                             probes=[ping("2001:db8:53::1")])
                            .rule("1_ipv6", interfaces6={"gi1_3": 1}, targets={"2001:db8:100::/48": None}))
        look = self.assert_finds("ok", "gi1_3 (IPv6)", "2001:db8:53::1 answers through it")
        self.assertEqual(look.with_words("source_address"), [])
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

    def test_pipe_in_the_place_of_a_lease_holds_nobody_up(self):
        os.mkfifo(LEASE)
        self.assert_finds("error", "gi1_1", f"{LEASE} cannot be read: it is no regular file",
                          "lb-lease gi1_1 ROUTER")

    def test_lease_in_a_form_that_the_daemon_does_not_read(self):
        self.lease(f"ROUTER={GATEWAY}\n")
        self.assert_finds("error", "gi1_1", "the daemon finds no router in it", "lb-lease gi1_1 ROUTER")

    def test_lease_of_another_network(self):
        self.lease("  option routers 198.51.100.77;\n")
        self.assert_finds("warning", "next hop 198.51.100.77 lies in none of its networks", "renew the lease")

    def test_lease_that_is_over(self):
        self.lease(f"lease {{\n  option routers {GATEWAY};\n  expire 4 2020/01/02 03:04:05;\n}}\n")
        self.assert_finds("warning", f"tells the router {GATEWAY}, but its lease ended", "start the DHCP client of gi1_1")

    def test_lease_that_is_good(self):
        self.lease(f"  option routers {GATEWAY};\n")
        look = self.assert_finds("ok", f"tells the router {GATEWAY}")
        self.assert_finds("ok", "gi1_1", "answers through it", look=look)


if __name__ == "__main__":
    main(None if shutil.which("nft") else "nft")

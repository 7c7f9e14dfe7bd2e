"""A tour of the failures that no log tells: each on a real kernel, found by one command with its mend. Here links, services
and processes; test_lbcheck_live_answers.py, _routes.py and _verdicts.py go on (topology: look_scene.py).
"""
import os
import shutil
import subprocess

from kit import Conf, main, ping
from kit.routing_daemon import fragment_path, pid_path
from look_scene import Tour
from scenes import GATEWAY, GATEWAY_2, PREFIX, TARGET, TARGET_2, one_uplink, two_uplinks


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
        self.assert_finds("error", "gi1_1", "source_address 192.0.2.99 is on no interface whose name begins with gi1_1 or vrrp",
                          "ip address add")

    def test_source_address_of_a_vrrp_interface(self):
        self.router.ip("link add vrrp1 type veth peer name peer1")
        self.router.ip("address add 192.0.2.99/32 dev vrrp1")
        self.router.ip("link set vrrp1 up")
        self.lab.write_conf(one_uplink(source="192.0.2.99"))
        look = self.assert_finds("ok", f"gi1_1 (IPv4): next hop {GATEWAY} is known, {TARGET} answers through it")
        self.assertEqual(look.with_words("source_address"), [])

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

    def test_uplinks_of_two_namespaces_are_each_asked_in_their_own(self):
        blue = self.lab.namespace("blue")
        self.lab.uplink("gi1_3", "198.51.100.10/24", "198.51.100.254", namespace=blue)
        blue.sysctl("ipv4/conf/all/rp_filter", "0")
        blue.sysctl("ipv4/conf/gi1_3/rp_filter", "0")
        self.lab.write_conf(two_uplinks().interface("gi1_3", nexthop="198.51.100.254", namespace="blue", probes=[ping(TARGET)])
                            .rule("3_ipv4", {"gi1_3": 1}, {PREFIX: None}, namespace="blue"))
        look = self.look()
        for name in ("gi1_1 (IPv4)", "gi1_2 (IPv4)", "namespace blue: gi1_3 (IPv4)"):
            self.assertEqual(len(look.with_words(f"{name}: next hop")), 1, look)
            self.assert_finds("ok", f"{name}: next hop", "answers through it", look=look)


class Rights(Tour):
    def test_folders_and_files_of_root_alone_are_ok(self):
        self.assertEqual(len(self.look().with_words("ok rights: root alone may change the configuration and the folders")), 1)

    def test_folders_that_others_may_write_are_told_with_the_command_that_mends(self):
        os.makedirs("/run/lbroute")
        os.chown("/run/lbroute", 1000, 1000)
        os.chmod("/usr/etc", 0o777)
        os.chown("/var/run", 0, 1000)
        os.chmod("/var/run", 0o775)
        look = self.assert_finds("warning", "/run/lbroute: it belongs to user 1000", "(holds)")
        self.assert_finds("error", "/usr/etc: every user may write there", "(fragments)", look=look)
        self.assertEqual(look.with_words("ok rights"), [])

        for line in look.with_words("may decide over routes"):
            subprocess.run(line.partition("; mend: ")[2], shell=True, check=True)

        self.assertEqual(len(self.look().with_words("ok rights")), 1)


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
    main()

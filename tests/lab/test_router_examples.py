"""The examples for the router around the daemon, each taken by the program that it is for.

    router                                   far
      gi1_1 192.0.2.10/24, 2001:db8::10/64 --- scripted peer 192.0.2.1, 2001:db8::1:2:3
      gi1_2 203.0.113.10/24 ------------------ scripted peer 203.0.113.1
"""
import glob
import os
import pathlib
import shutil
import socket
import subprocess
import unittest

from kit import LabTest, expect, main
from kit.daemon import ROOT
from kit.dhcp import missing
from scenes import ACTIVE, ACTIVE_2, attach_two, two_uplinks
from scenes6 import ACTIVE6, GATEWAY6, ROUTER6, one_uplink6

FOLDER = pathlib.Path(ROOT, "examples/router")
# A namespace has settings of its own but for the size of the neighbour tables, which is the machine's.
OF_THE_MACHINE = {f"net.ipv{version}.neigh.default.gc_thresh{number}" for version in (4, 6) for number in (1, 2, 3)}
UDEVADM = next(iter([*filter(None, [shutil.which("udevadm")]),
                     *glob.glob(f"{ROOT}/build/tools/udev/**/bin/udevadm", recursive=True)]), None)


class Firewall(LabTest):
    PATH = str(FOLDER / "lb.nft")

    def load(self):
        self.lab.router.run("nft", "-f", self.PATH)

    def test_is_checked_without_a_complaint(self):
        self.lab.router.run("nft", "-c", "-f", self.PATH)

    def test_loaded_twice_it_is_there_once_and_other_tables_stay(self):
        self.lab.router.run("nft", "add", "table", "inet", "others")
        self.load()
        once = self.lab.router.run("nft", "list", "ruleset")
        self.load()

        self.assertEqual(self.lab.router.run("nft", "list", "ruleset"), once)
        self.assertIn("table inet others", once)

    def test_lets_the_answers_to_all_probes_in(self):
        self.load()
        attach_two(self.lab)
        self.lab.router.sysctl("ipv6/conf/gi1_1/disable_ipv6", "0")
        self.lab.router.ip(f"address add {ROUTER6}/64 dev gi1_1 nodad")
        self.lab.peers["default-gi1_1"].addresses.add(GATEWAY6)
        self.lab.start(one_uplink6(conf=two_uplinks()))

        expect(lambda: {ACTIVE, ACTIVE_2, ACTIVE6} <= set(self.lab.log.texts()))

    def test_keeps_out_what_nobody_asked_for(self):
        self.load()
        self.lab.router.ip("link add gi1_1 up type veth peer name far1 netns " + self.lab.far.path)
        self.lab.router.ip("address add 192.0.2.10/24 dev gi1_1")
        self.lab.far.ip("address add 192.0.2.1/24 dev far1")
        self.lab.far.ip("link set far1 up")

        self.assertRaises(ConnectionRefusedError, self.connect, self.lab.router, "192.0.2.1")  # the way is open
        self.assertRaises(TimeoutError, self.connect, self.lab.far, "192.0.2.10")

    @staticmethod
    def connect(space, address):
        with space.socket(socket.AF_INET, socket.SOCK_STREAM) as connection:
            connection.settimeout(2)
            connection.connect((address, 22))


class Settings(LabTest):
    PATH = str(FOLDER / "90-lb.conf")

    def wanted(self):
        lines = [line.partition("=") for line in pathlib.Path(self.PATH).read_text(encoding="utf-8").splitlines()
                 if "=" in line and not line.startswith("#")]
        return {key.strip(): value.strip() for key, _, value in lines}

    def values(self, key):
        """What the kernel has for a key, for each interface where it names all."""
        words = key.replace("*", "gi1_1").split(".")
        return self.lab.router.run("cat", "/proc/sys/" + "/".join(words)).strip()

    def test_are_taken_by_sysctl(self):
        self.lab.router.ip("link add gi1_1 type veth peer name far1 netns " + self.lab.far.path)
        for interface in ("gi1_1", "default", "all"):
            self.lab.router.sysctl(f"ipv4/conf/{interface}/rp_filter", "2")

        done = subprocess.run(self.lab.router.command("sysctl", "-p", self.PATH), text=True, check=False,
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)

        refused = {key for key in self.wanted() if key.replace(".", "/") in done.stderr}
        self.assertEqual(refused, OF_THE_MACHINE, done.stderr)
        self.assertEqual({key: self.values(key) for key in self.wanted() if key not in refused},
                         {key: value for key, value in self.wanted().items() if key not in refused})


@unittest.skipUnless(UDEVADM, "no udevadm here")
class LinkName(LabTest):
    def named(self, **replaced):
        """The name that udev gives a card of the example's address, and what it complained of. The devices of a lab
        have no address of the card's own, so the example is held against the address in force."""
        text = (FOLDER / "10-gi1_1.link").read_text(encoding="utf-8")
        for old, new in {"PermanentMACAddress=": "MACAddress=", **replaced}.items():
            self.assertEqual(text.count(old), 1)
            text = text.replace(old, new)
        address = next(line.partition("=")[2] for line in text.splitlines() if line.startswith("MACAddress="))
        os.makedirs("/run/systemd/network", exist_ok=True)
        pathlib.Path("/run/systemd/network/10-gi1_1.link").write_text(text, encoding="utf-8")
        self.lab.router.ip(f"link add card0 address {address} type veth peer name far1 netns {self.lab.far.path}")
        script = f"mount -t sysfs sysfs /sys && {UDEVADM} test-builtin net_setup_link /sys/class/net/card0"
        done = subprocess.run(self.lab.router.command("unshare", "--mount", "sh", "-c", script), text=True, check=True,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        complaints = [line for line in done.stderr.splitlines() if "10-gi1_1.link:" in line]
        return [line for line in done.stdout.splitlines() if line.startswith("ID_NET_NAME=")], complaints

    def test_is_given_to_the_card(self):
        self.assertEqual(self.named(), (["ID_NET_NAME=gi1_1"], []))

    def test_unknown_words_would_be_told(self):
        name, complaints = self.named(**{"Name=": "Naame="})

        self.assertEqual((name, len(complaints)), (["ID_NET_NAME=card0"], 1))


if __name__ == "__main__":
    main(missing("nft", "sysctl"))

"""The installed package makes a whole router: a lease, its services, routes; and again after a restart of the machine.

    default namespace (lb, lbroute and systemd; udhcpc)
      gi1_1  203.0.113.2/24                    -- veth --  isp1  203.0.113.1
      gi1_2  by DHCP, the next hop by lease    -- veth --  isp2  192.0.2.1, 192.0.2.2; dnsmasq

The providers' kernels answer the echoes. The strict firewall is in test_router_examples.py: the guest's kernel has none.

    scenario_router.py PACKAGE-FOLDER
"""
import json
import os
import pathlib
import shutil
import sys
import unittest

from guest_lab import Conf, expect, main, ping
from service_manager import UNITS, ServiceManager, make_targets, run

from kit import netns
from kit.dhcp import DhcpServer, Udhcpc, missing
from kit.lb_lease import UDHCPC_SCRIPT, lease
from kit.system_log import SystemLog

PACKAGE_FOLDER = pathlib.Path(sys.argv.pop(1))
SERVICES = ("lb.service", "lbroute.service")
CAPABILITIES = sum(1 << number for number in (12, 21))  # NET_ADMIN, SYS_ADMIN
STATIC, LEASED, LEASED_LATER = "203.0.113.1", "192.0.2.1", "192.0.2.2"


class Here:
    """The guest's first namespace, for what the kit starts in a namespace."""

    @staticmethod
    def command(*words):
        return list(words)

    run = staticmethod(run)


def conf():
    return (Conf()
            .interface("gi1_1", nexthop=STATIC, failure=5, probes=[ping(resp_time=3000)])
            .interface("gi1_2", nexthop="dhcp", failure=5, probes=[ping("192.0.2.1", resp_time=3000)])
            .rule("1_ipv4", {"gi1_1": 2, "gi1_2": 1}, {"0.0.0.0/0": None}))


def routed():
    """The default route's {next hop: interface}; of lbroute's protocol, by its name."""
    routes = json.loads(run("ip", "-j", "route", "show", "default", "proto", "lb") or "[]")
    return {hop["gateway"]: hop["dev"] for route in routes for hop in route.get("nexthops", [route])
            if "gateway" in hop}


def expect_routed(*next_hops):
    expect(lambda: set(routed()) == set(next_hops), 90, f"the default route goes by {next_hops}")


class Router(unittest.TestCase):
    """One guest, one router; the tests are steps of its life, in the order of their names."""

    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(os.environ["FOLDER"])
        (package,) = PACKAGE_FOLDER.glob("*.deb")
        run("dpkg", "--install", "--no-triggers", str(package))
        cls.make_network()
        cls.log = SystemLog()
        pathlib.Path("/etc/lb.conf").write_text(conf().text())
        make_targets()
        for name in SERVICES:
            shutil.copy(f"/usr/lib/systemd/system/{name}", UNITS)
            wants = UNITS / "lab.target.wants"  # in the place of multi-user.target
            wants.mkdir(exist_ok=True)
            (wants / name).symlink_to(f"../{name}")
        cls.start()

    @classmethod
    def tearDownClass(cls):
        cls.end()
        cls.log.save(cls.folder / "log")

    @classmethod
    def make_network(cls):
        cls.isps = [netns.Namespace.named("isp1"), netns.Namespace.named("isp2")]
        for number, isp in enumerate(cls.isps, 1):
            run("ip", "link", "add", f"gi1_{number}", "up", "type", "veth", "peer", "name", "p0", "netns", isp.name)
        run("ip", "address", "add", "203.0.113.2/24", "dev", "gi1_1")
        cls.isps[0].ip(f"address add {STATIC}/24 dev p0")
        for address in (LEASED, LEASED_LATER):
            cls.isps[1].ip(f"address add {address}/24 dev p0")
        for isp in cls.isps:
            isp.ip("link set p0 up")
        cls.server = DhcpServer(cls.isps[1], str(cls.folder), "p0", LEASED)

    @classmethod
    def start(cls):
        """What the start of the machine does."""
        run("systemd-tmpfiles", "--create", "--remove", "--boot", "/usr/lib/tmpfiles.d/lb.conf")
        cls.client = Udhcpc(Here, str(cls.folder), "gi1_2", UDHCPC_SCRIPT)
        cls.manager = ServiceManager(cls.folder)

    @classmethod
    def end(cls):
        cls.manager.close()
        cls.client.close()

    def process_of(self, name):
        return self.manager.shown(name, "MainPID")

    def test_1_lease_and_probes_make_the_route(self):
        expect_routed(STATIC, LEASED)

        self.assertEqual(routed(), {STATIC: "gi1_1", LEASED: "gi1_2"})
        self.assertEqual(run("lbroute", "status").count("gi1_2"), 1, run("lbroute", "status"))

    def test_2_renewal_with_another_router_is_followed(self):
        self.server.give(LEASED_LATER)
        self.client.renew()

        expect_routed(STATIC, LEASED_LATER)

    def test_3_lbroute_has_these_capabilities_only(self):
        status = self.manager.inside("cat", f"/proc/{self.process_of('lbroute.service')}/status").splitlines()
        values = {line.partition(":")[0]: line.split()[1] for line in status if ":\t" in line and line.split()[1:]}

        self.assertEqual((int(values["CapEff"], 16), int(values["CapBnd"], 16)), (CAPABILITIES, CAPABILITIES))
        self.assertEqual((values["NoNewPrivs"], values["Seccomp"]), ("1", "2"))

    def test_4_lbroute_that_was_killed_is_started_anew_and_its_routes_stay(self):
        expect_routed(STATIC, LEASED_LATER)
        first = self.process_of("lbroute.service")
        self.manager.control("kill", "--signal=KILL", "lbroute.service")
        self.assertEqual(set(routed()), {STATIC, LEASED_LATER})

        expect(lambda: self.process_of("lbroute.service") not in (first, "0"), 30, "another process")
        expect(lambda: self.manager.shown("lbroute.service", "ActiveState") == "active", 30, "ready again")
        self.assertEqual(set(routed()), {STATIC, LEASED_LATER})

    def test_5_hold_is_kept_over_a_restart_of_the_service(self):
        self.manager.inside("lbroute", "hold", "gi1_1")
        expect_routed(LEASED_LATER)

        self.manager.control("restart", "lbroute.service")
        self.assertEqual(set(routed()), {LEASED_LATER})

        self.manager.inside("lbroute", "release", "gi1_1")
        expect_routed(STATIC, LEASED_LATER)

    def test_6_stopped_services_leave_the_routes(self):
        self.manager.control("stop", *SERVICES)

        self.assertEqual(set(routed()), {STATIC, LEASED_LATER})
        self.assertFalse(os.path.exists("/run/routing.pid"))

    def test_7_routes_are_there_again_after_a_restart_of_the_machine(self):
        """As far as the router sees one: processes, routes and /run are gone, the disk stays. So do the number of a
        routing daemon, as if that were on the disk, and somebody else has it now; and a lease that nobody has ended."""
        self.end()
        run("ip", "nexthop", "flush")
        self.assertEqual(run("ip", "route", "show", "default"), "")
        run("ip", "address", "flush", "dev", "gi1_2")
        for path in pathlib.Path("/run").iterdir():
            if path.name != "netns" and not path.name.startswith("dhcp-"):
                shutil.rmtree(path) if path.is_dir() else path.unlink()
        pathlib.Path("/run/routing.pid").write_text("1\n")
        old = pathlib.Path("/var/db/dhclient_gi1_3.leases")
        old.write_text(lease("198.51.100.1", boot="another", interface="gi1_3"))
        self.start()

        expect_routed(STATIC, LEASED_LATER)  # by the fragment already, which is on the disk as well
        expect(lambda: not old.exists(), 90, "the old lease is removed")


if __name__ == "__main__":
    lacking = missing("udhcpc", "dnsmasq") or (None if os.path.exists("/lib/systemd/systemd") else "systemd")
    if lacking:
        print(f"skipped: no {lacking} here")
        sys.exit(77)
    main()

"""The installed package under a real service manager: the unit's privileges suffice, and no more.

    default namespace (the unit, its lb, a routing daemon of another user)
      gi1_1  192.0.2.2/24, 2001:db8:1::2/64  -- veth --  isp1  192.0.2.1, 2001:db8:1::1
      gi1_2  198.51.100.2/24 (next hop by lease) veth --  isp2  198.51.100.1
    blue
      gi1_3  203.0.113.2/24                  -- veth --  isp3  203.0.113.1

The providers' kernels answer the echoes. systemd runs as process 1 of a namespace of its own, and
finds the package's unit beside the few targets that it wants.

    scenario_service.py PACKAGE-FOLDER
"""
import os
import pathlib
import shutil
import sys
import unittest

from guest_lab import Conf, expect, main, ping
from service_manager import UNITS, ServiceManager, make_targets, run

from kit import netns, routing_daemon
from kit.system_log import SystemLog

PACKAGE_FOLDER = pathlib.Path(sys.argv.pop(1))
HUP_RECORDER = pathlib.Path(__file__).resolve().parents[1] / "kit/hup_recorder.py"
# Another user need not be able to enter the folder of the project.
RECORDER_FOR_ALL = UNITS / HUP_RECORDER.name
HUPS = "/var/lib/hups"
CAPABILITIES = sum(1 << number for number in (5, 12, 13, 21))  # KILL, NET_ADMIN, NET_RAW, SYS_ADMIN
PEER6 = "2001:db8:1::1"

ROUTING_DAEMON = f"""[Service]
Type=exec
User=daemon
ExecStart=/usr/bin/python3 -I -S {RECORDER_FOR_ALL} {routing_daemon.fragment_path()} {HUPS}
ExecStartPost=+/bin/sh -c 'echo $MAINPID > {routing_daemon.pid_path()}'
"""
# As Debian 12 and 13 confine dhcpcd.service, whose package would start a client on every interface of this machine. In the
# client's place is what it starts at a new lease.
DHCPCD = """[Service]
Type=oneshot
Environment=reason=BOUND interface=gi1_2 "new_routers=198.51.100.1"
ExecStart=/usr/lib/dhcpcd/dhcpcd-run-hooks
RuntimeDirectory=dhcpcd
ProtectSystem=strict
ReadWritePaths=-/var/lib/dhcpcd /run/dhcpcd -/etc/dhcpcd.conf -/etc/resolv.conf
ProtectHome=true
PrivateDevices=true
ProtectClock=true
ProtectKernelModules=true
ProtectKernelLogs=true
ProtectControlGroups=true
RestrictNamespaces=true
LockPersonality=true
MemoryDenyWriteExecute=true
RestrictRealtime=true
RestrictSUIDSGID=true
SystemCallFilter=@system-service chroot
SystemCallErrorNumber=EPERM
SystemCallArchitectures=native
"""
DHCPCD_DROP_IN = "dhcpcd.service.d/lb.conf"
LEASE = pathlib.Path("/var/db/dhclient_gi1_2.leases")
# The first cycle comes before the first look at the leases.
NO_LEASE_READ_YET = "%WAN-W-ERR: <check_arp_exist> Inet_aton() failed Invalid argument(22)"
# The test of dhcpcd takes the lease away for a moment, in which a cycle may look for it.
NO_LEASE = "%WAN-W-WARN: Failed to get routers option from DHCP on interface gigabitethernet 1/0/2"
FRAGMENT = ("protocol static {\ncheck link 1;\n"
            "route 0.0.0.0/0 multipath via 192.0.2.1 weight 2 via 198.51.100.1 weight 1;\n};\n")
FRAGMENT6 = f"protocol static {{\nroute ::/0 multipath via {PEER6} weight 1;\n}};\n"
FRAGMENT_BLUE = ("protocol static {\ncheck link 1;\n"
                 "route 0.0.0.0/0 multipath via 203.0.113.1 weight 1;\n};\n")


def conf():
    return (Conf()
            .interface("gi1_1", nexthop="192.0.2.1", probes=[ping(resp_time=3000)])
            .interface("gi1_2", nexthop="dhcp", probes=[ping("198.51.100.1", resp_time=3000)])
            .interface("gi1_3", nexthop="203.0.113.1", namespace="blue", probes=[ping(resp_time=3000)])
            .interface("gi1_1", ipv6=True, nexthop=PEER6, source="2001:db8:1::2",
                       probes=[ping(resp_time=3000)])
            .rule("1_ipv4", {"gi1_1": 2, "gi1_2": 1}, {"0.0.0.0/0": None})
            .rule("2_ipv4", {"gi1_3": 1}, {"0.0.0.0/0": None}, namespace="blue")
            .rule("1_ipv6", interfaces6={"gi1_1": 1}, targets={"::/0": None}))


def link(interface, peer, addresses, peer_addresses, namespace=""):
    run("ip", "link", "add", interface, "type", "veth", "peer", "name", "p0", "netns", peer.name)
    own = ["ip"]
    if namespace:
        run("ip", "link", "set", interface, "netns", namespace)
        own += ["-n", namespace]
    for address in addresses:
        run(*own, "address", "add", address, "dev", interface, *(["nodad"] if ":" in address else []))
    run(*own, "link", "set", interface, "up")
    peer.sysctl("ipv6/conf/p0/disable_ipv6", "0")
    for address in peer_addresses:
        peer.ip(f"address add {address} dev p0" + (" nodad" if ":" in address else ""))
    peer.ip("link set p0 up")


def make_network():
    """The namespaces stay for the guest's life."""
    blue = netns.Namespace.named("blue")
    peers = [netns.Namespace.named(f"isp{number}") for number in (1, 2, 3)]
    link("gi1_1", peers[0], ["192.0.2.2/24", "2001:db8:1::2/64"], ["192.0.2.1/24", f"{PEER6}/64"])
    link("gi1_2", peers[1], ["198.51.100.2/24"], ["198.51.100.1/24"])
    link("gi1_3", peers[2], ["203.0.113.2/24"], ["203.0.113.1/24"], blue.name)
    LEASE.write_text("lease {\n  option routers 198.51.100.1;\n}\n")
    routing_daemon.make_directories("blue")
    return [blue, *peers]


def make_units():
    make_targets()
    (UNITS / "routing.service").write_text(ROUTING_DAEMON)
    for unit in ("lb.service", "lbwatch-hooks.service"):
        shutil.copy(f"/usr/lib/systemd/system/{unit}", UNITS)
    (UNITS / "dhcpcd.service").write_text(DHCPCD)
    (UNITS / DHCPCD_DROP_IN).parent.mkdir()
    shutil.copy(f"/usr/lib/systemd/system/{DHCPCD_DROP_IN}", UNITS / DHCPCD_DROP_IN)
    shutil.copy(HUP_RECORDER, RECORDER_FOR_ALL)
    RECORDER_FOR_ALL.chmod(0o644)


def fragment_is(text, namespace="", ipv6=False):
    path = routing_daemon.fragment_path(namespace, ipv6)
    expect(lambda: routing_daemon.text_of(path) == text, 60,
           f"{path} becomes\n{text}")


class Service(unittest.TestCase):
    """One guest, one service manager and one service, which some tests have started anew."""

    @classmethod
    def setUpClass(cls):
        folder = pathlib.Path(os.environ["FOLDER"])
        (package,) = PACKAGE_FOLDER.glob("*.deb")
        run("dpkg", "--install", "--no-triggers", str(package))
        make_units()
        cls.namespaces = make_network()
        cls.manager = ServiceManager(folder)
        cls.addClassCleanup(cls.manager.close)
        pathlib.Path("/etc/lb.conf").write_text(conf().text())
        cls.log = SystemLog()
        cls.addClassCleanup(cls.end_log, folder)
        pathlib.Path(HUPS).touch()
        os.chmod(HUPS, 0o666)
        cls.manager.control("start", "routing.service")
        cls.manager.control("start", "lb.service")

    @classmethod
    def end_log(cls, folder):
        cls.log.save(folder / "log")
        cls.log.close()

    def status_of_daemon(self, name):
        status = self.manager.inside("cat", f"/proc/{self.manager.shown('lb.service', 'MainPID')}/status")
        return next(line.split()[1] for line in status.splitlines() if line.startswith(f"{name}:"))

    def last_keep_alive(self):
        return int(self.manager.shown("lb.service", "WatchdogTimestampMonotonic"))

    def start_with(self, drop_in):
        """Starts the service anew with these lines behind its own, for this test only."""
        path = UNITS / "lb.service.d/test.conf"
        path.parent.mkdir()
        path.write_text(drop_in)
        self.addCleanup(self.manager.control, "restart", "lb.service")
        self.addCleanup(self.manager.control, "daemon-reload")
        self.addCleanup(shutil.rmtree, path.parent)
        self.manager.control("daemon-reload")
        self.manager.control("restart", "lb.service")

    def in_the_units_place(self, command):
        """Runs a shell command with the unit's own privileges; its exit status."""
        text = (UNITS / "lb.service").read_text()
        kept = [line for line in text.splitlines()
                if not line.startswith(("Exec", "Type", "Restart", "Watchdog"))]
        unit = UNITS / "place.service"
        unit.write_text("\n".join(kept).replace("[Service]", "[Service]\nType=oneshot\n"
                                               f"ExecStart=/bin/sh -c '{command}'") + "\n")
        self.manager.control("daemon-reload")
        self.manager.control("start", "--no-block", "place.service")
        expect(lambda: self.manager.shown("place.service", "ActiveState") in ("inactive", "failed"), 30, "it ends")
        return int(self.manager.shown("place.service", "ExecMainStatus"))

    def test_routes_of_all_uplinks_are_written(self):
        fragment_is(FRAGMENT)
        fragment_is(FRAGMENT6, ipv6=True)
        fragment_is(FRAGMENT_BLUE, namespace="blue")

        self.assertLessEqual(set(self.log.errors()), {NO_LEASE_READ_YET, NO_LEASE})

    def test_the_routing_daemon_of_another_user_is_told(self):
        expect(lambda: '"sender"' in pathlib.Path(HUPS).read_text(), 30, "SIGHUP arrives")

    def test_reports_and_dumps_are_published(self):
        fragment_is(FRAGMENT)

        expect(lambda: "active" in run("lbshow", "interfaces", "gi1_3"), 30, "lbshow shows the uplink")
        self.assertIn("Interface:  gi1_1\n", pathlib.Path("/run/load-balance/wlb_ipv4.out").read_text())

    def test_keep_alives_arrive(self):
        first = expect(self.last_keep_alive, 30, "one keep-alive")

        expect(lambda: self.last_keep_alive() > first, 30, "another keep-alive")

    def test_connections_of_probes_are_recorded(self):
        fragment_is(FRAGMENT)

        records = run("conntrack", "-L", "-p", "icmp")

        self.assertIn("src=192.0.2.2 dst=192.0.2.1", records)

    def test_the_daemon_has_these_capabilities_only(self):
        self.assertEqual(int(self.status_of_daemon("CapEff"), 16), CAPABILITIES)
        self.assertEqual(int(self.status_of_daemon("CapBnd"), 16), CAPABILITIES)
        self.assertEqual(self.status_of_daemon("NoNewPrivs"), "1")
        self.assertEqual(self.status_of_daemon("Seccomp"), "2")

    def test_route_caches_can_be_flushed_there(self):
        self.assertEqual(self.in_the_units_place("ip route flush cache && ip -6 route flush cache"), 0)

    def test_the_console_of_crash_reports_can_be_written_there(self):
        self.assertEqual(self.in_the_units_place("echo died > /dev/console"), 0)

    def test_other_files_cannot_be_written_there(self):
        for path in ("/etc/lb.conf", "/var/db/dhclient_gi1_2.leases", "/root/new", "/usr/sbin/lb"):
            self.assertNotEqual(self.in_the_units_place(f"echo x >> {path}"), 0, path)

    def test_nothing_can_be_mounted_there(self):
        self.assertNotEqual(self.in_the_units_place("mount -t tmpfs none /mnt"), 0)

    @unittest.skipUnless(os.path.exists("/usr/lib/dhcpcd/dhcpcd-run-hooks"), "dhcpcd is not installed")
    def test_a_lease_can_be_told_from_where_dhcpcd_may_write(self):
        before = LEASE.read_text()
        self.addCleanup(LEASE.write_text, before)
        LEASE.unlink()

        self.manager.control("start", "dhcpcd.service")

        self.assertIn("option routers 198.51.100.1;", LEASE.read_text())

    def test_hooks_that_run_may_end_when_their_service_is_stopped(self):
        hook = pathlib.Path("/etc/lb/hooks.d/slow")
        hook.write_text("#!/bin/sh\necho $$ >>/run/hooks.begun\nsleep 2\necho $$ >>/run/hooks.ended\n")
        hook.chmod(0o755)
        self.addCleanup(hook.unlink)
        fragment_is(FRAGMENT)
        self.manager.control("start", "lbwatch-hooks.service")
        begun = expect(lambda: routing_daemon.text_of("/run/hooks.begun"), 60, "a hook runs").split()
        # Where hooks, and what is wrong with them, are heard of.
        self.assertEqual(self.manager.shown("lbwatch-hooks.service", "StandardError"), "journal")

        self.manager.control("stop", "lbwatch-hooks.service")

        ended = (routing_daemon.text_of("/run/hooks.ended") or "").split()
        self.assertEqual(set(begun) - set(ended), set())

    def test_a_daemon_that_was_killed_is_started_anew(self):
        first = self.manager.shown("lb.service", "MainPID")

        self.manager.control("kill", "--signal=KILL", "lb.service")

        expect(lambda: self.manager.shown("lb.service", "MainPID") not in (first, "0"), 30, "another process")
        expect(lambda: self.manager.shown("lb.service", "ActiveState") == "active", 30, "ready again")

    def test_a_daemon_that_dies_again_and_again_is_started_anew_each_time(self):
        """More often than the service manager's own limit, which is five times in ten seconds."""
        for _ in range(7):
            pid = self.manager.shown("lb.service", "MainPID")
            self.manager.control("kill", "--signal=KILL", "lb.service")
            expect(lambda: self.manager.shown("lb.service", "MainPID") not in (pid, "0"), 30, "another process")

    def test_a_daemon_with_nothing_to_do_tells_that_it_lives(self):
        self.start_with("[Service]\nExecStart=\nExecStart=/usr/sbin/lb -f /dev/null\n")

        first = expect(self.last_keep_alive, 30, "one keep-alive")
        expect(lambda: self.last_keep_alive() > first, 30, "another keep-alive")

    def test_a_daemon_that_stands_still_is_started_anew(self):
        self.start_with("[Service]\nWatchdogSec=4\n")
        fragment_is(FRAGMENT)
        first = self.manager.shown("lb.service", "MainPID")

        self.manager.control("kill", "--signal=STOP", "lb.service")

        expect(lambda: self.manager.shown("lb.service", "MainPID") not in (first, "0"), 60, "another process")

    def test_another_output_directory_takes_two_lines(self):
        os.mkdir("/run/other")

        self.start_with("[Service]\nExecStart=\nExecStart=/usr/sbin/lb -f /etc/lb.conf -o /run/other\n"
                        "ReadWritePaths=/run/other\n")

        expect(lambda: os.path.exists("/run/other/wlb_ipv4.out"), 30, "a report appears there")


if __name__ == "__main__":
    if not os.path.exists("/lib/systemd/systemd"):
        print("skipped: systemd is not installed")
        sys.exit(77)
    main()

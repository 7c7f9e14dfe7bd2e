#!/usr/bin/python3
"""The Debian package's life: installed, removed, purged, on a root whose changes are forgotten.

    test_life.py PROJECT PACKAGE-FOLDER
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys
import unittest

from package import enter_private_root, mount, output_of, the_package

NAME = "wan-load-balancer"
FRAGMENTS = ("/usr/etc/routing-wlb.conf", "/usr/etc/routing6-wlb.conf")
CONF = "/etc/lb.conf"
UNITS = ("lb.service", "lbroute.service", "lbwatch.service", "lbwatch-hooks.service")
ENABLED = [f"/etc/systemd/system/multi-user.target.wants/{unit}" for unit in UNITS]


def dpkg(*words):
    done = subprocess.run(["dpkg", *words], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          env=dict(os.environ, DEBIAN_FRONTEND="noninteractive"), check=False)
    if done.returncode != 0:
        raise AssertionError(f"dpkg {' '.join(words)}:\n{done.stdout}")


def leaves_manuals_out():
    return any("path-exclude /usr/share/man" in line.replace("=", " ") and not line.startswith("#")
               for path in pathlib.Path("/etc/dpkg/dpkg.cfg.d").glob("*") for line in path.read_text().splitlines())


def installed_files():
    """Without others' temporary files, which come and go meanwhile."""
    return set(output_of("find", "/etc", "/usr", "/var", "/run", "-xdev", "-path", "/var/tmp", "-prune", "-o",
                         "-print").splitlines())


class Life(unittest.TestCase):
    """Each test begins with a root on which the package was purged."""

    @classmethod
    def setUpClass(cls):
        cls.package = str(PACKAGE)

    def setUp(self):
        self.addCleanup(lambda: dpkg("--purge", "--no-triggers", NAME))
        dpkg("--install", "--no-triggers", self.package)

    def test_installed_programs_run(self):
        usage = output_of("/usr/sbin/lb", "-h")

        self.assertTrue(usage.startswith("lb -ftviodh\n"))

    def test_sample_configuration_only_lacks_uplinks(self):
        checked = subprocess.run(["lbcheck", CONF], stdout=subprocess.PIPE, text=True, check=False)

        self.assertEqual(checked.stdout, f"{CONF}: error: nothing to do: no namespace has both an interface and"
                                         f" a rule of one family\n{CONF}: 1 error, 0 warnings\n")

    def test_commented_sample_configuration_is_clean(self):
        """As it stands once its comment signs are taken away."""
        lines = pathlib.Path(CONF).read_text().split("# Two uplinks")[1].splitlines()[2:]
        sample = pathlib.Path("/tmp/sample.conf")
        sample.write_text("".join(line.removeprefix("#") + "\n" for line in lines))

        subprocess.run(["lbcheck", "--strict", sample], check=True)

    def test_the_places_that_the_daemon_needs_are_made(self):
        places = ("/run/load-balance", "/usr/etc", "/var/vrfs", "/var/db")

        self.assertEqual([place for place in places if not os.path.isdir(place)], [])
        self.assertEqual([pathlib.Path(path).read_text() for path in FRAGMENTS], ["", ""])

    def test_installing_leaves_routes_of_a_daemon_that_runs_alone(self):
        pathlib.Path(FRAGMENTS[0]).write_text("protocol static {\n};\n")

        dpkg("--install", "--no-triggers", self.package)

        self.assertEqual(pathlib.Path(FRAGMENTS[0]).read_text(), "protocol static {\n};\n")

    @unittest.skipUnless(shutil.which("systemd-tmpfiles"), "systemd is not installed")
    def test_process_numbers_from_before_the_machines_start_are_removed_then_and_only_then(self):
        folders = [pathlib.Path(folder) for folder in ("/run", "/var/vrfs/blue/usr/var/run", "/var/vrfs/red/usr/var/run")]
        numbers = [folder / name for folder in folders for name in ("routing.pid", "routing6.pid")]
        others = [pathlib.Path("/run/other.pid"), folders[1] / "other.pid"]
        self.addCleanup(shutil.rmtree, "/var/vrfs/blue")
        self.addCleanup(shutil.rmtree, "/var/vrfs/red")
        for path in (*numbers, *others):
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text("1\n")

        dpkg("--install", "--no-triggers", self.package)
        subprocess.run(["systemd-tmpfiles", "--create", "--remove", "lb.conf"], check=True)
        self.assertEqual([path for path in (*numbers, *others) if not path.exists()], [])

        subprocess.run(["systemd-tmpfiles", "--create", "--remove", "--boot", "lb.conf"], check=True)
        self.assertEqual([path for path in (*numbers, *others) if path.exists()], others)

    def test_installing_enables_no_service(self):
        self.assertEqual([path for path in ENABLED if os.path.lexists(path)], [])

    @unittest.skipUnless(shutil.which("systemctl"), "systemd is not installed")
    def test_removing_disables_the_services(self):
        subprocess.run(["systemctl", "--quiet", "enable", *UNITS], check=True)
        self.assertEqual([path for path in ENABLED if not os.path.lexists(path)], [])

        dpkg("--remove", "--no-triggers", NAME)

        self.assertEqual([path for path in ENABLED if os.path.lexists(path)], [])

    @unittest.skipUnless(shutil.which("systemctl"), "systemd is not installed")
    def test_upgrading_leaves_the_services_enabled(self):
        subprocess.run(["systemctl", "--quiet", "enable", *UNITS], check=True)

        dpkg("--install", "--no-triggers", self.package)

        self.assertEqual([path for path in ENABLED if not os.path.lexists(path)], [])

    def test_routes_have_a_name_for_their_protocol(self):
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        subprocess.run(["ip", "route", "add", "198.51.100.0/24", "dev", "lo", "proto", "76"], check=True)

        self.assertIn("proto lb ", output_of("ip", "route", "show", "198.51.100.0/24"))

    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd is not installed")
    def test_the_services_have_no_fault_that_systemd_sees(self):
        verified = subprocess.run(["systemd-analyze", "verify", "--recursive-errors=no", *UNITS],
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)

        self.assertEqual((verified.stdout, verified.returncode), ("", 0))

    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd is not installed")
    def test_the_watcher_is_exposed_to_little(self):
        judged = output_of("systemd-analyze", "security", "--offline=true", "--no-pager",
                           "/usr/lib/systemd/system/lbwatch.service")

        self.assertLess(float(re.search(r"exposure level for lbwatch.service: ([0-9.]+)", judged).group(1)), 2)

    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd is not installed")
    def test_the_manuals_drop_in_lets_the_watcher_listen_for_another_machine(self):
        drop_in = re.search(r"^\[Service\]$.*?(?=^\.fi$)", MANUAL, re.MULTILINE | re.DOTALL).group(0).replace(r"\-", "-")
        path = pathlib.Path("/etc/systemd/system/lbwatch.service.d/override.conf")
        path.parent.mkdir()
        self.addCleanup(shutil.rmtree, path.parent)
        path.write_text(drop_in)

        verified = subprocess.run(["systemd-analyze", "verify", "--recursive-errors=no", "lbwatch.service"],
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)

        self.assertEqual((verified.stdout, verified.returncode), ("", 0))
        self.assertIn("--listen 0.0.0.0:", drop_in)
        self.assertRegex(drop_in, r"\nIPAddressAllow=\d")

    def test_the_watcher_has_a_user_of_its_own(self):
        self.assertTrue(output_of("getent", "passwd", "lbwatch").startswith("lbwatch:"))

    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd is not installed")
    def test_units_among_the_examples_have_no_fault_that_systemd_sees(self):
        units = sorted(pathlib.Path("/usr/share/doc/wan-load-balancer/examples").glob("*.timer"))
        units += [path.with_suffix(".service") for path in units]
        self.assertTrue(units)

        verified = subprocess.run(["systemd-analyze", "verify", "--recursive-errors=no", *units],
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)

        self.assertEqual((verified.stdout, verified.returncode), ("", 0))

    @unittest.skipUnless(shutil.which("man"), "man-db is not installed")
    @unittest.skipIf(leaves_manuals_out(), "dpkg is told to leave manual pages out here")
    def test_manual_pages_are_found(self):
        for section, page in (("8", "lb"), ("8", "lb-lease"), ("8", "lbroute"), ("8", "lbwatch"), ("5", "lb.conf"),
                              ("1", "lbshow"), ("1", "lbcheck"), ("1", "lbsim")):
            self.assertTrue(output_of("man", "--where", section, page).strip(), page)

    def test_removing_keeps_configuration_and_routes(self):
        dpkg("--remove", "--no-triggers", NAME)

        self.assertTrue(os.path.exists(CONF))
        self.assertEqual([path for path in FRAGMENTS if not os.path.exists(path)], [])
        self.assertEqual([path for path in ("/run/load-balance", "/run/lbroute", "/usr/sbin/lb", "/usr/sbin/lbroute")
                          if os.path.exists(path)], [])

    def write_leases(self):
        """One by the program, one as a client keeps it there itself; their paths."""
        pathlib.Path(CONF).write_text("health {\ninterface gi1_1 {\nnexthop dhcp\n}\n}\n")
        subprocess.run(["lb-lease", "gi1_1", "192.0.2.1"], check=True)
        foreign = pathlib.Path("/var/db/dhclient_gi1_2.leases")
        foreign.write_text("lease {\n  option routers 192.0.2.1;\n}\n")
        return pathlib.Path("/var/db/dhclient_gi1_1.leases"), foreign

    def test_installed_program_writes_leases_and_purging_takes_its_own_away(self):
        own, foreign = self.write_leases()
        self.assertTrue(own.exists())

        dpkg("--purge", "--no-triggers", NAME)

        self.assertFalse(own.exists())
        self.assertTrue(foreign.exists())
        foreign.unlink()

    def test_lease_from_before_the_configuration_is_there_when_it_comes(self):
        """By the sample, which names no uplink, and with the command that the service runs before the daemon."""
        told = subprocess.run(["lb-lease", "gi1_1", "192.0.2.1"], stderr=subprocess.PIPE, text=True, check=False)
        subprocess.run(["lb-lease", "--remove-old"], check=True)

        self.assertEqual((told.returncode, told.stderr), (3, ""))
        self.assertIn("option routers 192.0.2.1;", pathlib.Path("/var/db/dhclient_gi1_1.leases").read_text())

    def test_removed_package_leaves_a_hook_that_does_nothing(self):
        dpkg("--remove", "--no-triggers", NAME)

        said = output_of("sh", "-ec", "reason=BOUND interface=gi1_1; . /etc/dhcp/dhclient-exit-hooks.d/lb 2>&1")

        self.assertEqual(said, "")

    def test_purging_leaves_what_others_have_there(self):
        pathlib.Path("/usr/etc/others").touch()
        mount("tmpfs", "/var/vrfs")
        self.addCleanup(subprocess.run, ["umount", "/var/vrfs"], check=True)

        dpkg("--purge", "--no-triggers", NAME)

        self.assertTrue(os.path.exists("/usr/etc/others"))
        self.assertTrue(os.path.ismount("/var/vrfs"))

    def test_purging_leaves_nothing(self):
        dpkg("--purge", "--no-triggers", NAME)
        before = installed_files()

        dpkg("--install", "--no-triggers", self.package)
        for lease in self.write_leases()[1:]:
            lease.unlink()
        dpkg("--purge", "--no-triggers", NAME)

        self.assertEqual(installed_files() ^ before, set())
        self.assertFalse([path for path in (CONF, *FRAGMENTS, "/run/load-balance") if os.path.exists(path)])


if __name__ == "__main__":
    # The project may be out of sight there.
    MANUAL = (pathlib.Path(sys.argv[1]) / "man/lbwatch.8").read_text()
    PACKAGE = enter_private_root(the_package(sys.argv[2]))
    unittest.main(argv=sys.argv[:1], verbosity=2)

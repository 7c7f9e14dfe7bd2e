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
ENABLED = "/etc/systemd/system/multi-user.target.wants/lb.service"


def dpkg(*words):
    done = subprocess.run(["dpkg", *words], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          env=dict(os.environ, DEBIAN_FRONTEND="noninteractive"), check=False)
    if done.returncode != 0:
        raise AssertionError(f"dpkg {' '.join(words)}:\n{done.stdout}")


def leaves_manuals_out():
    return any("path-exclude /usr/share/man" in line.replace("=", " ") and not line.startswith("#")
               for path in pathlib.Path("/etc/dpkg/dpkg.cfg.d").glob("*") for line in path.read_text().splitlines())


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
                                         " a rule of one family\n")

    def test_commented_sample_configuration_is_clean(self):
        """As it stands once its comment signs are taken away."""
        lines = pathlib.Path(CONF).read_text().split("# Two uplinks")[1].splitlines()[2:]
        sample = pathlib.Path("/tmp/sample.conf")
        sample.write_text("".join(line.removeprefix("#") + "\n" for line in lines))

        subprocess.run(["lbcheck", "--strict", sample], check=True)

    def test_the_places_that_the_daemon_needs_are_made(self):
        places = ("/run/load-balance", "/usr/etc", "/var/vrfs")

        self.assertEqual([place for place in places if not os.path.isdir(place)], [])
        self.assertEqual([pathlib.Path(path).read_text() for path in FRAGMENTS], ["", ""])

    def test_installing_leaves_routes_of_a_daemon_that_runs_alone(self):
        pathlib.Path(FRAGMENTS[0]).write_text("protocol static {\n};\n")

        dpkg("--install", "--no-triggers", self.package)

        self.assertEqual(pathlib.Path(FRAGMENTS[0]).read_text(), "protocol static {\n};\n")

    def test_installing_does_not_enable_the_service(self):
        self.assertFalse(os.path.lexists(ENABLED))

    @unittest.skipUnless(shutil.which("systemctl"), "systemd is not installed")
    def test_removing_disables_the_service(self):
        subprocess.run(["systemctl", "--quiet", "enable", "lb.service"], check=True)
        self.assertTrue(os.path.lexists(ENABLED))

        dpkg("--remove", "--no-triggers", NAME)

        self.assertFalse(os.path.lexists(ENABLED))

    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd is not installed")
    def test_the_service_has_no_fault_that_systemd_sees(self):
        verified = subprocess.run(["systemd-analyze", "verify", "--recursive-errors=no", "lb.service",
                                   "lbwatch.service", "lbwatch-hooks.service"],
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)

        self.assertEqual((verified.stdout, verified.returncode), ("", 0))

    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd is not installed")
    def test_the_watcher_is_exposed_to_little(self):
        judged = output_of("systemd-analyze", "security", "--offline=true", "--no-pager",
                           "/usr/lib/systemd/system/lbwatch.service")

        self.assertLess(float(re.search(r"exposure level for lbwatch.service: ([0-9.]+)", judged).group(1)), 2)

    def test_the_watcher_has_a_user_of_its_own(self):
        self.assertTrue(output_of("getent", "passwd", "lbwatch").startswith("lbwatch:"))

    @unittest.skipUnless(shutil.which("man"), "man-db is not installed")
    @unittest.skipIf(leaves_manuals_out(), "dpkg is told to leave manual pages out here")
    def test_manual_pages_are_found(self):
        for section, page in (("8", "lb"), ("8", "lbwatch"), ("5", "lb.conf"), ("1", "lbshow"), ("1", "lbcheck")):
            self.assertTrue(output_of("man", "--where", section, page).strip(), page)

    def test_removing_keeps_configuration_and_routes(self):
        dpkg("--remove", "--no-triggers", NAME)

        self.assertTrue(os.path.exists(CONF))
        self.assertEqual([path for path in FRAGMENTS if not os.path.exists(path)], [])
        self.assertFalse(os.path.exists("/run/load-balance"))
        self.assertFalse(os.path.exists("/usr/sbin/lb"))

    def test_purging_leaves_what_others_have_there(self):
        pathlib.Path("/usr/etc/others").touch()
        mount("tmpfs", "/var/vrfs")
        self.addCleanup(subprocess.run, ["umount", "/var/vrfs"], check=True)

        dpkg("--purge", "--no-triggers", NAME)

        self.assertTrue(os.path.exists("/usr/etc/others"))
        self.assertTrue(os.path.ismount("/var/vrfs"))

    def test_purging_leaves_nothing(self):
        dpkg("--purge", "--no-triggers", NAME)
        before = output_of("find", "/etc", "/usr", "/var", "/run", "-xdev")

        dpkg("--install", "--no-triggers", self.package)
        dpkg("--purge", "--no-triggers", NAME)

        after = output_of("find", "/etc", "/usr", "/var", "/run", "-xdev")
        self.assertEqual(set(after.splitlines()) ^ set(before.splitlines()), set())
        self.assertFalse([path for path in (CONF, *FRAGMENTS, "/run/load-balance") if os.path.exists(path)])


if __name__ == "__main__":
    PACKAGE = enter_private_root(the_package(sys.argv[2]))
    unittest.main(argv=sys.argv[:1])

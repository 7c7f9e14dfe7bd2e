#!/usr/bin/python3
"""Another machine's Debian package: what dpkg(1) makes of it, and its programs run by qemu's user emulation.

    foreign.py PROJECT PACKAGE-FOLDER MACHINE
"""
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

from package import output_of, the_package

PROJECT, FOLDER = (pathlib.Path(folder).resolve() for folder in sys.argv[1:3])
MACHINE = sys.argv[3]
del sys.argv[1:]
EMULATED = {"arm64": "aarch64", "armhf": "arm"}.get(MACHINE, MACHINE)
PROGRAMS = ("sbin/lb", "sbin/lb-lease", "sbin/lbroute", "bin/lbcheck", "bin/lbshow", "bin/lbsim", "bin/lbwatch")
EXAMPLE = PROJECT / "examples/two-providers-3-to-1.conf"


class Package(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.package = the_package(FOLDER)
        cls.root = pathlib.Path(tempfile.mkdtemp(prefix="lb-foreign-"))
        cls.addClassCleanup(shutil.rmtree, cls.root)
        output_of("dpkg", "--extract", str(cls.package), str(cls.root))
        cls.triplet = output_of("dpkg-architecture", "-a", MACHINE, "-q", "DEB_HOST_MULTIARCH").strip()

    def run_program(self, name, *arguments):
        libraries = PROJECT / "build/tools" / MACHINE / "usr/lib" / self.triplet
        return output_of(f"qemu-{EMULATED}", "-L", f"/usr/{self.triplet}", "-E", f"LD_LIBRARY_PATH={libraries}",
                         str(self.root / "usr" / name), *arguments)

    def test_it_is_for_that_machine_and_needs_what_its_programs_link(self):
        self.assertEqual(output_of("dpkg-deb", "--field", str(self.package), "Architecture").strip(), MACHINE)
        needs = output_of("dpkg-deb", "--field", str(self.package), "Depends")
        names = {need.split()[0] for need in needs.split(",")}
        self.assertLessEqual({"iproute2", "libc6", "libstdc++6", "libmnl0", "libnetfilter-conntrack3", "libsqlite3-0"}, names)
        self.assertFalse([name for name in names if ":" in name or "cross" in name])

    def test_programs_look_for_libraries_where_the_system_has_them(self):
        for name in PROGRAMS:
            told = output_of("readelf", "--dynamic", str(self.root / "usr" / name))
            self.assertNotRegex(told, r"R(UN)?PATH", name)

    def test_daemon_and_checker_load_an_example(self):
        self.assertIn("two-providers", self.run_program("bin/lbcheck", "--strict", str(EXAMPLE)))
        self.run_program("sbin/lb", "-t", "-f", str(EXAMPLE))

    def test_every_program_runs_and_tells_its_version(self):
        self.assertIn("-f [file] configuration file", self.run_program("sbin/lb", "-h"))  # it has no --version
        version = output_of("dpkg-deb", "--field", str(self.package), "Version").strip()
        for name in PROGRAMS[1:]:
            self.assertIn(version, self.run_program(name, "--version"), name)


if __name__ == "__main__":
    unittest.main(verbosity=2)

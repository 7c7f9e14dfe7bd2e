#!/usr/bin/python3
"""What is in the Debian package, without installing it.

    test_contents.py PROJECT PACKAGE-FOLDER
"""
import gzip
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

from package import output_of, the_package

PROJECT, FOLDER = (pathlib.Path(folder).resolve() for folder in sys.argv[1:3])

FILES = {
    "/etc/lb.conf": 0o644,
    "/usr/sbin/lb": 0o755,
    "/usr/bin/lbcheck": 0o755,
    "/usr/bin/lbshow": 0o755,
    "/usr/bin/lbwatch": 0o755,
    "/usr/lib/systemd/system/lb.service": 0o644,
    "/usr/lib/systemd/system/lbwatch-hooks.service": 0o644,
    "/usr/lib/systemd/system/lbwatch.service": 0o644,
    "/usr/lib/sysusers.d/lbwatch.conf": 0o644,
    "/usr/lib/tmpfiles.d/lb.conf": 0o644,
    "/usr/share/bash-completion/completions/lb": 0o644,
    "/usr/share/bash-completion/completions/lbcheck": 0o644,
    "/usr/share/bash-completion/completions/lbshow": 0o644,
    "/usr/share/bash-completion/completions/lbwatch": 0o644,
    "/usr/share/doc/wan-load-balancer/CHANGELOG.md": 0o644,
    "/usr/share/doc/wan-load-balancer/README.md": 0o644,
    "/usr/share/doc/wan-load-balancer/operating.md": 0o644,
    "/usr/share/man/man1/lbcheck.1.gz": 0o644,
    "/usr/share/man/man1/lbshow.1.gz": 0o644,
    "/usr/share/man/man5/lb.conf.5.gz": 0o644,
    "/usr/share/man/man8/lb.8.gz": 0o644,
    "/usr/share/man/man8/lbwatch.8.gz": 0o644,
    "/usr/share/wan-load-balancer/hooks/mail": 0o755,
    "/usr/share/wan-load-balancer/hooks/webhook": 0o755,
    "/usr/share/wan-load-balancer/prometheus/lb.rules.yml": 0o644,
}
EXAMPLES = "/usr/share/doc/wan-load-balancer/examples/"


class Contents(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.package = the_package(FOLDER)
        unpacked = tempfile.TemporaryDirectory()
        cls.addClassCleanup(unpacked.cleanup)
        cls.root = pathlib.Path(unpacked.name)
        subprocess.run(["dpkg-deb", "--raw-extract", cls.package, cls.root], check=True)
        cls.control = (cls.root / "DEBIAN/control").read_text()

    def inside(self, path):
        return self.root / path.lstrip("/")

    def field(self, name):
        return re.search(rf"^{name}: (.*)$", self.control, re.MULTILINE).group(1)

    def test_every_file_is_in_its_place(self):
        files = {f"/{path.relative_to(self.root)}" for path in self.root.rglob("*") if path.is_file()}
        examples = {EXAMPLES + path.name for kind in ("*.conf", "*.json") for path in (PROJECT / "examples").glob(kind)}

        installed = {path for path in files if not path.startswith("/DEBIAN/")}

        self.assertTrue(examples)
        self.assertEqual(installed, set(FILES) | examples)

    def test_modes_are_those_of_system_files(self):
        modes = {path: self.inside(path).stat().st_mode & 0o7777 for path in FILES}

        self.assertEqual(modes, FILES)

    def test_everything_belongs_to_root(self):
        listing = output_of("dpkg-deb", "--contents", str(self.package)).splitlines()

        self.assertEqual({line.split()[1] for line in listing}, {"root/root"})

    def test_programs_are_stripped_but_name_their_functions(self):
        sections = output_of("readelf", "--sections", "--wide", str(self.inside("/usr/sbin/lb")))

        self.assertNotIn(".debug_info", sections)
        self.assertIn(".dynsym", sections)  # the crash report reads it

    def test_libraries_of_the_programs_are_depended_on(self):
        dependencies = self.field("Depends")

        for package in ("libc6", "libmnl0", "libnetfilter-conntrack3", "libstdc\\+\\+6"):
            self.assertRegex(dependencies, rf"(^|, ){package} \(>= ")

    def test_the_hooks_folder_is_there_and_empty(self):
        folder = self.inside("/etc/lb/hooks.d")

        self.assertEqual((list(folder.iterdir()), folder.stat().st_mode & 0o7777), ([], 0o755))

    def test_the_ip_command_is_depended_on(self):
        self.assertIn("iproute2", self.field("Depends").split(", "))

    def test_version_is_the_projects(self):
        version = re.search(r"project\(.* VERSION ([0-9.]+)", (PROJECT / "CMakeLists.txt").read_text())

        self.assertEqual(self.field("Version"), version.group(1))

    def test_manual_pages_are_whole(self):
        for packed in self.root.rglob("*.gz"):
            page = PROJECT / "man" / packed.stem
            self.assertEqual(gzip.decompress(packed.read_bytes()), page.read_bytes(), page)

    def test_the_configuration_is_kept_on_upgrades(self):
        self.assertEqual((self.root / "DEBIAN/conffiles").read_text(), "/etc/lb.conf\n")

    def test_maintainer_scripts_parse(self):
        scripts = [self.root / "DEBIAN" / name for name in ("postinst", "prerm", "postrm")]

        for script in scripts:
            subprocess.run(["sh", "-n", script], check=True)
            self.assertEqual(script.stat().st_mode & 0o7777, 0o755)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])

#!/usr/bin/python3
"""What is in the Debian package, without installing it.

    test_contents.py PROJECT PACKAGE-FOLDER
"""
import gzip
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

from package import output_of, the_package

PROJECT, FOLDER = (pathlib.Path(folder).resolve() for folder in sys.argv[1:3])

FILES = {
    "/etc/dhcp/dhclient-exit-hooks.d/lb": 0o644,
    "/etc/iproute2/rt_protos.d/lb.conf": 0o644,
    "/etc/lb.conf": 0o644,
    "/usr/lib/NetworkManager/dispatcher.d/70-lb": 0o755,
    "/usr/lib/dhcpcd/dhcpcd-hooks/70-lb": 0o644,
    **{f"/usr/lib/networkd-dispatcher/{state}.d/lb": 0o755
       for state in ("carrier", "configured", "degraded", "no-carrier", "off", "routable")},
    "/usr/lib/wan-load-balancer/networkd": 0o755,
    "/usr/lib/wan-load-balancer/udhcpc": 0o755,
    "/usr/sbin/lb": 0o755,
    "/usr/sbin/lb-lease": 0o755,
    "/usr/sbin/lbroute": 0o755,
    "/usr/bin/lbcheck": 0o755,
    "/usr/bin/lbsim": 0o755,
    "/usr/bin/lbshow": 0o755,
    "/usr/bin/lbwatch": 0o755,
    "/usr/lib/systemd/system/dhcpcd.service.d/lb.conf": 0o644,
    "/usr/lib/systemd/system/lb.service": 0o644,
    "/usr/lib/systemd/system/lbroute.service": 0o644,
    "/usr/lib/systemd/system/lbwatch-hooks.service": 0o644,
    "/usr/lib/systemd/system/lbwatch.service": 0o644,
    "/usr/lib/sysusers.d/lbwatch.conf": 0o644,
    "/usr/lib/tmpfiles.d/lb.conf": 0o644,
    "/usr/share/bash-completion/completions/lb": 0o644,
    "/usr/share/bash-completion/completions/lb-lease": 0o644,
    "/usr/share/bash-completion/completions/lbcheck": 0o644,
    "/usr/share/bash-completion/completions/lbsim": 0o644,
    "/usr/share/bash-completion/completions/lbroute": 0o644,
    "/usr/share/bash-completion/completions/lbshow": 0o644,
    "/usr/share/bash-completion/completions/lbwatch": 0o644,
    "/usr/share/man/man1/lbcheck.1.gz": 0o644,
    "/usr/share/man/man1/lbsim.1.gz": 0o644,
    "/usr/share/man/man1/lbshow.1.gz": 0o644,
    "/usr/share/man/man5/lb.conf.5.gz": 0o644,
    "/usr/share/man/man8/lb-lease.8.gz": 0o644,
    "/usr/share/man/man8/lb.8.gz": 0o644,
    "/usr/share/man/man8/lbroute.8.gz": 0o644,
    "/usr/share/man/man8/lbwatch.8.gz": 0o644,
    "/usr/share/wan-load-balancer/hooks/mail": 0o755,
    "/usr/share/wan-load-balancer/hooks/webhook": 0o755,
    "/usr/share/wan-load-balancer/prometheus/lb.rules.yml": 0o644,
}
DOCUMENTS = "/usr/share/doc/wan-load-balancer"
# Of the project, in the same folders there.
DOCUMENTED = ("*.md", "docs/**/*", "examples/**/*", "demo/*.conf")
LINK = re.compile(r"\]\(([^)#:]+)(?:#[^)]*)?\)")


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
        documents = {f"{DOCUMENTS}/{path.relative_to(PROJECT)}"
                     for pattern in DOCUMENTED for path in PROJECT.glob(pattern)
                     if path.is_file()}

        installed = {path for path in files if not path.startswith("/DEBIAN/")}

        self.assertGreater(len(documents), 15)
        self.assertEqual(installed, {*FILES, *documents, f"{DOCUMENTS}/copyright", f"{DOCUMENTS}/changelog.gz"})

    def test_links_of_the_documents_lead_to_files_that_are_there(self):
        pages = list(self.inside(DOCUMENTS).rglob("*.md"))
        links = [(page, link) for page in pages for link in LINK.findall(page.read_text())]

        self.assertGreater(len(links), 10)
        self.assertEqual([(page.name, link) for page, link in links if not (page.parent / link).exists()], [])

    def test_paths_that_the_documents_name_are_there(self):
        """Of examples and of this package's own documents, as pages and manuals write them."""
        path = re.compile(rf"{DOCUMENTS}(?:/[\w.-]*[\w-])*|(?<![\w./-])(?:demo|examples)/[\w-]+\.[a-z]+")
        pages = [page.read_text() for page in self.inside(DOCUMENTS).rglob("*.md")]
        manuals = [re.sub(r"\\-", "-", gzip.decompress(page.read_bytes()).decode())
                   for page in self.inside("/usr/share/man").rglob("*.gz")]
        named = {word for text in (*pages, *manuals) for word in path.findall(text) if not word.endswith(".py")}

        self.assertGreater(len(named), 3)
        self.assertEqual([word for word in sorted(named)
                          if not self.inside(word if word[0] == "/" else f"{DOCUMENTS}/{word}").exists()], [])

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

    def test_changelogs_begin_with_the_version(self):
        version = self.field("Version")

        changelog = gzip.decompress(self.inside(f"{DOCUMENTS}/changelog.gz").read_bytes()).decode()
        heading = re.search(r"^## (.*)$", self.inside(f"{DOCUMENTS}/CHANGELOG.md").read_text(), re.MULTILINE)

        self.assertTrue(changelog.startswith(f"wan-load-balancer ({version}) "), changelog)
        self.assertEqual(heading.group(1).split()[0], version)

    def test_contact_is_the_same_in_control_file_and_changelog(self):
        changelog = gzip.decompress(self.inside(f"{DOCUMENTS}/changelog.gz").read_bytes()).decode()

        self.assertIn(f"\n -- {self.field('Maintainer')}  ", changelog)

    @unittest.skipUnless(shutil.which("lintian"), "lintian is not installed")
    def test_lintian_finds_neither_errors_nor_warnings(self):
        """Only the copyright file says less than is wanted: the owner has not chosen a licence."""
        found = subprocess.run(["lintian", "--allow-root", "--tag-display-limit", "0", self.package],
                               stdout=subprocess.PIPE, text=True, check=False).stdout

        self.assertEqual(found, "W: wan-load-balancer: copyright-without-copyright-notice\n")

    def test_manual_pages_are_whole(self):
        for packed in self.inside("/usr/share/man").rglob("*.gz"):
            page = PROJECT / "man" / packed.stem
            self.assertEqual(gzip.decompress(packed.read_bytes()), page.read_bytes(), page)

    def test_the_configuration_is_kept_on_upgrades(self):
        kept = (self.root / "DEBIAN/conffiles").read_text().splitlines()

        self.assertEqual(kept, sorted(path for path in FILES if path.startswith("/etc/")))

    def test_folders_are_open_to_all(self):
        """And to be run from: networkd-dispatcher wants this mode exactly."""
        folders = [path for path in self.root.rglob("*") if path.is_dir() and path.name != "DEBIAN"]

        self.assertEqual({path.stat().st_mode & 0o7777 for path in folders}, {0o755})

    def test_scripts_of_the_dhcp_clients_parse(self):
        adapters = [path for path in FILES if path.endswith(("/lb", "/70-lb", "/networkd", "/udhcpc")) and
                    "completions" not in path and path != "/usr/sbin/lb"]

        self.assertEqual(len(adapters), 11)
        for path in adapters:
            subprocess.run(["sh", "-n", self.inside(path)], check=True)

    def test_maintainer_scripts_parse(self):
        scripts = [self.root / "DEBIAN" / name for name in ("postinst", "prerm", "postrm")]

        for script in scripts:
            subprocess.run(["sh", "-n", script], check=True)
            self.assertEqual(script.stat().st_mode & 0o7777, 0o755)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)

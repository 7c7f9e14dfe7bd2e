"""What runs on the lab's router: the balancing daemon, what puts its routes into force, what watches it, and a DHCP client,
with their files at the fixed paths."""

import dataclasses
import os
import pathlib
import shutil
import subprocess
import time

import network

HERE = pathlib.Path(__file__).resolve().parent
BUILD = HERE.parent / "build"
BIRD_DIR = BUILD / "tools/bird/usr/sbin"
LAB_DIR = pathlib.Path("/run/demo")
OUTPUT_DIR = pathlib.Path("/run/load-balance")  # the daemon's default
CONF = LAB_DIR / "lb.conf"
HISTORY = LAB_DIR / "history.db"
REPORT = BUILD / "demo.html"


@dataclasses.dataclass(frozen=True)
class Family:
    """What differs between the address families on the router."""

    name: str
    ip_option: str
    fragment: pathlib.Path
    bird: str
    pid_file: str


IPV4 = Family("IPv4", "-4", pathlib.Path("/usr/etc/routing-wlb.conf"), "bird", "/var/run/routing.pid")
IPV6 = Family("IPv6", "-6", pathlib.Path("/usr/etc/routing6-wlb.conf"), "bird6", "/var/run/routing6.pid")
FAMILIES = (IPV4, IPV6)


class Router:
    """The running daemons; they end with the lab."""

    def __init__(self, with_bird=False):
        self._programs = {}
        self._with_bird = with_bird
        self.route_protocol = "bird" if with_bird else "76"  # lbroute's, by number: it has no name on this machine

    def start(self):
        configuration = (HERE / "lb.conf").read_text(encoding="ascii")
        if self._with_bird:  # bird 1.6 takes no link-local next hop in a static route
            configuration = configuration.replace("nexthop fe80::1", "nexthop 2001:db8:2::1")
        CONF.write_text(configuration, encoding="ascii")
        lease = {**os.environ, "LB_LEASE": str(BUILD / "lb-lease"), "LB_CONF": str(CONF)}
        self._start("udhcpc", ("udhcpc", "-f", "-i", "gi1_2", "-s", HERE / "dhcp-client.sh"), env=lease)
        if self._with_bird:
            self._start_birds()
        else:
            self._start("lbroute", (BUILD / "lbroute", "-f", CONF))
        self._began = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())
        self.start_watcher()
        self._start("lb", (BUILD / "lb", "-f", CONF))

    def start_watcher(self):
        self._start("lbwatch", (BUILD / "lbwatch", "run", "--history", HISTORY, "--hooks", "none"))

    def _start_birds(self):
        for family in FAMILIES:
            shutil.copy(HERE / f"{family.bird}.conf", LAB_DIR)
            family.fragment.touch()  # bird insists on the file that it includes
            self._start(family.bird, (BIRD_DIR / family.bird, "-f", "-c", LAB_DIR / f"{family.bird}.conf",
                                      "-s", LAB_DIR / f"{family.bird}.ctl", "-P", family.pid_file))

    @staticmethod
    def interfaces():
        """What lbshow tells of the uplinks."""
        done = subprocess.run((BUILD / "lbshow", "interfaces"), text=True, capture_output=True, check=False)
        return (done.stdout or done.stderr).partition("\n\n")[0]

    def report(self):
        """Ends the watcher, which keeps what it saw, and writes its report of this run as a page."""
        watcher = self._programs.pop("lbwatch")
        watcher.terminate()
        watcher.wait(10)
        done = subprocess.run((BUILD / "lbwatch", "report", "--history", HISTORY, "--since", self._began, "--html", REPORT),
                              text=True, capture_output=True, check=False)
        if done.returncode != 0:
            raise RuntimeError(f"no report: {done.stderr.strip()}")
        owner = BUILD.stat()
        os.chown(REPORT, owner.st_uid, owner.st_gid)

    def _start(self, name, command, **options):
        with open(LAB_DIR / f"{name}.out", "wb") as output:
            self._programs[name] = network.start("router", *command, stdout=output, stderr=subprocess.STDOUT, **options)

    def require_alive(self):
        for name, program in self._programs.items():
            if program.poll() is not None:
                said = (LAB_DIR / f"{name}.out").read_text(errors="replace").strip()
                raise RuntimeError(f"{name} ended with status {program.returncode}: {said}")

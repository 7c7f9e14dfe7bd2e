"""What runs on the lab's router: the routing daemon and the balancing daemon, with their files at the fixed paths."""

import dataclasses
import pathlib
import shutil
import subprocess

import network

HERE = pathlib.Path(__file__).resolve().parent
BUILD = HERE.parent / "build"
LAB_DIR = pathlib.Path("/run/demo")
OUTPUT_DIR = pathlib.Path("/run/load-balance")  # the daemon's default
LEASES = {"gi1_2": f"lease {{\n  option routers {network.DHCP_ROUTER};\n}}\n"}


@dataclasses.dataclass(frozen=True)
class Family:
    """What differs between the address families on the router."""

    name: str
    ip_option: str
    routing_daemon: pathlib.Path
    routing_config: str
    fragment: pathlib.Path
    pid_file: str
    control: str
    default: str


IPV4 = Family(
    name="IPv4",
    ip_option="-4",
    routing_daemon=BUILD / "tools/bird/usr/sbin/bird",
    routing_config="bird.conf",
    fragment=pathlib.Path("/usr/etc/routing-wlb.conf"),
    pid_file="/var/run/routing.pid",
    control="/run/demo/bird.ctl",
    default="0.0.0.0/0",
)
IPV6 = Family(
    name="IPv6",
    ip_option="-6",
    routing_daemon=BUILD / "tools/bird/usr/sbin/bird6",
    routing_config="bird6.conf",
    fragment=pathlib.Path("/usr/etc/routing6-wlb.conf"),
    pid_file="/var/run/routing6.pid",
    control="/run/demo/bird6.ctl",
    default="::/0",
)
FAMILIES = (IPV4, IPV6)


class Router:
    """The running daemons; they end with the lab."""

    def __init__(self):
        self._programs = {}

    def start(self):
        for name in ("lb.conf", *(family.routing_config for family in FAMILIES)):
            shutil.copy(HERE / name, LAB_DIR)
        for interface, lease in LEASES.items():
            pathlib.Path(f"/var/db/dhclient_{interface}.leases").write_text(lease, encoding="ascii")
        for family in FAMILIES:
            family.fragment.touch()  # the routing daemon insists on the file that it includes
            self._start(
                family.routing_daemon.name,
                (family.routing_daemon, "-f", "-c", LAB_DIR / family.routing_config)
                + ("-s", family.control, "-P", family.pid_file),
            )
        self._start("lb", (BUILD / "lb", "-f", LAB_DIR / "lb.conf"))

    @staticmethod
    def interfaces():
        """What lbshow tells of the uplinks."""
        done = subprocess.run((BUILD / "lbshow", "interfaces"), text=True, capture_output=True, check=False)
        return (done.stdout or done.stderr).partition("\n\n")[0]

    def _start(self, name, command):
        with open(LAB_DIR / f"{name}.out", "wb") as output:
            self._programs[name] = network.start("router", *command, stdout=output, stderr=subprocess.STDOUT)

    def require_alive(self):
        for name, program in self._programs.items():
            if program.poll() is not None:
                said = (LAB_DIR / f"{name}.out").read_text(errors="replace").strip()
                raise RuntimeError(f"{name} ended with status {program.returncode}: {said}")

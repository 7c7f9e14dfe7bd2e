"""The program that writes lease files, and its adapters, at the places that the package has for them."""
import contextlib
import os
import shutil
import subprocess

from . import sandbox, sanitizers
from .daemon import ROOT, binary
from .routing_daemon import text_of

LB_LEASE = os.path.join(os.path.dirname(binary()), "lb-lease")
LEASE, LEASE6 = "/var/db/dhclient_gi1_1.leases", "/var/db/dhcp6_clientgi1_1.leases"
LOCK = "/var/db/.lb-lease.lock"
CONF = "/etc/lb.conf"

_PROGRAM = "/usr/sbin/lb-lease"
UDHCPC_SCRIPT = "/usr/lib/wan-load-balancer/udhcpc"
NETWORKD_SCRIPT = "/usr/lib/wan-load-balancer/networkd"
NETWORKMANAGER_SCRIPT = "/usr/lib/NetworkManager/dispatcher.d/70-lb"
# By name below packaging/leases.
_ADAPTERS = {
    "dhclient": "/etc/dhcp/dhclient-exit-hooks.d/lb",
    "dhcpcd": "/usr/lib/dhcpcd/dhcpcd-hooks/70-lb",
    "udhcpc": UDHCPC_SCRIPT,
    "networkd": NETWORKD_SCRIPT,
    "networkmanager": NETWORKMANAGER_SCRIPT,
}


def _install_file(source, target):
    os.makedirs(os.path.dirname(target), exist_ok=True)
    shutil.copy(source, target)


def install(*adapters):
    """Puts the program and these adapters where the package does. Once a test file: the machine keeps its own."""
    sandbox.make_writable("/etc", "/usr/sbin", "/usr/lib", "/var/lib")
    _install_file(LB_LEASE, _PROGRAM)
    for name in adapters:
        _install_file(os.path.join(ROOT, "packaging/leases", name), _ADAPTERS[name])


def write_conf(conf):
    """The configuration that the adapters go by."""
    with open(CONF, "w", encoding="utf-8") as file:
        file.write(conf.text())


def run(*arguments, environment=None):
    """Runs the program; (exit status, what it said)."""
    done = subprocess.run([LB_LEASE, *arguments], env={**os.environ, **(environment or {})}, text=True, check=False,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60)
    sanitizers.check(done.stdout, "lb-lease")
    return done.returncode, done.stdout


def files():
    """What lies beside the lock, sorted."""
    return sorted(set(os.listdir(os.path.dirname(LOCK))) - {os.path.basename(LOCK)})


def put(path, text):
    """Makes the file hold this text; None: not be there."""
    with contextlib.suppress(FileNotFoundError):
        os.unlink(path)
    if text is not None:
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)


def _head(boot):
    if boot is None:
        with open("/proc/sys/kernel/random/boot_id", encoding="ascii") as file:
            boot = file.read().strip()
    return f"# Written by lb-lease(8) for lb(8); changes are lost.\n# Since the machine's start {boot}\n"


def lease(router, boot=None, interface="gi1_1"):
    """The IPv4 file that the program writes; in this start of the machine, or in that other one."""
    return f'{_head(boot)}lease {{\n  interface "{interface}";\n  option routers {router};\n}}\n'


def lease6(router, boot=None):
    return f"{_head(boot)}interface='gi1_1'\nnew_routers='{router}'\n"

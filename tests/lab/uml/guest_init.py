#!/usr/bin/python3 -uB
"""First process of the guest: makes its root, loads the modules, runs the scenario named in the
run's folder, leaves the scenario's exit status there as `verdict` and switches the guest off.

The root is this machine's, mounted read-only, under a layer of memory; the places where the daemon
reads and writes start out empty.
"""

import ctypes
import json
import os
import pathlib
import subprocess
import sys
import traceback

MODULES = ("overlay", "veth", "ip_gre", "ipip", "8021q", "sch_netem", "nf_conntrack_netlink",
           "nft_ct", "dummy", "vrf", "bonding", "bridge")
DAEMON_PLACES = ("/run", "/usr/etc", "/var/db", "/var/vrfs")
FINIT_MODULE = 313  # finit_module(2) on x86-64
POWER_OFF = 0x4321FEDC  # reboot(2)

libc = ctypes.CDLL(None, use_errno=True)
libc.mount.argtypes = (ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_ulong, ctypes.c_char_p)


def mount(kind, target, options=""):
    """By mount(2), whose options a hostfs of any kernel takes for its folder: a mount(8) of util-linux 2.39 or later splits
    them into parameters, among which kernels from 6.11 on know none of that name."""
    if libc.mount(kind.encode(), str(target).encode(), kind.encode(), 0, options.encode() or None) != 0:
        raise OSError(ctypes.get_errno(), f"mounting {kind} on {target}")


def module_paths():
    """Each module's name with the files to load, its dependencies last (depmod(8))."""
    folder = pathlib.Path("/usr/lib/uml/modules", os.uname().release)
    paths = {}
    for line in (folder / "modules.dep").read_text().splitlines():
        file, dependencies = line.split(":")
        name = os.path.basename(file).removesuffix(".ko").replace("-", "_")
        paths[name] = [folder / path for path in [file, *dependencies.split()]]
    return paths


def load_modules():
    """Without modprobe(8), which a small machine need not have."""
    paths = module_paths()
    loaded = set()
    for path in (path for name in MODULES for path in reversed(paths[name])):
        if path in loaded:
            continue
        loaded.add(path)
        with open(path, "rb") as module:
            if libc.syscall(FINIT_MODULE, module.fileno(), b"", 0) != 0:
                raise OSError(ctypes.get_errno(), f"cannot load {path}")


def enter_private_root(folder):
    mount("tmpfs", "/mnt")
    for name in ("upper", "work", "root"):
        os.mkdir(f"/mnt/{name}")
    mount("overlay", "/mnt/root", "lowerdir=/,upperdir=/mnt/upper,workdir=/mnt/work")
    os.chroot("/mnt/root")
    os.chdir("/")
    mount("proc", "/proc")
    mount("sysfs", "/sys")
    mount("devtmpfs", "/dev")
    for place in DAEMON_PLACES:
        os.makedirs(place, exist_ok=True)
        mount("tmpfs", place)
    mount("hostfs", folder, folder)


def run_scenario(folder):
    order = json.loads(pathlib.Path(folder, "order.json").read_text())
    command = [sys.executable, "-uB", order["scenario"], *order["arguments"]]
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    return subprocess.run(command, env=dict(os.environ, LB_BINARY=order["lb"], FOLDER=folder)).returncode


def main(folder):
    os.environ["PATH"] = "/usr/sbin:/usr/bin:/sbin:/bin"
    try:
        mount("proc", "/proc")
        load_modules()
        enter_private_root(folder)
        pathlib.Path(folder, "verdict").write_text(str(run_scenario(folder)))
    except BaseException:
        traceback.print_exc()
    finally:
        libc.reboot(POWER_OFF)


main(sys.argv[1])

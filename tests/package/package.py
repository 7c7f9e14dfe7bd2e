"""What the package's tests share: where the built package is, and a root that may be spoilt."""
import ctypes
import os
import pathlib
import shutil
import subprocess
import sys

SKIPPED = 77
MARK = "LB_PACKAGE_ROOT"

_libc = ctypes.CDLL(None, use_errno=True)


def the_package(folder):
    """The one package in the folder."""
    packages = sorted(pathlib.Path(folder).glob("*.deb"))
    if len(packages) != 1:
        raise AssertionError(f"{folder}: {len(packages)} packages instead of one")
    return packages[0].resolve()


def output_of(*words):
    return subprocess.run(words, check=True, stdout=subprocess.PIPE, text=True).stdout


def mount(kind, target, options=""):
    if _libc.mount(kind.encode(), str(target).encode(), kind.encode(), 0, options.encode()) != 0:
        raise OSError(ctypes.get_errno(), f"mounting {kind} on {target}")


def enter_private_root(package):
    """Returns inside a root that looks like this machine's, but whose changes are forgotten with the
    process, and gives the package's path there: the project itself may lie on another disk or below
    a folder that is empty there. Leaves the process with SKIPPED where there are no rights."""
    if os.geteuid() != 0:
        print("skipped: installing a package needs root")
        sys.exit(SKIPPED)
    if not os.environ.get(MARK):
        os.environ[MARK] = "1"
        os.execvp("unshare", ["unshare", "--mount", "--propagation", "private", "--net", "--pid",
                              "--fork", "--kill-child", sys.executable, "-B", *sys.argv])
    mount("tmpfs", "/mnt")
    for name in ("upper", "work", "root"):
        os.mkdir(f"/mnt/{name}")
    shutil.copy(package, "/mnt/upper")
    mount("overlay", "/mnt/root", "lowerdir=/,upperdir=/mnt/upper,workdir=/mnt/work")
    os.chroot("/mnt/root")
    os.chdir("/")
    mount("proc", "/proc")
    for place in ("/run", "/tmp"):
        mount("tmpfs", place)
    mount("devtmpfs", "/dev")
    return pathlib.Path("/", package.name)

"""One test file's own world: mounts, process ids and network, gone with its last process.

enter() starts the running script again below unshare(1) and then makes the daemon's fixed paths
private. The script becomes process 1 of its pid namespace: however it ends, the kernel kills
everything it started, and mounts and network namespaces vanish with it.
"""
import ctypes
import os
import stat
import sys

SKIPPED = 77
MARK = "LB_LAB_SANDBOX"

# Paths of the daemon and of its companions. /dev is replaced as a whole, for /dev/log.
PRIVATE_DIRECTORIES = ("/usr/etc", "/var/db", "/var/vrfs")

_libc = ctypes.CDLL(None, use_errno=True)
_MS_BIND, _MS_REC, _MNT_DETACH = 0x1000, 0x4000, 2


def mount(source, target, kind="", flags=0, options=""):
    arguments = [word.encode() for word in (source, target, kind)]
    if _libc.mount(*arguments, ctypes.c_ulong(flags), options.encode() or None) != 0:
        raise OSError(ctypes.get_errno(), f"mounting {source} on {target}")


def unmount(path):
    """Takes the topmost file system off a directory, also one that is in use."""
    if _libc.umount2(path.encode(), _MNT_DETACH) != 0:
        raise OSError(ctypes.get_errno(), f"unmounting {path}")


def _tmpfs(path):
    mount("lab", path, "tmpfs")


def _copy_entry(entry, target):
    """Makes `target` stand for a directory entry without copying what lies behind it."""
    mode = entry.stat(follow_symlinks=False).st_mode
    if stat.S_ISLNK(mode):
        os.symlink(os.readlink(entry.path), target)
    elif stat.S_ISDIR(mode):
        os.mkdir(target)
        mount(entry.path, target, flags=_MS_BIND | _MS_REC)
    elif stat.S_ISCHR(mode) or stat.S_ISBLK(mode):
        os.mknod(target, mode, entry.stat(follow_symlinks=False).st_rdev)
        os.chmod(target, stat.S_IMODE(mode))
    elif stat.S_ISREG(mode):
        os.close(os.open(target, os.O_CREAT | os.O_WRONLY))
        mount(entry.path, target, flags=_MS_BIND)


def _shadow(directory, leave_out=()):
    """Puts a writable copy of a directory's first level over it: the machine's stays untouched."""
    staging = "/run/lab-staging"
    os.makedirs(staging, exist_ok=True)
    mount(directory, staging, flags=_MS_BIND | _MS_REC)
    _tmpfs(directory)
    os.chmod(directory, 0o755)
    with os.scandir(staging) as entries:
        for entry in entries:
            if entry.name not in leave_out:
                _copy_entry(entry, os.path.join(directory, entry.name))
    unmount(staging)
    os.rmdir(staging)


def make_paths_private():
    """Makes every fixed path of the daemon private; the caller has a mount namespace of its own."""
    _tmpfs("/run")
    if os.path.realpath("/var/run") != "/run":
        _tmpfs("/var/run")
    _shadow("/dev", leave_out=("log",))
    for directory in PRIVATE_DIRECTORIES:
        if not os.path.isdir(directory):
            _shadow(os.path.dirname(directory))
            os.mkdir(directory)
        _tmpfs(directory)


def make_writable(*directories):
    """Lets this test file change directories of the machine in its own eyes only."""
    staging = "/run/lab-changes"
    os.makedirs(staging)
    _tmpfs(staging)
    for number, directory in enumerate(directories):
        upper, work = (f"{staging}/{number}{kind}" for kind in ("upper", "work"))
        for path in (upper, work):
            os.mkdir(path)
        mount("overlay", directory, "overlay", options=f"lowerdir={directory},upperdir={upper},workdir={work}")
    unmount(staging)  # what was mounted above keeps it
    os.rmdir(staging)


def enter():
    """Returns inside the sandbox; leaves the process with SKIPPED where there are no rights."""
    if os.environ.get(MARK) and os.getpid() == 1:
        make_paths_private()
        return
    if os.geteuid() != 0:
        print("skipped: a lab test makes network namespaces and needs root")
        sys.exit(SKIPPED)
    os.environ[MARK] = "1"
    os.execvp("unshare", ["unshare", "--mount", "--propagation", "private", "--net", "--pid",
                          "--fork", "--kill-child", "--mount-proc", sys.executable, *sys.argv])

"""Own namespaces for the whole lab, so that the machine sees nothing of it and nothing outlives it.

The lab runs as the first process of its own PID namespace: when that process ends, for whatever reason, the kernel ends
all others, and with them go the mounts and the network namespaces. The daemon's fixed paths lie on private mounts.
"""

import ctypes
import os
import pathlib
import signal
import sys

sys.path.append(str(pathlib.Path(__file__).resolve().parents[1] / "tests/lab"))
from kit import sandbox  # the lab tests live on the same private paths

CLONE_NEWNS, CLONE_NEWPID, CLONE_NEWNET = 0x00020000, 0x20000000, 0x40000000
MS_REC, MS_PRIVATE = 0x4000, 0x40000
PR_SET_PDEATHSIG = 1

_libc = ctypes.CDLL(None, use_errno=True)


def run(lab):
    """Runs lab(keep) in namespaces of its own; returns (its exit status, None).

    When the lab calls keep(), this returns at once (0, process id of the lab), and the lab lives on without a terminal.
    """
    kept, keep = os.pipe()
    if _libc.unshare(CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWNET) != 0:
        sys.exit(f"demo: no namespaces of our own here: {os.strerror(ctypes.get_errno())}")
    pid = os.fork()
    if pid == 0:
        os.close(kept)
        os._exit(_first_process(lab, keep))
    os.close(keep)
    # Ctrl-C reaches the lab by itself (same terminal); what is sent to this process only is handed on.
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    signal.signal(signal.SIGTERM, lambda *_: os.kill(pid, signal.SIGTERM))
    if os.read(kept, 1):
        return 0, pid
    return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]), None


def _first_process(lab, keep_pipe):
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        _make_private_mounts()
        return lab(lambda: _detach(keep_pipe)) or 0
    except KeyboardInterrupt:
        print("\ninterrupted")
        return 130
    except SystemExit as end:
        return end.code if isinstance(end.code, int) else 1
    except Exception as error:  # whatever went wrong, the user gets one line, and the lab ends
        print(f"demo: {error}", file=sys.stderr)
        return 1
    finally:
        sys.stdout.flush()


def _detach(keep_pipe):
    """Leaves the terminal and the starting process, which thereupon ends."""
    sys.stdout.flush()
    _libc.prctl(PR_SET_PDEATHSIG, 0)
    os.setsid()
    nothing = os.open(os.devnull, os.O_RDWR)
    for descriptor in (0, 1, 2):
        os.dup2(nothing, descriptor)
    os.write(keep_pipe, b"k")


def _make_private_mounts():
    sandbox.mount("none", "/", flags=MS_REC | MS_PRIVATE)
    sandbox.mount("proc", "/proc", "proc")
    sandbox.make_paths_private()

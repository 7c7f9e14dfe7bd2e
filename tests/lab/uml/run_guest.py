#!/usr/bin/python3
"""Boots a user-mode Linux guest on this machine's own root, runs one scenario in it and ends with
the scenario's exit status.

The kernel of a container or a small virtual machine often lacks GRE, IPIP, VLAN and netem; the
guest's kernel has them as modules. The guest sees this machine's root read-only under a layer of
its own memory, so a scenario may write where it likes and nothing of the machine changes; only the
run's folder is shared. That folder holds the console, the system log and the captures; it is
removed after a success and named after a failure.

Exit status: the scenario's own (0 passed), 77 where no guest can run here, 1 when the guest did not
come to a verdict in time.
"""

import argparse
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
SKIPPED = 77


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--lb", required=True, type=pathlib.Path, help="the daemon to run")
    parser.add_argument("--preload", type=pathlib.Path,
                        help="library for the guest kernel's process (ptrace_xstate)")
    parser.add_argument("--time-limit", type=float, default=100, metavar="SECONDS")
    parser.add_argument("--keep", action="store_true", help="keep the run's folder")
    parser.add_argument("scenario", type=pathlib.Path)
    parser.add_argument("arguments", nargs=argparse.REMAINDER,
                        help="for the scenario, for example a test's name")
    return parser.parse_args()


def reason_to_skip():
    if shutil.which("linux.uml") is None:
        return "linux.uml is not installed (package user-mode-linux)"
    if os.geteuid() != 0:
        return "needs root"
    return None


def guest_command(folder, preload):
    """The guest in a process namespace of its own: when this runner ends, however it ends, the
    kernel kills that namespace's first process and with it every process of the guest."""
    command = ["setpriv", "--pdeathsig", "KILL",
               "unshare", "--pid", "--fork", "--kill-child", "--mount-proc"]
    if preload is not None:
        command += ["env", f"LD_PRELOAD={folder}/preload"]
    # The folder's path has no blanks, whatever the path of the sources: `init` and `preload` are links in it.
    return command + ["linux.uml", "rootfstype=hostfs", "rootflags=/", "ro", "mem=512M",
                      "con=null", "con0=null,fd:1", "quiet", "panic=-1", f"uml_dir={folder}/", "umid=guest",
                      f"init={folder}/init", "--", str(folder)]


def prepare(folder, options):
    (folder / "init").symlink_to(HERE / "guest_init.py")
    if options.preload is not None:
        (folder / "preload").symlink_to(options.preload.resolve())
    order = {"lb": str(options.lb.resolve()), "scenario": str(options.scenario.resolve()),
             "arguments": options.arguments}
    (folder / "order.json").write_text(json.dumps(order))


def run(folder, options):
    """The scenario's exit status, or None without a verdict."""
    with open(folder / "console", "wb") as console:
        guest = subprocess.Popen(guest_command(folder, options.preload), stdin=subprocess.DEVNULL,
                                 stdout=console, stderr=subprocess.STDOUT,
                                 env=dict(os.environ, HOME=str(folder), TMPDIR="/dev/shm"))
        try:
            guest.wait(timeout=options.time_limit)
        except subprocess.TimeoutExpired:
            print(f"the guest did not end within {options.time_limit:g} s", flush=True)
        finally:
            guest.kill()
            guest.wait()
    verdict = folder / "verdict"
    return int(verdict.read_text()) if verdict.exists() else None


def main():
    options = parse_arguments()
    reason = reason_to_skip()
    if reason is not None:
        print("skipped:", reason)
        return SKIPPED
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))

    folder = pathlib.Path(tempfile.mkdtemp(prefix="lb-guest-", dir="/tmp"))
    kept = True
    try:
        prepare(folder, options)
        status = run(folder, options)
        kept = options.keep or status != 0
        if status != 0:
            sys.stdout.write((folder / "console").read_text(errors="replace"))
            print("no verdict" if status is None else f"verdict {status}")
        else:
            said = (folder / "console").read_text(errors="replace").splitlines()
            print("\n".join([line.strip() for line in said if "skipped" in line] + ["passed"]))
        if kept:
            print("console, log and captures:", folder)
        return 1 if status is None else status
    except SystemExit:
        kept = False
        raise
    finally:
        if not kept:
            shutil.rmtree(folder)


if __name__ == "__main__":
    sys.exit(main())

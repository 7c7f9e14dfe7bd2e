"""What the companion program shows of the running daemon."""
import json
import os
import subprocess

from . import sanitizers
from .daemon import ROOT, binary

# Beside the daemon, unless that is one for another machine.
LBSHOW = os.environ.get("LB_NATIVE_LBSHOW", os.path.join(os.path.dirname(binary()), "lbshow"))
# Unpacked, not installed: the package would start a service (scripts/deps).
PROMTOOL = os.path.join(ROOT, "build/tools/prometheus/usr/bin/promtool")


def lbshow(*arguments):
    done = subprocess.run([LBSHOW, *arguments], capture_output=True, text=True, check=False,
                          timeout=60)
    sanitizers.check(done.stderr, "lbshow")
    return done


def state(*arguments):
    """What the dumps tell, however old they are: a busy machine may hold a daemon up. Nothing where there are none."""
    done = lbshow("--json", "--all", *arguments)
    if done.returncode not in (0, 1, 3):  # 1 without dumps, 3 where they are old
        raise AssertionError(f"lbshow ended with {done.returncode}:\n{done.stderr}")
    return json.loads(done.stdout or '{"interfaces": [], "rules": [], "routes": []}')


def active():
    """Whether each interface is active, in the order of the dumps."""
    return [one["active"] for one in state()["interfaces"]]

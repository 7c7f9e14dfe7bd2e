"""What the companion program shows of the running daemon."""
import json
import os
import subprocess

from .daemon import ROOT, binary

# Beside the daemon, unless that is one for another machine.
LBSHOW = os.environ.get("LB_NATIVE_LBSHOW", os.path.join(os.path.dirname(binary()), "lbshow"))
# Unpacked, not installed: the package would start a service (scripts/deps).
PROMTOOL = os.path.join(ROOT, "build/tools/prometheus/usr/bin/promtool")


def lbshow(*arguments):
    return subprocess.run([LBSHOW, *arguments], capture_output=True, text=True, check=False,
                          timeout=60)


def state(*arguments):
    """What the dumps tell, however old they are: a busy machine may hold a daemon up. Nothing where there are none."""
    done = lbshow("--json", "--all", *arguments)
    return json.loads(done.stdout or '{"interfaces": [], "rules": [], "routes": []}')


def active():
    """Whether each interface is active, in the order of the dumps."""
    return [one["active"] for one in state()["interfaces"]]

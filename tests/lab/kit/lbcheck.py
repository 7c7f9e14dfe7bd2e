"""What the checker says of the router that it runs on."""
import json
import os
import subprocess

from . import sanitizers
from .daemon import binary
from .lab import CONF

LBCHECK = os.path.join(os.path.dirname(binary()), "lbcheck")


class Look:
    """One run of `lbcheck --live`."""

    def __init__(self, space, *arguments, prefix=()):
        done = subprocess.run([*space.command(), *prefix, LBCHECK, "--live", "--json", *arguments, CONF],
                              capture_output=True, text=True, timeout=60, check=False)
        sanitizers.check(done.stderr, "lbcheck")
        if not done.stdout:
            raise AssertionError(done.stderr or "lbcheck said nothing")
        self.status = done.returncode
        told = json.loads(done.stdout)
        self.findings = told["findings"]  # of the file
        self.lines = [f"{one['state']} {one['place']}: {one['text']}" + (f"; mend: {one['mend']}" if one["mend"] else "")
                      for one in told["live"]]

    def of(self, state):
        return [line for line in self.lines if line.startswith(state + " ")]

    def with_words(self, *words):
        """The lines that hold all of these words."""
        return [line for line in self.lines if all(word in line for word in words)]

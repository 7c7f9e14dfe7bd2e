"""The routing daemons bird 2 and 3, which take both families in one process."""
import contextlib
import functools
import glob
import os
import shutil
import signal
import subprocess

from .daemon import ROOT
from .expect import expect
from .routing_daemon import text_of


@functools.cache
def _version_of(program):
    told = subprocess.run([program, "--version"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False).stdout
    return told.removeprefix("BIRD version ").partition(".")[0]


def newer_bird_binary(version):
    """bird 2 or 3: LB_BIRD2 or LB_BIRD3, the project's own tools, or the system's; None without."""
    own = glob.glob(os.path.join(ROOT, "build", "tools", f"bird{version}", "**", "sbin", "bird"), recursive=True)
    candidates = (os.environ.get(f"LB_BIRD{version}"), *own, shutil.which("bird"))
    return next((path for path in candidates
                 if path and os.access(path, os.X_OK) and _version_of(path) == str(version)), None)


def why_absent(version):
    """What a test without that bird says."""
    told = (text_of(os.path.join(ROOT, "build", "tools", f"bird{version}", "absent")) or "").strip()
    return f"skipped: {told}" if told else f"no bird {version}: set LB_BIRD{version} or run scripts/deps test"


_CONF = """\
router id 192.0.2.2;
log stderr all;
protocol device {{ scan time 1; }}
protocol kernel {{ scan time 1; ipv4 {{ import none; export all; }}; metric 0; }}
protocol kernel {{ scan time 1; ipv6 {{ import none; export all; }}; metric 0; }}
include "{included}";
"""


class NewerBird:
    """A bird in a namespace, started when the test says so. `included` is the file of lbroute's. With `user` bird runs as that
    user and group, and has its configuration and its control socket in the folder `home`, which belongs to them."""

    def __init__(self, namespace, folder, version, included, user="", home=""):
        self._namespace = namespace
        self._program = newer_bird_binary(version)
        self._conf = os.path.join(home or folder, "bird.conf")
        self._log_path = os.path.join(folder, "bird.err")
        self._control = os.path.join(home or "/run", "newer-bird.ctl")
        self._as_user = ["-u", user, "-g", user] if user else []
        self._process = None
        self.write_conf(_CONF.format(included=included))

    def write_conf(self, text):
        with open(self._conf, "w", encoding="ascii") as file:
            file.write(text)

    def conf(self):
        return text_of(self._conf)

    def refusal(self):
        """What bird says of its configuration, without running; empty when it is well."""
        return subprocess.run([self._program, "-p", "-c", self._conf], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False).stdout

    def start(self):
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self._control)
        with open(self._log_path, "ab") as log:
            self._process = subprocess.Popen(
                self._namespace.command(self._program, "-f", "-c", self._conf, "-s", self._control, *self._as_user),
                stdout=log, stderr=log, stdin=subprocess.DEVNULL)
        expect(lambda: self.birdc("show", "status").find("Daemon is up") >= 0,
               what="bird is ready: " + (text_of(self._log_path) or ""))

    @property
    def pid(self):
        return self._process.pid

    def birdc_command(self):
        """The command that makes it read its configuration again."""
        return f"{os.path.join(os.path.dirname(self._program), 'birdc')} -s {self._control} configure"

    def birdc(self, *words):
        program, *rest = self.birdc_command().split()[:-1]
        return subprocess.run([program, *rest, *words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False).stdout

    def pause(self, paused=True):
        self._process.send_signal(signal.SIGSTOP if paused else signal.SIGCONT)

    def close(self):
        if self._process is not None:
            self._process.kill()
            self._process.wait()

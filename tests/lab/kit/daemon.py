"""The daemon under test, a child of the lab."""
import glob
import os
import shlex
import signal
import subprocess

from . import sanitizers
from .expect import expect

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.dirname(
    os.path.abspath(__file__)))))

# How long a signal may take to end a daemon: a leak is looked for and told with the sources' lines.
END_S = 20


def binary():
    return os.environ.get("LB_BINARY", os.path.join(ROOT, "build", "lb"))


def command():
    """What runs the binary: itself, or the emulator of another machine."""
    return [*shlex.split(os.environ.get("LB_EMULATOR", "")), binary()]


def is_built_with(name):
    """Whether the daemon's binary mentions this name, as one with a sanitizer does its library's."""
    with open(binary(), "rb") as file:
        return name.encode() in file.read()


def preload(library):
    """The environment that preloads a library, if any: by a link, for in that variable a blank in its path would end it."""
    if not library:
        return {}
    link = f"/run/{os.path.basename(library)}"
    if not os.path.lexists(link):
        os.symlink(library, link)
    return {"LD_PRELOAD": link}


class Daemon:
    """One run of `lb` in a namespace. `folder` keeps its output."""

    _runs = 0

    def __init__(self, namespace, arguments, folder, environment=None):
        Daemon._runs += 1
        self._base = os.path.join(folder, f"lb{Daemon._runs}")
        # In files, so that they are found for a background daemon too; the options' own syntax wants a plain path.
        self._reports = f"/run/lb{Daemon._runs}.sanitizer"
        self.stopped = False
        env = {**os.environ, **preload(os.environ.get("LB_LEAK_CHECK")), **(environment or {})}
        for name in sanitizers.OPTIONS:
            given = [env[name]] if env.get(name) else []
            env[name] = ":".join([*given, f"log_path={self._reports}", "exitcode=66"])
        with open(self._base + ".out", "wb") as out, open(self._base + ".err", "wb") as err:
            # A process group of its own: who signals the daemon's group must not meet the lab.
            self._process = subprocess.Popen(namespace.command(*command(), *arguments), env=env,
                                             stdin=subprocess.DEVNULL, stdout=out, stderr=err,
                                             process_group=0)

    @property
    def pid(self):
        return self._process.pid

    @property
    def stdout(self):
        return self._read(".out")

    @property
    def stderr(self):
        return self._read(".err")

    def _read(self, suffix):
        with open(self._base + suffix, encoding="utf-8", errors="replace") as file:
            return file.read()

    def running(self):
        return self._process.poll() is None

    def wait(self, within=15):
        """The exit status of a daemon that ends by itself."""
        expect(lambda: not self.running(), within, "the daemon ends by itself")
        self.stopped = True
        return self._process.returncode

    def stop(self):
        """Ends the daemon; fails when it had ended before or has to be forced, or on a sanitizer's report."""
        if not self.stopped:
            ended_before = not self.running()
            status = self.kill(signal.SIGTERM)
            if ended_before:
                raise AssertionError(f"the daemon ended with {status}:\n" + self.stderr + self.sanitizer_reports())
            self.check_reports()
            if status == -signal.SIGKILL:
                raise AssertionError(f"the daemon did not end within {END_S} s of SIGTERM:\n" + self.stderr)
            if status != -signal.SIGTERM:
                raise AssertionError(f"the daemon ended with {status} on SIGTERM:\n" + self.stderr)
        self.check_reports()

    def kill(self, number=signal.SIGKILL):
        """Ends the daemon by a signal, without judging; its exit status."""
        self.stopped = True
        if self.running():
            self._process.send_signal(number)
            try:
                self._process.wait(END_S)
            except subprocess.TimeoutExpired:
                self._process.kill()
                self._process.wait()
        return self._process.returncode

    def sanitizer_reports(self):
        texts = [self.stderr]
        for path in glob.glob(self._reports + "*"):
            with open(path, encoding="utf-8", errors="replace") as file:
                texts.append(file.read())
        return "\n".join(filter(sanitizers.has_report, texts))

    def check_reports(self):
        reports = self.sanitizer_reports()
        if reports:
            raise AssertionError("sanitizer report of the daemon:\n" + reports)

"""The daemon under test, a child of the lab."""
import glob
import os
import shlex
import signal
import subprocess

from .expect import expect

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.dirname(
    os.path.abspath(__file__)))))

# Options of the sanitizers: reports go to files, so that they are found for a background daemon
# too. Of no effect in a plain build.
_SANITIZERS = ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS")
_REPORT_MARKS = ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "WARNING: ThreadSanitizer",
                 "runtime error:", "FATAL: ThreadSanitizer")


def binary():
    return os.environ.get("LB_BINARY", os.path.join(ROOT, "build", "lb"))


def command():
    """What runs the binary: itself, or the emulator of another machine."""
    return [*shlex.split(os.environ.get("LB_EMULATOR", "")), binary()]


def is_built_with(name):
    """Whether the daemon's binary mentions this name, as one with a sanitizer does its library's."""
    with open(binary(), "rb") as file:
        return name.encode() in file.read()


class Daemon:
    """One run of `lb` in a namespace. `folder` keeps its output and any sanitizer reports."""

    _runs = 0

    def __init__(self, namespace, arguments, folder, environment=None):
        Daemon._runs += 1
        self._base = os.path.join(folder, f"lb{Daemon._runs}")
        self._reports = self._base + ".sanitizer"
        self.stopped = False
        env = {**os.environ, **(environment or {})}
        for name in _SANITIZERS:
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
        """Ends the daemon; fails when it had ended before, or on a sanitizer's report."""
        if not self.stopped:
            ended_before = not self.running()
            self.kill(signal.SIGTERM)
            if ended_before:
                raise AssertionError(f"the daemon ended with {self._process.returncode}:\n"
                                     + self.stderr + self.sanitizer_reports())
        self.check_reports()

    def kill(self, number=signal.SIGKILL):
        """Ends the daemon by a signal, without judging; its exit status."""
        self.stopped = True
        if self.running():
            self._process.send_signal(number)
            try:
                self._process.wait(5)
            except subprocess.TimeoutExpired:
                self._process.kill()
                self._process.wait()
        return self._process.returncode

    def sanitizer_reports(self):
        texts = [self.stderr]
        for path in glob.glob(self._reports + "*"):
            with open(path, encoding="utf-8", errors="replace") as file:
                texts.append(file.read())
        return "\n".join(text for text in texts
                         if any(mark in text for mark in _REPORT_MARKS))

    def check_reports(self):
        reports = self.sanitizer_reports()
        if reports:
            raise AssertionError("sanitizer report of the daemon:\n" + reports)

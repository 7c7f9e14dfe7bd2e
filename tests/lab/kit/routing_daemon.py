"""Routing daemons that read the fragments: a captured one and the real one."""
import contextlib
import glob
import json
import os
import shutil
import signal
import subprocess
import sys

from .daemon import ROOT
from .expect import expect

_RECORDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "hup_recorder.py")


def fragment_path(namespace="", ipv6=False):
    directory = f"/var/vrfs/{namespace}/usr/etc" if namespace else "/usr/etc"
    return f"{directory}/routing{'6' if ipv6 else ''}-wlb.conf"


def pid_path(namespace="", ipv6=False):
    directory = f"/var/vrfs/{namespace}/usr/var/run" if namespace else "/var/run"
    return f"{directory}/routing{'6' if ipv6 else ''}.pid"


def make_directories(namespace=""):
    """The directories that a router's namespace has; the daemon makes none."""
    for path in (fragment_path(namespace), pid_path(namespace)):
        os.makedirs(os.path.dirname(path), exist_ok=True)


def text_of(path):
    """A file's text, None where there is none."""
    try:
        with open(path, encoding="utf-8") as file:
            return file.read()
    except FileNotFoundError:
        return None


class CapturedRoutingDaemon:
    """A process that records each SIGHUP; its pid file is where the daemon looks for it.

    `pid_text` writes something else into the pid file ("%d" stands for the pid); `group` puts the
    process into another one's process group.
    """

    _runs = 0

    def __init__(self, folder, namespace="", ipv6=False, pid_text="%d\n", group=0):
        make_directories(namespace)
        CapturedRoutingDaemon._runs += 1
        name = f"routing{CapturedRoutingDaemon._runs}.hups"
        self._record = os.path.join(folder, name)
        self._process = subprocess.Popen(
            [sys.executable, "-I", "-S", _RECORDER, fragment_path(namespace, ipv6), self._record],
            process_group=group)
        expect(lambda: self._entries(), what="the captured routing daemon is ready")
        if pid_text is not None:
            with open(pid_path(namespace, ipv6), "w", encoding="ascii") as file:
                file.write(pid_text.replace("%d", str(self.pid)))

    @property
    def pid(self):
        return self._process.pid

    def _entries(self):
        lines = (text_of(self._record) or "").split("\n")[:-1]
        return [json.loads(line) for line in lines]

    def hups(self):
        """Every SIGHUP so far: {"time_s", "sender", "fragment"}."""
        return self._entries()[1:]

    def fragments(self):
        """The fragment's text at each SIGHUP."""
        return [hup["fragment"] for hup in self.hups()]

    def close(self):
        self._process.kill()
        self._process.wait()


def bird_binary(ipv6=False):
    """The real routing daemon: LB_BIRD, the project's own tools, or the system's; None without.

    That of IPv6 stands beside the other one.
    """
    name = "bird6" if ipv6 else "bird"
    given = os.environ.get("LB_BIRD")
    if given and ipv6:
        given = os.path.join(os.path.dirname(given), name)
    own = glob.glob(os.path.join(ROOT, "build", "tools", "bird", "**", "sbin", name), recursive=True)
    return next((path for path in (given, *own, shutil.which(name))
                 if path and os.access(path, os.X_OK) and _reads_fragments(path)), None)


def _reads_fragments(path):
    """Later versions under the same name have another language."""
    said = subprocess.run([path, "--version"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    return "version 1." in said.stdout


def why_no_bird():
    """What a test says that is skipped without the real routing daemon."""
    return (text_of(os.path.join(ROOT, "build/tools/bird/absent")) or "no bird 1.6: set LB_BIRD or run scripts/deps").strip()


_BIRD_CONF = """\
router id {router_id};
protocol device {{ scan time 1; }}
protocol kernel {{ scan time 1; import none; export all; }}
include "{fragment}";
"""


class Bird:
    """The real routing daemon of a family in a namespace, with the fragment in its configuration."""

    def __init__(self, lab_namespace, folder, router_id, namespace="", ipv6=False):
        name = "bird6" if ipv6 else "bird"
        make_directories(namespace)
        fragment = fragment_path(namespace, ipv6)
        if text_of(fragment) is None:
            with open(fragment, "w", encoding="ascii"):
                pass
        conf, control = os.path.join(folder, f"{name}.conf"), f"/run/{name}.ctl"
        with open(conf, "w", encoding="ascii") as file:
            file.write(_BIRD_CONF.format(router_id=router_id, fragment=fragment))
        self._log_path = os.path.join(folder, f"{name}.err")
        with contextlib.suppress(FileNotFoundError):
            os.unlink(control)  # of one that was killed
        with open(self._log_path, "ab") as log:
            self._process = subprocess.Popen(
                lab_namespace.command(bird_binary(ipv6), "-d", "-c", conf, "-s", control),
                stdout=log, stderr=log, stdin=subprocess.DEVNULL)
        expect(lambda: os.path.exists(control), what=f"{name} is ready: " + self.log())
        with open(pid_path(namespace, ipv6), "w", encoding="ascii") as file:
            file.write(f"{self._process.pid}\n")

    def log(self):
        return text_of(self._log_path) or ""

    def end(self, number=signal.SIGTERM):
        """Ends by a signal, its pid file left behind."""
        self._process.send_signal(number)
        self._process.wait()

    def close(self):
        self._process.kill()
        self._process.wait()


def next_hops(namespace, family, prefix):
    """{gateway: weight} of the kernel's route to the prefix."""
    routes = json.loads(namespace.run("ip", family, "-j", "route", "show", prefix) or "[]")
    if not routes:
        return {}
    hops = routes[0].get("nexthops") or [{"gateway": routes[0]["gateway"], "weight": 1}]
    return {hop["gateway"]: hop["weight"] for hop in hops}

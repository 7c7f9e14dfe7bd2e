"""One router with its uplinks, the daemon on it, and the base class of lab tests."""
import os
import shutil
import signal
import sys
import unittest

from . import sandbox
from .cycles import Cycles, patience_s
from .daemon import ROOT, Daemon
from .disk import Disk
from .expect import expect
from .keep_alives import KeepAlives
from .netns import Namespace
from .peer import Peer
from .routing_daemon import (Bird, CapturedRoutingDaemon, fragment_path, make_directories, pid_path,
                             text_of)
from .system_log import SystemLog

CONF = "/run/lb.conf"
# The daemon makes the folder for its dumps, not the one above it.
OUTPUT_DIRECTORY = "/var/run/load-balance"


def results_folder():
    return os.environ.get("LB_LAB_RESULTS", os.path.join(ROOT, "build", "lab-results"))


class Lab:
    """The router's default namespace is `router`; `far` holds the other ends of all its links.

    Everything made through the lab is closed by close(), last made first.
    """

    def __init__(self, folder):
        self.folder = folder
        self._closers = []
        self._links = 0
        self._wipe()
        self.log = self._owned(SystemLog())
        self.keep_alives = self._owned(KeepAlives("/run/notify"))
        self.cycles = Cycles(self.keep_alives)  # of all runs of the daemon together
        self.router = self._owned(Namespace.anonymous())
        self.far = self._owned(Namespace.anonymous())
        self.namespaces = [self.router]
        self.peers = {}
        make_directories()
        os.makedirs(OUTPUT_DIRECTORY)

    def _owned(self, thing):
        self._closers.append(thing.close)
        return thing

    @staticmethod
    def _wipe():
        """A file's tests share the private directories: each starts with empty ones."""
        for directory in (*sandbox.PRIVATE_DIRECTORIES, "/run"):
            for name in os.listdir(directory):
                path = os.path.join(directory, name)
                if path != "/run/netns":
                    shutil.rmtree(path) if os.path.isdir(path) else os.unlink(path)

    # The network.

    def namespace(self, name):
        """One more namespace of the router, entered by name."""
        made = self._owned(Namespace.named(name))
        self.namespaces.append(made)
        make_directories(name)
        return made

    def macs(self):
        """Addresses of the latest link: (the router's end, the far end)."""
        return f"02:00:5e:10:00:{self._links:02x}", f"02:00:5e:20:00:{self._links:02x}"

    def uplink(self, name, address=None, gateway=None, *, address6=None, gateway6=None,
               point_to_point=None, namespace=None, known=False):
        """An uplink of the router and its scripted peer, who answers as `gateway`.

        `address` and `address6` carry their prefix length; `point_to_point` is the peer address of
        a tunnel. `namespace` is the router's default one unless given. With `known` the kernel has
        the gateway's hardware address from the start, so that the first probe leaves at once.
        """
        self._links += 1
        near, far = self.macs()
        space, end = namespace or self.router, f"far{self._links}"
        # Up from its first moment: a daemon that runs already never meets it down.
        space.ip(f"link add {name} up address {near} type veth peer name {end} address {far} "
                 f"netns {self.far.path}")
        if address:
            remote = f" peer {point_to_point}" if point_to_point else ""
            space.ip(f"address add {address}{remote} dev {name}")
        if address6:
            space.sysctl(f"ipv6/conf/{name}/disable_ipv6", "0")
            space.ip(f"address add {address6} dev {name} nodad")
        self.far.ip(f"link set {end} up")
        # Until the kernel has noticed the carrier, it drops what it is given to send.
        expect(lambda: " state UP " in space.ip(f"link show {name}"), what=f"{name} is up")
        if known:
            space.ip(f"neigh replace {gateway} lladdr {far} dev {name} nud permanent")
        answers_for = [one for one in (gateway, gateway6, point_to_point) if one]
        peer = self._owned(Peer(self.far, end, far, answers_for))
        self.peers[f"{space.name or 'default'}-{name}"] = peer
        return peer

    def forget_neighbours(self, device, namespace=None):
        (namespace or self.router).ip(f"neigh flush dev {device}")

    def neighbour(self, address, device, namespace=None):
        """The kernel's line for a neighbour, empty without one."""
        return (namespace or self.router).ip(f"neigh show {address} dev {device}").strip()

    def flap(self, peer, cycles):
        """Takes a link down and up again, many times in a cycle, until so many cycles have ended."""
        end = self.cycles.count() + cycles

        def down_and_up():
            peer.link("down")
            peer.link("up")
            return self.cycles.count() >= end
        expect(down_and_up, patience_s(cycles), f"{cycles} cycles of a flapping link")

    # Who runs on the router.

    def routing_daemon(self, namespace="", ipv6=False, pid_text="%d\n", group=0):
        return self._owned(CapturedRoutingDaemon(self.folder, namespace, ipv6, pid_text, group))

    def bird(self, router_id, ipv6=False):
        return self._owned(Bird(self.router, self.folder, router_id, ipv6=ipv6))

    def disk(self, directory, pages=64, free_pages=None):
        return self._owned(Disk(directory, pages, free_pages))

    def keep_alives_at(self, path):
        return self._owned(KeepAlives(path))

    def own(self, close):
        """Has close() called at the end, before everything that was made earlier goes."""
        self._closers.append(close)

    def write_conf(self, conf):
        """Writes a Conf, or a text as it stands, and gives its path."""
        with open(CONF, "w", encoding="utf-8", newline="") as file:
            file.write(conf if isinstance(conf, str) else conf.text())
        return CONF

    def run_daemon(self, *arguments, environment=None):
        """Starts `lb` with these arguments; stopped and judged at the end."""
        daemon = Daemon(self.router, arguments, self.folder,
                        {**self.keep_alives.environment, **(environment or {})})
        self._closers.append(daemon.stop)
        return daemon

    def start(self, conf, *arguments, environment=None):
        """Starts `lb` in the foreground with a configuration."""
        return self.run_daemon("-f", self.write_conf(conf), *arguments, environment=environment)

    @staticmethod
    def fragment(namespace="", ipv6=False):
        """The fragment's text, None where there is none."""
        return text_of(fragment_path(namespace, ipv6))

    @staticmethod
    def pid_file(namespace="", ipv6=False):
        return pid_path(namespace, ipv6)

    # The end.

    def save_state(self):
        """Leaves captures, log and the kernel's state in the folder."""
        self.log.save(os.path.join(self.folder, "system.log"))
        for name, peer in self.peers.items():
            peer.recording.save(os.path.join(self.folder, f"{name}.pcap"))
        for path in (CONF, *(fragment_path(space.name, ipv6) for space in self.namespaces
                             for ipv6 in (False, True))):
            if os.path.exists(path):
                shutil.copy(path, os.path.join(self.folder, path.strip("/").replace("/", "_")))
        for space in self.namespaces:
            with open(os.path.join(self.folder, f"state-{space.name or 'default'}.txt"), "w",
                      encoding="utf-8") as file:
                for words in ("address show", "route show table all", "-6 route show", "neigh show"):
                    file.write(f"# ip {words}\n{space.ip(words, check=False)}\n")

    def close(self):
        failures = []
        for close in reversed(self._closers):
            try:
                close()
            except Exception as failure:  # pylint: disable=broad-except
                failures.append(failure)
        self._closers.clear()
        if failures:
            raise failures[0]


class LabTest(unittest.TestCase):
    """A test with a lab of its own. Its folder stays only when it fails."""

    maxDiff = None

    def run(self, result=None):
        self._result = result if result is not None else self.defaultTestResult()
        return super().run(self._result)

    def setUp(self):
        # From the script's name, for the module is __main__.
        script = os.path.splitext(os.path.basename(sys.argv[0]))[0]
        self.folder = os.path.join(results_folder(), f"{script}.{self._testMethodName}")
        shutil.rmtree(self.folder, ignore_errors=True)
        os.makedirs(self.folder)
        self.addCleanup(self._leave_or_remove_folder)
        self.lab = Lab(self.folder)
        self.addCleanup(self.lab.close)
        self.addCleanup(self._save_state_after_failure)

    def _failed(self):
        """Whether this test, or a subtest of it, has already failed."""
        return any(self in (test, getattr(test, "test_case", None))
                   for test, _ in self._result.failures + self._result.errors)

    def _save_state_after_failure(self):
        if self._failed():
            self.lab.save_state()

    def _leave_or_remove_folder(self):
        if self._failed():
            print(f"{self.id()}: capture, log and state are in {self.folder}", file=sys.stderr)
        else:
            shutil.rmtree(self.folder)


class _Result(unittest.TextTestResult):
    """Counts what passed: skipped classes are no tests that ran."""

    passed = 0

    def addSuccess(self, test):
        super().addSuccess(test)
        self.passed += 1


class _Runner(unittest.TextTestRunner):
    resultclass = _Result


def main(missing=None, prepare=None):
    """Runs the calling test file in its sandbox, after `prepare` there; not at all where a program is `missing`."""
    if missing:
        print(f"skipped: no {missing} here")
        sys.exit(sandbox.SKIPPED)
    sandbox.enter()
    if prepare:
        prepare()
    signal.signal(signal.SIGTERM, lambda *_: os._exit(1))
    result = unittest.main(module="__main__", exit=False, verbosity=2, testRunner=_Runner).result
    if not result.wasSuccessful():
        sys.exit(1)
    if result.passed:
        sys.exit(0)
    if not result.skipped:
        sys.exit("there is no such test")
    sys.exit(sandbox.SKIPPED)

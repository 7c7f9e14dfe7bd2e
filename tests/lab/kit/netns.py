"""Network namespaces held by a descriptor, so that they end with whoever holds them."""
import contextlib
import ctypes
import os
import socket
import subprocess
import threading

_libc = ctypes.CDLL(None, use_errno=True)
_CLONE_NEWNET = 0x40000000

# A quiet kernel: no answers of its own choice, no filter on sources, no IPv6 chatter unless asked.
_QUIET = {
    "ipv4/conf/all/rp_filter": "0",
    "ipv4/conf/default/rp_filter": "0",
    "ipv6/conf/all/disable_ipv6": "1",
    "ipv6/conf/default/disable_ipv6": "1",
    "ipv6/conf/default/accept_ra": "0",
    "ipv6/conf/default/accept_dad": "0",
}


def _setns(descriptor):
    if _libc.setns(descriptor, _CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


def _own_namespace():
    return os.open(f"/proc/self/task/{threading.get_native_id()}/ns/net",
                   os.O_RDONLY | os.O_CLOEXEC)


class Namespace:
    """A network namespace. `name` is the daemon's name for it, empty for the default one."""

    def __init__(self, descriptor, name=""):
        self._descriptor = descriptor
        self.name = name
        for key, value in _QUIET.items():
            self.sysctl(key, value)
        self.ip("link set lo up")

    @classmethod
    def anonymous(cls):
        """A new namespace without a name under /var/run/netns."""
        made = []

        def make():
            if _libc.unshare(_CLONE_NEWNET) == 0:
                made.append(_own_namespace())

        thread = threading.Thread(target=make)
        thread.start()
        thread.join()
        if not made:
            raise OSError("cannot make a network namespace")
        return cls(made[0])

    @classmethod
    def named(cls, name):
        """A new namespace that setns(2) finds under /var/run/netns."""
        subprocess.run(["ip", "netns", "add", name], check=True)
        return cls(os.open(f"/var/run/netns/{name}", os.O_RDONLY | os.O_CLOEXEC), name)

    @property
    def path(self):
        return f"/proc/{os.getpid()}/fd/{self._descriptor}"

    @contextlib.contextmanager
    def inside(self):
        """The calling thread is in the namespace for the block: to open sockets, not to start
        threads."""
        home = _own_namespace()
        _setns(self._descriptor)
        try:
            yield
        finally:
            _setns(home)
            os.close(home)

    def command(self, *words):
        """The command line that runs `words` in here, without a process of its own in between."""
        return ["nsenter", f"--net={self.path}", *words]

    def run(self, *words, check=True):
        """Runs a command in here; its standard output."""
        done = subprocess.run(self.command(*words), check=False, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        if check and done.returncode != 0:
            raise RuntimeError(f"{' '.join(words)}: {done.stderr.strip()}")
        return done.stdout

    def ip(self, words, check=True):
        return self.run("ip", *words.split(), check=check)

    def sysctl(self, key, value):
        with self.inside(), open(f"/proc/sys/net/{key}", "w", encoding="ascii") as file:
            file.write(value)

    def socket(self, family, kind, protocol=0):
        with self.inside():
            return socket.socket(family, kind, protocol)

    def close(self):
        os.close(self._descriptor)
        if self.name and os.path.exists(f"/var/run/netns/{self.name}"):  # unless a test deleted it
            subprocess.run(["ip", "netns", "delete", self.name], check=False)

"""What the guest's scenarios share: the router in the guest's first network namespace, peers in
namespaces of their own, the daemon and its captured log. Runs inside the guest only."""
import os
import pathlib
import socket
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from kit import Conf, netns, ping, routing_daemon  # noqa: E402
from kit.daemon import Daemon  # noqa: E402
from kit.expect import expect  # noqa: E402
from kit.system_log import SystemLog  # noqa: E402

__all__ = ["Capture", "Conf", "GuestTest", "expect", "main", "ping"]

IPV4_PACKETS = 0x0800


def state_line(router_name, state):
    return f"%WAN-I-INSTANCE: IP interface {router_name} changed state to {state}"


class Capture:
    """What an interface takes in, from its network header on (packet(7), SOCK_DGRAM): a tunnel
    device has no link-level header. With `link_header` from the link-level header on."""

    def __init__(self, namespace, interface, link_header=False):
        kind = socket.SOCK_RAW if link_header else socket.SOCK_DGRAM
        self._socket = namespace.socket(socket.AF_PACKET, kind, 0)
        with namespace.inside():
            self._socket.bind((interface, IPV4_PACKETS))
        self._socket.setblocking(False)
        self._own = socket.PACKET_OUTGOING

    def next_packet(self, within=15):
        """The next packet that the interface received."""
        return expect(self._received, within, "a packet arrives")

    def _received(self):
        try:
            packet, address = self._socket.recvfrom(65535)
        except BlockingIOError:
            return None
        return None if address[2] == self._own else packet

    def close(self):
        self._socket.close()


class GuestTest(unittest.TestCase):
    """Everything that a test makes is ended in reverse order, by the test's clean-ups."""

    def setUp(self):
        self.folder = os.path.join(os.environ["FOLDER"], self._testMethodName)
        os.makedirs(self.folder)
        self.log = SystemLog()
        self.addCleanup(self._close_log)
        self.router = self.namespace("router")
        self._remove_fragments()

    def _close_log(self):
        self.log.save(os.path.join(self.folder, "log"))
        self.log.close()

    def _remove_fragments(self):
        """A fragment of an earlier test would stay until this one's first verdict."""
        for ipv6 in (False, True):
            pathlib.Path(routing_daemon.fragment_path(ipv6=ipv6)).unlink(missing_ok=True)

    def namespace(self, name):
        made = netns.Namespace.named(name)
        self.addCleanup(made.close)
        return made

    def link(self, interface, peer_interface, peer, router=None):
        """A veth pair from the router to a peer, up on both ends."""
        router = router or self.router
        router.ip(f"link add {interface} type veth peer name {peer_interface}"
                  f" netns {peer.name}")
        router.ip(f"link set {interface} up")
        peer.ip(f"link set {peer_interface} up")

    def capture(self, *arguments, **options):
        made = Capture(*arguments, **options)
        self.addCleanup(made.close)
        return made

    def start(self, conf, router=None):
        """The daemon on this configuration, its default namespace being the router's."""
        path = os.path.join(self.folder, "lb.conf")
        pathlib.Path(path).write_text(conf.text())
        daemon = Daemon(router or self.router, ["-f", path, "-o", self.folder], self.folder)
        self.addCleanup(daemon.stop)
        return daemon

    def changes(self, router_name, state):
        """How often this interface's change to this state was logged, the start's line included."""
        return self.log.count(state_line(router_name, state))

    def expect_state(self, router_name, state, within=15):
        """The interface's latest change is one to this state."""
        lines = [state_line(router_name, word) for word in ("active", "inactive")]
        wanted = state_line(router_name, state)
        expect(lambda: [text for text in self.log.texts() if text in lines][-1:] == [wanted],
               within, wanted)

    def expect_fragment(self, text, namespace="", within=15, ipv6=False):
        path = routing_daemon.fragment_path(namespace, ipv6)
        expect(lambda: routing_daemon.text_of(path) == text, within,
               f"{path} becomes\n{text}instead of\n{routing_daemon.text_of(path)}")


def main():
    unittest.main(verbosity=2)

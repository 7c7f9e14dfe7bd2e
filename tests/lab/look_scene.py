"""Two uplinks of a router on which nothing of ours runs yet, for the checker's look at it.

    router                                       far
      gi1_1 192.0.2.10/24 ---------------------- scripted peer 192.0.2.1
      gi1_2 203.0.113.10/24 -------------------- scripted peer 203.0.113.1
"""
import os

from kit import Conf, LabTest, ping
from kit.lbcheck import Look
from scenes import PREFIX, TARGET, attach_two, two_uplinks


def take_rights_from_others():
    """The tests' own mounts in the place of a router's folders are open to all."""
    for folder in ("/run", "/var/run", "/var/db", "/usr/etc", "/var/vrfs"):
        if os.path.isdir(folder):
            os.chmod(folder, 0o755)


class Tour(LabTest):
    """Before the first start of the daemon."""

    def setUp(self):
        super().setUp()
        self.router = self.lab.router
        self.peers = attach_two(self.lab)
        for name in ("all", "default", "gi1_1", "gi1_2"):
            self.router.sysctl(f"ipv4/conf/{name}/rp_filter", "0")
        self.lab.write_conf(two_uplinks())
        take_rights_from_others()

    def look(self, *arguments, **options):
        return Look(self.router, *arguments, **options)

    def assert_finds(self, state, *words, look=None):
        """One line of that state holds all the words, and the exit status tells an error."""
        look = look or self.look()
        found = [line for line in look.with_words(*words) if line.startswith(state + " ")]
        self.assertEqual(len(found), 1, "\n".join(look.lines))
        if state == "error":
            self.assertEqual(look.status, 2)
        return look

    def with_next_hop(self, nexthop):
        """gi1_1 with another next hop."""
        self.lab.write_conf(Conf().interface("gi1_1", nexthop=nexthop, probes=[ping(TARGET, 300)])
                            .rule("1_ipv4", {"gi1_1": 1}, {PREFIX: None}))


class RoutedTour(LabTest):
    """With daemons that a test starts."""

    def setUp(self):
        super().setUp()
        self.router = self.lab.router
        self.peers = attach_two(self.lab)
        take_rights_from_others()
        for name in ("all", "default", "gi1_1", "gi1_2"):
            self.router.sysctl(f"ipv4/conf/{name}/rp_filter", "0")

    def assert_finds(self, state, *words, look=None):
        look = look or Look(self.router)
        found = [line for line in look.with_words(*words) if line.startswith(state + " ")]
        self.assertEqual(len(found), 1, "\n".join(look.lines))
        return look

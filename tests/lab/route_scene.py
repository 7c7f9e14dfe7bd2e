"""Three uplinks of a router whose fragments the tests write themselves, and lbroute on it.

    router                                   far
      gi1_1 192.0.2.10/24    -------------- scripted peer 192.0.2.1
      gi1_2 198.51.100.10/24 -------------- scripted peer 198.51.100.1
      gi1_3 203.0.113.10/24  -------------- scripted peer 203.0.113.1
"""
from kit import Conf, LabTest, expect
from kit.lbroute import RouteMonitor, own_objects, own_routes, path_of, start, write_fragment

GATEWAYS = ("192.0.2.1", "198.51.100.1", "203.0.113.1")
ONE, TWO, THREE = ((gateway, f"gi1_{number}") for number, gateway in enumerate(GATEWAYS, 1))
DEFAULT = "0.0.0.0/0"
PREFIX = "10.0.0.0/8"


def three_uplinks(namespace=""):
    """The configuration; its rules have no targets, the tests write the fragments."""
    conf = Conf()
    for number, gateway in enumerate(GATEWAYS, 1):
        conf.interface(f"gi1_{number}", nexthop=gateway, namespace=namespace)
    return conf.rule("1_ipv4", {"gi1_1": 1}, {}, namespace=namespace)


class RouteTest(LabTest):
    """With the links of three uplinks in the router's default namespace and their configuration."""

    def setUp(self):
        super().setUp()
        self.router = self.lab.router
        self.peers = self.attach()
        self.lab.write_conf(three_uplinks())

    def attach(self, namespace=None):
        return [self.lab.uplink(f"gi1_{number}", f"{gateway[:-1]}10/24", gateway, known=True,
                                namespace=namespace)
                for number, gateway in enumerate(GATEWAYS, 1)]

    def start(self, *arguments, **options):
        self.program = start(self.lab, *arguments, **options)
        return self.program

    def write(self, *routes, **options):
        write_fragment(*routes, **options)

    def path(self, prefix=DEFAULT, **options):
        return path_of(self.router, prefix, **options)

    def expect_path(self, path, prefix=DEFAULT, **options):
        """The kernel routes the prefix over just these next hops with these weights."""
        try:
            expect(lambda: self.path(prefix, **options) == path)
        except AssertionError:
            raise AssertionError(f"{prefix} is {self.path(prefix, **options)}, not {path}; log:\n"
                                 + self.program.log()) from None

    def monitor(self, *words):
        monitor = RouteMonitor(self.router, self.folder, *words)
        self.lab.own(monitor.close)
        return monitor

    def assert_nothing_of_ours(self, space=None):
        self.assertEqual(own_routes(space or self.router), [])
        self.assertEqual(own_objects(space or self.router), [])

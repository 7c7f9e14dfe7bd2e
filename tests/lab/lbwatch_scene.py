"""lbwatch beside a scripted daemon: two uplinks, eth0 and eth1, and a rule that uses both."""
from kit import LabTest
from kit.lab import OUTPUT_DIRECTORY
from kit.lbwatch import Lbwatch, ScriptedDaemon


class Scripted(LabTest):
    def setUp(self):
        super().setUp()
        self.daemon = ScriptedDaemon(OUTPUT_DIRECTORY)
        self.addCleanup(self.daemon.stop)
        self.one = self.daemon.uplink("eth0")
        self.two = self.daemon.uplink("eth1", nexthop="192.0.2.2")
        self.daemon.rule(1, ["eth0", "eth1"], [f"198.51.{i}.0/24" for i in range(3)])

    def watch(self, *arguments, **options):
        watch = Lbwatch(self.folder, *arguments, **options)
        self.addCleanup(watch.close)
        return watch

    def settled(self, *arguments, **options):
        self.daemon.start()
        watch = self.watch(*arguments, **options)
        watch.expect_state("eth0", "active")
        watch.expect_state("eth1", "active")
        return watch

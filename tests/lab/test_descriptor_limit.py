"""The running daemon gets no more descriptors, then gets them again (see running.py)."""
import contextlib
import os
import resource
import unittest

from kit import expect, main
from kit.daemon import is_built_with
from running import NOT_OPENED, RunningTest, published
from scenes import ACTIVE_2, GATEWAY_2, INACTIVE_2, VIA_BOTH, error, fragment

NO_RECEIVER = error("<recv_arp> socket() for _recv_sock failed ")


class DescriptorLimit(RunningTest):
    def start(self, *arguments, **options):
        super().start(*arguments, **options)
        expect(lambda: self.lab.fragment() == fragment(VIA_BOTH))

    def lowest_free_descriptor(self):
        """The lowest number that the daemon does not keep; files of a moment do not count."""
        kept = set(range(1024))
        for _ in range(20):
            kept &= {int(name) for name in os.listdir(f"/proc/{self.daemon.pid}/fd")}
        return next(number for number in range(1024) if number not in kept)

    @contextlib.contextmanager
    def no_more_descriptors(self):
        before = resource.prlimit(self.daemon.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(self.daemon.pid, resource.RLIMIT_NOFILE,
                         (self.lowest_free_descriptor(), before[1]))
        try:
            yield
        finally:
            resource.prlimit(self.daemon.pid, resource.RLIMIT_NOFILE, before)

    def test_verdicts_go_on_without_descriptors_and_files_come_back_with_them(self):
        self.start()
        with self.no_more_descriptors():
            expect(lambda: {NOT_OPENED[0], NOT_OPENED[1]} <= set(self.lab.log.texts()))
            self.lose_second_uplink()
            self.cycles.pass_by(2)
            self.assertEqual(self.lab.fragment(), fragment(VIA_BOTH))
        self.cycles.expect(lambda: published(True, False), what="the loss is published")
        self.return_second_uplink()
        self.assert_everything_follows()

    # The sanitizer asks a pipe whether an object can be read, and takes the lack of one for a no.
    @unittest.skipIf(is_built_with("__ubsan"), "the undefined behaviour sanitizer needs a descriptor")
    def test_first_unknown_next_hop_without_descriptors_is_found_with_them(self):
        self.start()
        with self.no_more_descriptors():
            self.lab.router.ip(f"neigh del {GATEWAY_2} dev gi1_2")
            expect(lambda: NO_RECEIVER in self.lab.log.texts())
            expect(lambda: self.lab.log.count(INACTIVE_2) == 2)  # the first is of the start
        self.cycles.expect(lambda: self.lab.log.count(ACTIVE_2) == 2, what=ACTIVE_2)
        self.assert_everything_follows()


if __name__ == "__main__":
    main()

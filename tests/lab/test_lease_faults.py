"""A lease file that the DHCP client is just writing, or left without an end.

    router                                far
      gi1_1 192.0.2.10/24 ---------------- scripted peer 192.0.2.1, later 192.0.2.173
"""
import contextlib
import os
import threading
import time

from kit import LabTest, expect, main, ping
from scenes import (ACTIVE, GATEWAY, PREFIX, ROUTER, VIA_1, fragment, one_uplink, warning)

LEASE = "/var/db/dhclient_gi1_1.leases"
NO_ROUTER = warning("Failed to get routers option from DHCP on interface gigabitethernet 1/0/1")
NEW_GATEWAY = "192.0.2.173"
VIA_NEW = f"route {PREFIX} multipath via {NEW_GATEWAY} weight 1;"


def lease(router):
    return f'lease {{\n  interface "gi1_1";\n  option routers {router};\n}}\n'


def write(text):
    with open(LEASE, "w", encoding="ascii") as file:
        file.write(text)


@contextlib.contextmanager
def being_written(text):
    """The lease stands like this for the block, and its client is at it all the time."""
    done = threading.Event()

    def go_on():
        while not done.wait(0.05):
            # The daemon takes less than a second, before or behind, for this very moment: the late side
            # of it leaves a busy machine the most time until the next round.
            late = time.time() + 0.9
            os.utime(LEASE, (late, late))

    writer = threading.Thread(target=go_on)
    write(text)
    writer.start()
    try:
        yield
    finally:
        done.set()
        writer.join()


def beginnings(router):
    """The lease as it stands while it is written: before, within and right behind the address."""
    whole = lease(router)
    begin = whole.index(router)
    end = begin + len(router)
    return [whole[:length] for length in (0, begin - 3, begin, begin + 4, end - 2, end - 1, end)]


class HalfWritten(LabTest):
    def setUp(self):
        super().setUp()
        peer = self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY, known=True)
        peer.addresses.add(NEW_GATEWAY)

    def start(self):
        self.cycles = self.lab.cycles
        self.lab.start(one_uplink(nexthop="dhcp", probes=[ping(None, 300)]))

    def test_keeps_the_router_before_it_and_whole_gives_the_new_one(self):
        write(lease(GATEWAY))
        self.start()
        expect(lambda: self.lab.fragment() == fragment(VIA_1))
        for text in beginnings(NEW_GATEWAY):
            with self.subTest(text), being_written(text):
                self.cycles.pass_by(2)  # it is read between two of them
                self.assertEqual(self.lab.fragment(), fragment(VIA_1))
        write(lease(NEW_GATEWAY))
        self.cycles.expect(lambda: self.lab.fragment() == fragment(VIA_NEW), what="the new router")
        self.assertEqual(self.lab.log.errors(), [])

    def test_at_the_start_is_reported_as_none_and_whole_brings_the_uplink_up(self):
        with being_written(beginnings(NEW_GATEWAY)[-1]):
            self.start()
            expect(lambda: self.lab.log.count(NO_ROUTER) >= 2)
            self.lab.cycles.never(lambda: self.lab.fragment(), cycles=1)
        write(lease(NEW_GATEWAY))
        self.cycles.expect(lambda: self.lab.fragment() == fragment(VIA_NEW), what="the new router")
        expect(lambda: ACTIVE in self.lab.log.texts())

    def test_that_rests_without_an_end_gives_the_new_router(self):
        write(lease(GATEWAY))
        self.start()
        expect(lambda: self.lab.fragment() == fragment(VIA_1))
        write(beginnings(NEW_GATEWAY)[-1])
        self.cycles.expect(lambda: self.lab.fragment() == fragment(VIA_NEW), what="the new router")

    def test_before_the_clock_was_set_back_counts(self):
        write(beginnings(GATEWAY)[-1])
        tomorrow = time.time() + 86400
        os.utime(LEASE, (tomorrow, tomorrow))
        self.start()
        expect(lambda: self.lab.fragment() == fragment(VIA_1))


if __name__ == "__main__":
    main()

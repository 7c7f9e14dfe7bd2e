"""What tests of the extended ping share: its limits, its figures as the binary dump has them, one uplink to probe."""
import dataclasses
import os
import struct

from kit import LabTest, expect, ping_ext
from kit import echo_policies as policy
from kit.lab import OUTPUT_DIRECTORY
from scenes import GATEWAY, ROUTER, TARGET, one_uplink

# Limits that only a lost echo reaches, however slow the machine is.
LOOSE = {"rtt": 900, "jitter": 900}

NOT_YET, SUCCESS, FAILURE = 0, 1, 2

# Offsets of an outbound record and of its probe entries; integers in the machine's byte order.
DUMP = os.path.join(OUTPUT_DIRECTORY, "wlb_dump", "wlb_ipv4_outbounds.bin")
RECORD_SIZE, ENTRIES_AT, ENTRY_SIZE, ENTRY_COUNT_AT = 4312, 188, 82, 4288
TARGET_SIZE, FAILURES_AT, RESULT_AT, EXTENDED_AT, FIGURES_AT, LIMITS_AT = 46, 50, 54, 55, 58, 70


@dataclasses.dataclass(frozen=True)
class Probe:
    target: str
    failures: int  # in a row
    result: int
    is_extended: bool
    figures: tuple  # loss in percent, mean and jitter in ms
    limits: tuple  # the same three

    @classmethod
    def of(cls, entry):
        return cls(entry[:TARGET_SIZE].split(b"\0")[0].decode(),
                   *struct.unpack_from("=i", entry, FAILURES_AT), entry[RESULT_AT],
                   entry[EXTENDED_AT] == 1, struct.unpack_from("=3i", entry, FIGURES_AT),
                   struct.unpack_from("=3i", entry, LIMITS_AT))


def dumped():
    """Every IPv4 probe in the order of the file; none while there is no whole file."""
    try:
        with open(DUMP, "rb") as file:
            data = file.read()
    except FileNotFoundError:
        return []
    if len(data) % RECORD_SIZE:
        return []
    entries = []
    for start in range(0, len(data), RECORD_SIZE):
        first = start + ENTRIES_AT
        for i in range(data[start + ENTRY_COUNT_AT]):
            entries.append(data[first + i * ENTRY_SIZE:first + (i + 1) * ENTRY_SIZE])
    return [Probe.of(entry) for entry in entries]


def after_a_run(result=None):
    """The first probe once a run has ended, or has ended with this result."""
    def published():
        probes = dumped()
        return probes and probes[0].result in ([SUCCESS, FAILURE] if result is None else [result]) \
            and probes[0]
    return expect(published, what=f"a run with result {result} is published")


class Pinging(LabTest):
    """An uplink gi1_1 whose far end answers by a policy, probed by one extended ping."""

    def attach(self, echo=policy.answer):
        peer = self.lab.uplink("gi1_1", ROUTER + "/24", GATEWAY, known=True)
        peer.echo = echo
        return peer

    def start(self, target=TARGET, interface="gi1_1", uplink=None, **limits):
        probes = [ping_ext(target, **{**LOOSE, **limits})]
        return self.lab.start(one_uplink(interface, probes=probes, **(uplink or {})))

    def expect_logged(self, text):
        expect(lambda: text in self.lab.log.texts(), what=f"logged: {text}")

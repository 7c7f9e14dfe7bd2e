"""The daemon's echo frames in hex, field by field in the order of their tables.

Frames of the first uplink, from ROUTER to TARGET; sums are the kit's own.
"""
import struct

from kit import packets
from scenes6 import ROUTER6, TARGET6


def word(number):
    return f"{number:04x}"


def in_hex(address):
    return packets.packed(address).hex()


def sum_over(source, destination, message):
    """The ICMPv6 checksum of a message in hex whose checksum field is zero, in hex."""
    data = bytes.fromhex(message)
    pseudo = packets.packed(source) + packets.packed(destination) + struct.pack("!I3xB", len(data), 58)
    return word(packets.checksum(pseudo + data))


def echo(near, far, identifier, packet_id):
    """46 bytes; `near` and `far` are hardware addresses in hex."""
    rest = word(identifier) + "0000" + f"{packet_id:08x}"
    total = word(packets.checksum(bytes.fromhex("08000000" + rest)))
    return (far + near + "0800"
            "45" "00" "0020" "0000" "0000" "ff" "01" "cf9d" "c000020a" "c6336401"
            "08" "00" + total + rest)


def echo6(near, far, identifier, packet_id):
    """66 bytes; `near` and `far` are hardware addresses in hex."""
    rest = word(identifier) + "0000" + f"{packet_id:08x}"
    total = sum_over(ROUTER6, TARGET6, "80000000" + rest)
    return (far + near + "86dd" "60000000" "000c" "3a" "ff" + in_hex(ROUTER6) + in_hex(TARGET6)
            + "8000" + total + rest)

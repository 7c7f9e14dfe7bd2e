"""The few frames that scripted peers read and write: ARP, IPv6 neighbours, echo of both families.

Only what a peer needs. Tests judge the daemon's frames by golden bytes and by scapy instead.
"""
import dataclasses
import ipaddress
import struct

IPV4, ARP, IPV6 = 0x0800, 0x0806, 0x86DD
ICMP, ICMPV6 = 1, 58
ECHO_REQUEST = {4: 8, 6: 128}
ECHO_REPLY = {4: 0, 6: 129}
SOLICITATION, ADVERTISEMENT = 135, 136
BROADCAST = b"\xff" * 6
GROUP_BIT = 1  # of a hardware address's first byte: broadcast or multicast


def mac_bytes(text):
    return bytes.fromhex(text.replace(":", ""))


def packed(address):
    return ipaddress.ip_address(address).packed


def checksum(data):
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


@dataclasses.dataclass(frozen=True)
class ArpRequest:
    """An ARP request or, with operation 2, a reply."""
    sender_mac: bytes
    sender: str
    target: str
    operation: int = 1


@dataclasses.dataclass(frozen=True)
class Solicitation:
    sender_mac: bytes
    sender: str
    target: str


@dataclasses.dataclass(frozen=True)
class Echo:
    """An echo request or reply of either family, as it travels between two hosts."""
    sender_mac: bytes
    source: str
    destination: str
    identifier: int
    sequence: int
    payload: bytes
    request: bool = True
    ip_options: bytes = b""
    hop_limit: int = 64

    @property
    def version(self):
        return ipaddress.ip_address(self.source).version

    @property
    def packet_id(self):
        """The word by which the daemon knows its probes again."""
        return struct.unpack("!I", self.payload[:4])[0]

    def reply(self, **changes):
        """The honest answer, or one with `changes`."""
        honest = {"source": self.destination, "destination": self.source, "request": False}
        return dataclasses.replace(self, **{**honest, **changes})


def _parse_arp(frame):
    operation, sender_mac, sender, target = struct.unpack("!6xH6s4s6x4s", frame[14:42])
    return ArpRequest(sender_mac, str(ipaddress.ip_address(sender)),
                      str(ipaddress.ip_address(target)), operation)


def _parse_icmp(sender_mac, source, destination, version, icmp):
    kind = icmp[0]
    if kind == SOLICITATION and version == 6:
        return Solicitation(sender_mac, str(source), str(ipaddress.ip_address(icmp[8:24])))
    if kind not in (ECHO_REQUEST[version], ECHO_REPLY[version]):
        return None
    identifier, sequence = struct.unpack("!HH", icmp[4:8])
    return Echo(sender_mac, str(source), str(destination), identifier, sequence, icmp[8:],
                kind == ECHO_REQUEST[version])


def parse(frame):
    """An ArpRequest, Solicitation or Echo, or None for anything else."""
    ethertype, = struct.unpack("!H", frame[12:14])
    if ethertype == ARP and len(frame) >= 42:
        return _parse_arp(frame)
    if ethertype == IPV4 and len(frame) >= 42 and frame[23] == ICMP:
        header, length = (frame[14] & 15) * 4, struct.unpack("!H", frame[16:18])[0]
        return _parse_icmp(frame[6:12], ipaddress.ip_address(frame[26:30]),
                           ipaddress.ip_address(frame[30:34]), 4,
                           frame[14 + header:14 + length])
    if ethertype == IPV6 and len(frame) >= 62 and frame[20] == ICMPV6:
        return _parse_icmp(frame[6:12], ipaddress.ip_address(frame[22:38]),
                           ipaddress.ip_address(frame[38:54]), 6,
                           frame[54:54 + struct.unpack("!H", frame[18:20])[0]])
    return None


def ethernet(destination, source, ethertype, payload):
    return destination + source + struct.pack("!H", ethertype) + payload


def arp(operation, sender_mac, sender, target_mac, target, destination=None):
    """An ARP frame; `destination` is the Ethernet one where it is not the target's."""
    body = struct.pack("!HHBBH", 1, IPV4, 6, 4, operation)
    body += sender_mac + packed(sender) + target_mac + packed(target)
    return ethernet(destination or target_mac, sender_mac, ARP, body)


def _icmpv6(source, destination, message):
    pseudo = packed(source) + packed(destination) + struct.pack("!I3xB", len(message), ICMPV6)
    return message[:2] + struct.pack("!H", checksum(pseudo + message)) + message[4:]


def _ipv6(source, destination, hop_limit, payload):
    return (struct.pack("!IHBB", 6 << 28, len(payload), ICMPV6, hop_limit)
            + packed(source) + packed(destination) + payload)


def advertisement(sender_mac, target, destination_mac, destination, flags=0x60000000):
    """A neighbour advertisement, solicited and overriding, with the target's link-layer address."""
    message = struct.pack("!BBHI", ADVERTISEMENT, 0, 0, flags) + packed(target)
    message += b"\x02\x01" + sender_mac
    packet = _ipv6(target, destination, 255, _icmpv6(target, destination, message))
    return ethernet(destination_mac, sender_mac, IPV6, packet)


def echo(message, sender_mac, destination_mac):
    """The frame of an Echo."""
    kind = (ECHO_REQUEST if message.request else ECHO_REPLY)[message.version]
    icmp = struct.pack("!BBHHH", kind, 0, 0, message.identifier, message.sequence)
    icmp += message.payload
    if message.version == 6:
        packet = _ipv6(message.source, message.destination, message.hop_limit,
                       _icmpv6(message.source, message.destination, icmp))
        return ethernet(destination_mac, sender_mac, IPV6, packet)
    icmp = icmp[:2] + struct.pack("!H", checksum(icmp)) + icmp[4:]
    words = 5 + len(message.ip_options) // 4
    header = struct.pack("!BBHHHBBH", 0x40 | words, 0, words * 4 + len(icmp), 0, 0,
                         message.hop_limit, ICMP, 0)
    header += packed(message.source) + packed(message.destination) + message.ip_options
    header = header[:10] + struct.pack("!H", checksum(header)) + header[12:]
    return ethernet(destination_mac, sender_mac, IPV4, header + icmp)

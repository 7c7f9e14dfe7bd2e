"""Counters of the router's kernel: echo replies that belong to a known connection, and others."""
import json

_TABLE = """
table inet lab {
    counter established { }
    counter other { }
    chain in {
        type filter hook input priority 0; policy accept;
        icmp type echo-reply ct state established counter name established accept
        icmp type echo-reply counter name other drop
    }
}
"""


class ReplyCounters:
    """Counts from its making on; the other replies are dropped, as by a firewall."""

    def __init__(self, namespace):
        self._namespace = namespace
        path = "/run/counters.nft"
        with open(path, "w", encoding="ascii") as file:
            file.write(_TABLE)
        namespace.run("nft", "-f", path)

    def packets(self, counter):
        """Of the counter "established" or "other"."""
        listed = json.loads(self._namespace.run("nft", "-j", "list", "counter", "inet", "lab", counter))
        return next(entry["counter"]["packets"] for entry in listed["nftables"] if "counter" in entry)

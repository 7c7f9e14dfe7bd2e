"""Configuration files of the daemon, built from plain values."""


def _lines(depth, *lines):
    return [" " * 4 * depth + line for line in lines]


def _block(depth, head, inside):
    return _lines(depth, head + " {") + inside + _lines(depth, "}")


def ping(target=None, resp_time=None):
    """A probe of type "ping"; without a target it asks the next hop. `resp_time` in ms."""
    return "ping", {"target": target, "resp-time": resp_time}


def ping_ext(target=None, **limits):
    """A probe of type "ping_ext": period, timeout, count, loss, rtt, jitter."""
    return "ping_ext", {"target": target, **limits}


class Conf:
    """interface() and rule() in the file's order; text() at the end."""

    def __init__(self):
        self._interfaces = []
        self._rules = []

    def interface(self, name, *, nexthop=None, source=None, success=1, failure=1, namespace="",
                  check_all=False, probes=(), ipv6=False):
        """An uplink with its probes. `success` and `failure` are the counts of equal outcomes."""
        values = {"success-ct": success, "failure-ct": failure, "nexthop": nexthop,
                  "source_address": source, "namespace": namespace or None}
        inside = _lines(2, *(f"{key} {value}" for key, value in values.items()
                             if value is not None))
        if check_all:
            inside += _lines(2, "check_all")
        for number, (kind, fields) in enumerate(probes, 1):
            body = _lines(4, *(f"{key} {value}" for key, value in fields.items()
                               if value is not None))
            inside += _block(2, f"rule {number}", _block(3, f"type {kind}", body))
        self._interfaces += _block(1, f"interface{'6' if ipv6 else ''} {name}", inside)
        return self

    def rule(self, name, interfaces=None, targets=None, *, interfaces6=None, namespace="",
             failover=False):
        """A rule: {interface: weight}, {prefix: metric or None}."""
        inside = _lines(1, f"namespace {namespace}") if namespace else []
        if failover:
            inside += _lines(1, "failover")
        members = [("interface", interfaces), ("interface6", interfaces6)]
        for keyword, weights in members:
            for interface, weight in (weights or {}).items():
                inside += _block(1, f"{keyword} {interface}", _lines(2, f"weight {weight}"))
        for prefix, metric in (targets or {}).items():
            lines = _lines(2, f"address {prefix}")
            if metric is not None:
                lines += _lines(2, f"metric {metric}")
            inside += _block(1, "target", lines)
        self._rules += _block(0, f"rule {name}", inside)
        return self

    def text(self):
        return "\n".join(_block(0, "health", self._interfaces) + self._rules) + "\n"

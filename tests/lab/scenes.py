"""Texts and small configurations that several lab tests share."""
from kit import Conf, ping

ROUTER, GATEWAY, TARGET = "192.0.2.10", "192.0.2.1", "198.51.100.1"
ROUTER_2, GATEWAY_2, TARGET_2 = "203.0.113.10", "203.0.113.1", "198.51.100.2"
PREFIX = "198.18.0.0/15"


def error(text):
    return "%WAN-W-ERR: " + text


def warning(text):
    return "%WAN-W-WARN: " + text


def information(text):
    return "%WAN-I-INSTANCE: " + text


def changed(name, state):
    """The line of an IPv4 interface's change of state, by its router name."""
    return information(f"IP interface {name} changed state to {state}")


ACTIVE, INACTIVE = (changed("gigabitethernet 1/0/1", state) for state in ("active", "inactive"))
ACTIVE_2, INACTIVE_2 = (changed("gigabitethernet 1/0/2", state) for state in ("active", "inactive"))


def one_uplink(name="gi1_1", *, probes=None, nexthop=GATEWAY, targets=None, **interface):
    """One interface, one rule over it. The default probe asks TARGET and waits 300 ms."""
    probes = [ping(TARGET, 300)] if probes is None else probes
    return (Conf().interface(name, nexthop=nexthop, probes=probes, **interface)
            .rule("1_ipv4", {name: 1}, targets or {PREFIX: None}))


def two_uplinks(*, weights=(1, 3), failover=False, resp_time=300, **interface):
    """gi1_1 and gi1_2 behind one rule, each with a target of its own."""
    return (Conf()
            .interface("gi1_1", nexthop=GATEWAY, probes=[ping(TARGET, resp_time)], **interface)
            .interface("gi1_2", nexthop=GATEWAY_2, probes=[ping(TARGET_2, resp_time)], **interface)
            .rule("1_ipv4", dict(zip(("gi1_1", "gi1_2"), weights)), {PREFIX: None},
                  failover=failover))


def attach_two(lab, **links):
    """The links of two_uplinks(); the peers."""
    return (lab.uplink("gi1_1", ROUTER + "/24", GATEWAY, known=True, **links),
            lab.uplink("gi1_2", ROUTER_2 + "/24", GATEWAY_2, known=True, **links))


def fragment(*routes):
    """An IPv4 fragment with these route lines."""
    return "protocol static {\ncheck link 1;\n" + "".join(f"{route}\n" for route in routes) + "};\n"


VIA_1 = f"route {PREFIX} multipath via {GATEWAY} weight 1;"
VIA_2 = f"route {PREFIX} multipath via {GATEWAY_2} weight 3;"
VIA_BOTH = f"route {PREFIX} multipath via {GATEWAY} weight 1 via {GATEWAY_2} weight 3;"

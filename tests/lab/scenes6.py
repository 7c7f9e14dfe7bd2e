"""Texts and small configurations that the IPv6 lab tests share."""
from kit import Conf, ping
from scenes import information

ROUTER6, GATEWAY6, TARGET6 = "2001:db8::10", "2001:db8::1:2:3", "2001:db8:1::53"
PREFIX6 = "2001:db8:ff::/48"
NEAR_MAC, FAR_MAC = "02:00:5e:10:00:01", "02:00:5e:20:00:01"


def changed6(state, name="gigabitethernet 1/0/1"):
    return information(f"IPv6 interface {name} changed state to {state}")


ACTIVE6, INACTIVE6 = changed6("active"), changed6("inactive")


def one_uplink6(name="gi1_1", *, nexthop=GATEWAY6, source=ROUTER6, conf=None, namespace="",
                rule="1_ipv6"):
    """One IPv6 interface and a rule over it, in a configuration of its own or behind `conf`."""
    return ((conf or Conf())
            .interface(name, nexthop=nexthop, source=source, probes=[ping(TARGET6, 300)], ipv6=True,
                       namespace=namespace)
            .rule(rule, interfaces6={name: 1}, targets={PREFIX6: None}, namespace=namespace))


def fragment6(*routes):
    return "protocol static {\n" + "".join(f"{route}\n" for route in routes) + "};\n"


VIA_6 = f"route {PREFIX6} multipath via {GATEWAY6} weight 1;"

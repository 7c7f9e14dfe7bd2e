"""Texts, small configurations and the base class that the IPv6 lab tests share."""
from kit import Conf, LabTest, ping
from kit import packets
from scenes import information

ROUTER6, GATEWAY6, TARGET6 = "2001:db8::10", "2001:db8::1:2:3", "2001:db8:1::53"
PREFIX6 = "2001:db8:ff::/48"
ROUTER6_2, GATEWAY6_2, TARGET6_2 = "2001:db8:2::10", "2001:db8:2::1", "2001:db8:1::54"
NEAR_MAC, FAR_MAC = "02:00:5e:10:00:01", "02:00:5e:20:00:01"


def changed6(state, name="gigabitethernet 1/0/1"):
    return information(f"IPv6 interface {name} changed state to {state}")


ACTIVE6, INACTIVE6 = changed6("active"), changed6("inactive")


def one_uplink6(name="gi1_1", *, nexthop=GATEWAY6, source=ROUTER6, conf=None, namespace="",
                rule="1_ipv6", target=TARGET6, targets=None):
    """One IPv6 interface and a rule over it, in a configuration of its own or behind `conf`.

    A `target` of None probes the next hop; `targets` are the rule's prefixes.
    """
    return ((conf or Conf())
            .interface(name, nexthop=nexthop, source=source, probes=[ping(target, 300)], ipv6=True,
                       namespace=namespace)
            .rule(rule, interfaces6={name: 1}, targets=targets or {PREFIX6: None},
                  namespace=namespace))


def two_uplinks6(*, failover=False):
    """gi1_1 and gi1_2 behind one rule, with weights 1 and 3 and targets of their own."""
    conf = Conf()
    for name, nexthop, source, target in (("gi1_1", GATEWAY6, ROUTER6, TARGET6),
                                          ("gi1_2", GATEWAY6_2, ROUTER6_2, TARGET6_2)):
        conf.interface(name, nexthop=nexthop, source=source, probes=[ping(target, 300)], ipv6=True)
    return conf.rule("1_ipv6", interfaces6={"gi1_1": 1, "gi1_2": 3}, targets={PREFIX6: None},
                     failover=failover)


def attach_two6(lab):
    """The links of two_uplinks6(); the peers."""
    return (lab.uplink("gi1_1", address6=ROUTER6 + "/64", gateway6=GATEWAY6),
            lab.uplink("gi1_2", address6=ROUTER6_2 + "/64", gateway6=GATEWAY6_2))


def fragment6(*routes):
    return "protocol static {\n" + "".join(f"{route}\n" for route in routes) + "};\n"


VIA_6 = f"route {PREFIX6} multipath via {GATEWAY6} weight 1;"
VIA_6_2 = f"route {PREFIX6} multipath via {GATEWAY6_2} weight 3;"
VIA_BOTH6 = f"route {PREFIX6} multipath via {GATEWAY6} weight 1 via {GATEWAY6_2} weight 3;"


class Ipv6Test(LabTest):
    """The router's uplink gi1_1 with an IPv6 address, and what is asked of it."""

    def attach(self, **options):
        options.setdefault("address6", ROUTER6 + "/64")
        return self.lab.uplink("gi1_1", gateway6=GATEWAY6, **options)

    def solicitations(self, target=GATEWAY6):
        return [frame for frame, message in self.lab.peers["default-gi1_1"].seen(packets.Solicitation)
                if message.target == target]

    def entry(self, address=GATEWAY6):
        return self.lab.neighbour(address, "gi1_1")

    def know_gateway(self, mac=FAR_MAC):
        """The kernel has the gateway's hardware address from the start."""
        self.lab.router.ip(f"neigh replace {GATEWAY6} lladdr {mac} dev gi1_1 nud permanent")

    def logged(self, text):
        return lambda: text in self.lab.log.texts()

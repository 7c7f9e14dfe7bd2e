"""The lab's network: five namespaces, joined by veth pairs.

                                 gi1_1   +--------+
                            192.0.2.0/24 |  isp1  |  10.1.0.0/30
     +--------+  lan   +--------+.2    .1|        |.1        .2 +-------+
     | client |--------| router |--------+--------+-------------|  far  |  203.0.113.10   weighted service
     +--------+.2    .1+--------+        +--------+             |       |  203.0.113.130  failover service
         10.0.0.0/24        |.2        .1|  isp2  |.1        .2 |       |  203.0.113.53   probe target of gi1_1
                            +------------|        |-------------+-------+  203.0.113.54   probe target of gi1_2
                         198.51.100.0/24 +--------+  10.2.0.0/30
                                 gi1_2

IPv6 lies on the same links: the LAN is 2001:db8:0:1::/64, the uplinks 2001:db8:1::/64 and 2001:db8:2::/64 with the same last
numbers, the far host's addresses 2001:db8:ffff::10 (weighted service), ::53 and ::54 (probe targets). The second provider's
gateway is fe80::1 as well, and the router knows it by that name, as it would from router advertisements.

The second provider gives the router its IPv4 address and gateway by DHCP (dnsmasq, udhcpc).

The router translates the client's address to that of the uplink which a flow takes (as sites with two providers do), so
an answer comes back through the same provider, and the far host sees which one it was.
"""

import subprocess

NAMESPACES = ("client", "router", "isp1", "isp2", "far")
UPLINKS = {"gi1_1": "ISP 1", "gi1_2": "ISP 2"}
# What an uplink is recognised by: the source address that the far host sees, the next hop in a route.
PROVIDER_OF = {
    "192.0.2.2": "ISP 1",
    "192.0.2.1": "ISP 1",
    "2001:db8:1::2": "ISP 1",
    "2001:db8:1::1": "ISP 1",
    "198.51.100.2": "ISP 2",
    "198.51.100.1": "ISP 2",
    "2001:db8:2::2": "ISP 2",
    "2001:db8:2::1": "ISP 2",
    "fe80::1": "ISP 2",
}
WEIGHTED_SERVICE, FAILOVER_SERVICE, SERVICE6 = "203.0.113.10", "203.0.113.130", "2001:db8:ffff::10"
FAR_NETWORK, FAR_NETWORK6 = "203.0.113.0/24", "2001:db8:ffff::/64"

# (namespace, interface, address) at both ends of each link.
LINKS = (
    (("client", "lan", "10.0.0.2/24"), ("router", "lan", "10.0.0.1/24")),
    (("router", "gi1_1", "192.0.2.2/24"), ("isp1", "customer", "192.0.2.1/24")),
    (("router", "gi1_2", None), ("isp2", "customer", "198.51.100.1/24")),  # by DHCP
    (("isp1", "core", "10.1.0.1/30"), ("far", "isp1", "10.1.0.2/30")),
    (("isp2", "core", "10.2.0.1/30"), ("far", "isp2", "10.2.0.2/30")),
)
ADDRESSES6 = (
    ("client", "lan", "2001:db8:0:1::2/64"),
    ("router", "lan", "2001:db8:0:1::1/64"),
    ("router", "gi1_1", "2001:db8:1::2/64"),
    ("isp1", "customer", "2001:db8:1::1/64"),
    ("router", "gi1_2", "2001:db8:2::2/64"),
    ("isp2", "customer", "2001:db8:2::1/64"),
    ("isp2", "customer", "fe80::1/64"),
    ("isp1", "core", "2001:db8:a1::1/64"),
    ("far", "isp1", "2001:db8:a1::2/64"),
    ("isp2", "core", "2001:db8:a2::1/64"),
    ("far", "isp2", "2001:db8:a2::2/64"),
)
FAR_ADDRESSES = (WEIGHTED_SERVICE, FAILOVER_SERVICE, "203.0.113.53", "203.0.113.54")
FAR_ADDRESSES6 = (SERVICE6, "2001:db8:ffff::53", "2001:db8:ffff::54")
ROUTES = (
    ("client", "default", "10.0.0.1"),
    ("isp1", FAR_NETWORK, "10.1.0.2"),
    ("isp2", FAR_NETWORK, "10.2.0.2"),
    ("far", "192.0.2.0/24", "10.1.0.1"),
    ("far", "198.51.100.0/24", "10.2.0.1"),
    ("client", "default", "2001:db8:0:1::1"),
    ("isp1", FAR_NETWORK6, "2001:db8:a1::2"),
    ("isp2", FAR_NETWORK6, "2001:db8:a2::2"),
    ("far", "2001:db8:1::/64", "2001:db8:a1::1"),
    ("far", "2001:db8:2::/64", "2001:db8:a2::1"),
)
FORWARDERS = ("router", "isp1", "isp2")

TRANSLATION = """
table inet translation {
  chain postrouting {
    type nat hook postrouting priority srcnat; policy accept;
    oifname "gi1_*" masquerade
  }
}
"""


def ip(namespace, *words):
    """Runs `ip` in a namespace and returns what it printed."""
    done = subprocess.run(("ip", "-n", namespace, *words), text=True, capture_output=True, check=False)
    if done.returncode:
        raise RuntimeError(f"ip -n {namespace} {' '.join(words)}: {done.stderr.strip()}")
    return done.stdout


def start(namespace, *command, **options):
    """Starts a program in a namespace; away from the terminal's signals, since the lab ends it with its namespaces."""
    return subprocess.Popen(("ip", "netns", "exec", namespace, *command), start_new_session=True, **options)


def batch(lines, *options):
    """Has one `ip` do many things."""
    command = ("ip", *options, "-batch", "-")
    done = subprocess.run(command, input="\n".join(lines), text=True, capture_output=True, check=False)
    if done.returncode:
        raise RuntimeError(f"ip {' '.join(options)} -batch: {done.stderr.strip()}")


def build():
    batch(f"netns add {name}" for name in NAMESPACES)
    for name in NAMESPACES:
        for scope in ("all", "default"):
            set_kernel(name, f"net/ipv6/conf/{scope}/disable_ipv6", 0)
            # A provider's port that goes down comes back with its addresses.
            set_kernel(name, f"net/ipv6/conf/{scope}/keep_addr_on_down", 1)
    for (here, interface, _), (there, peer, _) in LINKS:
        ip(here, "link", "add", interface, "type", "veth", "peer", "name", peer, "netns", there)
    for name in NAMESPACES:
        batch(set_up_lines(name), "-n", name)
    for namespace in FORWARDERS:
        set_kernel(namespace, "net/ipv4/ip_forward", 1)
        set_kernel(namespace, "net/ipv6/conf/all/forwarding", 1)
    # Choose the uplink by addresses and ports, so that a client's flows spread by weight.
    for family in ("ipv4", "ipv6"):
        set_kernel("router", f"net/{family}/fib_multipath_hash_policy", 1)
    start("isp2", "dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--port=0", "--interface=customer",
          "--dhcp-range=198.51.100.2,198.51.100.2,255.255.255.0,10m", "--dhcp-option=option:router,198.51.100.1",
          "--dhcp-leasefile=/run/dnsmasq.leases", "--log-facility=/run/dnsmasq.log", "--user=root",
          stderr=subprocess.DEVNULL)
    nft = start("router", "nft", "-f", "-", stdin=subprocess.PIPE, text=True)
    nft.communicate(TRANSLATION)
    if nft.returncode:
        raise RuntimeError("nft: the router's address translation could not be set up")


def set_up_lines(name):
    yield "link set lo up"
    if name == "far":
        yield from (f"addr add {address}/32 dev lo" for address in FAR_ADDRESSES)
        yield from (f"addr add {address}/128 dev lo" for address in FAR_ADDRESSES6)
    for namespace, interface, address in (end for link in LINKS for end in link):
        if namespace == name:
            if address:
                yield f"addr add {address} dev {interface}"
            yield f"link set {interface} up"
    # Without duplicate detection: the lab is to work at once.
    yield from (f"addr add {address} dev {link} nodad" for space, link, address in ADDRESSES6 if space == name)
    for namespace, destination, gateway in ROUTES:
        if namespace == name:
            yield f"route add {destination} via {gateway}"


def set_kernel(namespace, key, value):
    if start(namespace, "sh", "-c", f"echo {value} > /proc/sys/{key}").wait():
        raise RuntimeError(f"{namespace}: /proc/sys/{key} could not be set")


def break_path_behind_isp1():
    """Silence, not an error message: what a fault somewhere inside the provider's network looks like."""
    ip("isp1", "route", "replace", "blackhole", FAR_NETWORK)


def mend_path_behind_isp1():
    ip("isp1", "route", "del", "blackhole", FAR_NETWORK)
    ip("isp1", "route", "replace", FAR_NETWORK, "via", "10.1.0.2")


def cut_link_of_isp1():
    ip("isp1", "link", "set", "customer", "down")


def restore_link_of_isp1():
    ip("isp1", "link", "set", "customer", "up")

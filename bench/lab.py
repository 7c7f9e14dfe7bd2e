"""The bench's network, and what is measured in it. Runs inside the lab tests' sandbox."""
import contextlib
import json
import os
import pathlib
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import time

from kit import expect

BUILD = pathlib.Path(__file__).resolve().parent.parent / "build"
WARM_UP_S = 6
BUSY_S = 20  # a busy machine has few cycles to measure
FAR_MAC = "02:00:00:00:00:01"  # of the far end of all namespaces
UNRELATED_PACKETS = 100_000

# The far end has a processor of its own, as on another machine, where there are two.
PROCESSORS = sorted(os.sched_getaffinity(0))
FAR_PROCESSORS = set(PROCESSORS[-1:])
OWN_PROCESSORS = set(PROCESSORS[:-1] or PROCESSORS)


def ip(*words, batch=None):
    subprocess.run(["ip", *words, *(("-batch", "-") if batch else ())], check=True, text=True,
                   input="\n".join(batch) if batch else None)


def inside(namespace, *command, processors=None, **options):
    """A command in a namespace, on all processors or on these."""
    place = {"preexec_fn": lambda: os.sched_setaffinity(0, processors)} if processors else {}
    return subprocess.Popen(["ip", "netns", "exec", namespace, *command], **place, **options)


def end(uplink, host, ipv6=False):
    """An address in the network of an uplink, as the kernel prints it: the uplink itself is host 2, its next hop 1."""
    return f"fd00:{uplink + 1:x}::{host}" if ipv6 else f"10.{uplink // 250}.{uplink % 250}.{host}"


def keep_quiet(namespace, ipv6):
    """Of its own accord the kernel asks for routers and tells its groups: the far end would count that as probes."""
    settings = {"router_solicitations": 0} if ipv6 else {"disable_ipv6": 1}
    for place in ("all", "default"):
        for name, value in settings.items():
            inside(namespace, "sh", "-c", f"echo {value} > /proc/sys/net/ipv6/conf/{place}/{name}").wait()


def build_network(routers, ipv6=False):
    """Namespaces by name with their uplinks: a veth pair each to `far`; on the router's end one macvlan per
    uplink, with an address and a known next hop."""
    for name in ("far", *routers):
        subprocess.run(["ip", "netns", "del", name], stderr=subprocess.DEVNULL, check=False)
        ip("netns", "add", name)
        keep_quiet(name, ipv6)
    for name, uplinks in routers.items():
        ip("-n", name, "link", "add", "trunk", "type", "veth", "peer", "name", name, "netns", "far")
        ip("-n", "far", "link", "set", name, "up")
        listed = subprocess.check_output(["ip", "-n", "far", "-j", "link", "show", name])
        mac = json.loads(listed)[0]["address"]
        lines = ["link set lo up", "link set trunk up"]
        for i in uplinks:
            lines += [f"link add up{i} link trunk type macvlan mode private",
                      f"addr add {end(i, 2, ipv6)}{'/64' if ipv6 else '/24'} dev up{i}{' nodad' if ipv6 else ''}",
                      f"link set up{i} up",
                      f"neigh add {end(i, 1, ipv6)} lladdr {mac} dev up{i} nud permanent"]
        if not ipv6:
            lines += [f"route add 198.18.0.0/15 via {end(uplinks[0], 1)}"]  # fping's way
        ip("-n", name, batch=lines)


class Responder:
    """The far end of a router's uplinks, for the length of a with block. Only one can be `alone` on its processor, where
    it stays awake."""

    def __init__(self, router="router", is_alone=True):
        is_alone = is_alone and OWN_PROCESSORS != FAR_PROCESSORS
        self._process = inside("far", str(BUILD / "bench_responder"), router, *(["awake"] if is_alone else []),
                               processors=FAR_PROCESSORS if is_alone else None, stdout=subprocess.PIPE)
        self._process.stdout.readline()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._process.kill()
        self._process.wait()


def target(uplink, ipv6=False):
    return f"2001:db8::{uplink + 1:x}" if ipv6 else f"198.18.{uplink // 250}.{uplink % 250 + 1}"


def plain_ping(uplink, ipv6=False):
    return ["type ping {", f"target {target(uplink, ipv6)}", "resp-time 3000", "}"]


EXTENDED_ECHOES = 10


def extended_ping(uplink, _ipv6):
    """One that runs in every cycle, with limits that no reply of the bench reaches. IPv4 has it alone."""
    return ["type ping_ext {", f"target {target(uplink)}", "period 0", f"count {EXTENDED_ECHOES}", "timeout 1000",
            "loss 90", "rtt 900", "jitter 900", "}"]


def write_conf(routers, path="/run/lb.conf", probe=plain_ping, ipv6=False):
    """One probe for each uplink, one rule for each namespace; the first is the daemon's own."""
    health, rules, interface = [], [], "interface6" if ipv6 else "interface"
    for number, (name, uplinks) in enumerate(routers.items(), 1):
        inside_namespace = [f"namespace {name}"] if number > 1 else []
        rules += [f"rule {number}_ipv{6 if ipv6 else 4} {{", *inside_namespace, "target {",
                  f"address {'2001:db8:1::/48' if ipv6 else '203.0.113.0/24'}", "}"]
        for i in uplinks:
            health += [f"{interface} up{i} {{", f"nexthop {end(i, 1, ipv6)}", "success-ct 1", "failure-ct 2",
                       *([f"source_address {end(i, 2, True)}"] if ipv6 else []),
                       *inside_namespace, "rule 1 {", *probe(i, ipv6), "}", "}"]
            rules += [f"{interface} up{i} {{", "weight 1", "}"]
        rules += ["}"]
    pathlib.Path(path).write_text("\n".join(["health {", *health, "}", *rules]) + "\n", encoding="ascii")


def cpu_s(pid):
    """The kernel's count for all threads of a process."""
    total = 0
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        total += int((task / "schedstat").read_text().split()[0])
    return total / 1e9


def rss_mb(pid):
    pages = int(pathlib.Path(f"/proc/{pid}/statm").read_text().split()[1])
    return pages * os.sysconf("SC_PAGESIZE") / 1e6


def packets_received(namespace, device):
    listed = json.loads(subprocess.check_output(["ip", "-n", namespace, "-j", "-s", "link", "show", device]))
    return listed[0]["stats64"]["rx"]["packets"]


def probes_received():
    return packets_received("far", "router")


def keep_alives():
    path = "/run/notify"
    if os.path.exists(path):
        os.unlink(path)
    manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    manager.bind(path)
    return manager, path


def wait_for_cycle(manager):
    """The next keep-alive, with which a cycle begins."""
    manager.settimeout(BUSY_S)
    try:
        while b"WATCHDOG=1" not in manager.recv(512):
            pass
    except TimeoutError:
        sys.exit("bench: the daemon stands still")


def cycle_work_ms(manager, cycles, at_each=lambda: None):
    """The work of so many cycles: what lies between two keep-alives beyond the second's sleep. `at_each` is called at
    every keep-alive."""
    moments = []
    for _ in range(cycles):
        wait_for_cycle(manager)
        moments.append(time.monotonic())
        at_each()
    return [(later - earlier - 1) * 1000 for earlier, later in zip(moments, moments[1:])]


class Daemon:
    """The daemon on the router, warmed up, for the length of a with block."""

    def __init__(self, warm_up_s=WARM_UP_S, processors=OWN_PROCESSORS):
        self.keep_alives, path = keep_alives()
        os.makedirs("/run/load-balance", exist_ok=True)
        self._process = inside("router", str(BUILD / "lb"), "-f", "/run/lb.conf", processors=processors,
                               env={**os.environ, "NOTIFY_SOCKET": path})
        self.pid = self._process.pid
        cycle_work_ms(self.keep_alives, warm_up_s)  # a cycle is little more than a second

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._process.kill()
        self._process.wait()
        self.keep_alives.close()


def dropped_replies(namespace="router"):
    """What the raw sockets of a namespace lost since they were opened, by the kernel's count."""
    tables = subprocess.check_output(["ip", "netns", "exec", namespace, "cat", "/proc/net/raw", "/proc/net/raw6"],
                                     text=True)
    return sum(int(row.split()[-1]) for row in tables.splitlines() if row.split()[-1].isdigit())


FRAGMENT = pathlib.Path("/usr/etc/routing-wlb.conf")
FRAGMENT6 = pathlib.Path("/usr/etc/routing6-wlb.conf")


def fragment_age():
    """What a rewritten fragment of either family has another of."""
    return [path.stat().st_mtime_ns for path in (FRAGMENT, FRAGMENT6) if path.exists()]


def states_of_uplinks():
    reports = [pathlib.Path(f"/run/load-balance/wlb_ipv{family}.out") for family in (4, 6)]
    return [line.partition(":")[2].strip() for path in reports if path.exists()
            for line in path.read_text(encoding="ascii").splitlines() if line.startswith("  Status:")]


def expect_all_active():
    """A daemon whose uplinks have failed would be measured at something else. A report that is just being rewritten
    is read again."""
    for _ in range(5):
        states = states_of_uplinks()
        if set(states) == {"active"}:
            return
        time.sleep(0.3)
    sys.exit(f"bench: {states.count('active')} of {len(states)} uplinks are active")


def measure_daemon(seconds, processors=OWN_PROCESSORS):
    """From sleep to sleep, between an even number of cycles: a healthy target is probed in every second one."""
    with Daemon(processors=processors) as daemon:
        fragments = []
        wait_for_cycle(daemon.keep_alives)
        time.sleep(0.5)
        before, sent, began = cpu_s(daemon.pid), probes_received(), time.monotonic()
        work_ms = cycle_work_ms(daemon.keep_alives, max(seconds // 2 * 2, 2), lambda: fragments.append(fragment_age()))
        time.sleep(0.5)
        used, probes = cpu_s(daemon.pid) - before, probes_received() - sent
        expect_all_active()
        if not probes:
            sys.exit("bench: the daemon sends no probe")
        return {"cpu_us_per_probe": used / probes * 1e6, "probes_per_s": probes / (time.monotonic() - began),
                "cycle_ms": statistics.median(work_ms), "rss_mb": rss_mb(daemon.pid),
                "dropped_replies": dropped_replies(),
                "changed_routes": sum(later != earlier for earlier, later in zip(fragments, fragments[1:]))}


def cost_of(seconds, due, *command, lines=""):
    """Of a program that probes and is given these lines, warmed up first; it is ended then. A figure is none of a program
    that has ended, or that asks less than half of the probes that are `due` in this time."""
    with tempfile.TemporaryFile("w+") as said, tempfile.TemporaryFile("w+") as given:
        given.write(lines)
        given.seek(0)
        process = inside("router", *command, processors=OWN_PROCESSORS, stdin=given, stdout=subprocess.DEVNULL, stderr=said)
        try:
            time.sleep(WARM_UP_S + 0.5)  # between two rounds of probes
            if process.poll() is None:
                before, sent = cpu_s(process.pid), probes_received()
                time.sleep(seconds)
                used, probes = cpu_s(process.pid) - before, probes_received() - sent
            status = process.poll()
        finally:
            process.kill()
            process.wait()
        said.seek(0)
        if status is not None:
            sys.exit(f"bench: {command[0]} ended with {status}: {said.read()}")
        if probes < due / 2:
            sys.exit(f"bench: {command[0]} sent {probes} of {due} probes: {said.read()}")
        return {"cpu_us_per_probe": used / probes * 1e6}


def measure_fping(uplinks, seconds):
    a_second = min(uplinks, 1000)  # the shortest interval between two echoes is a millisecond
    return cost_of(seconds, a_second * seconds, "fping", "-q", "-l", "-p", "1000", "-i", "1",
                   *(target(i) for i in range(uplinks)))


def measure_floor(uplinks, seconds, echoes=None):
    """The program of bench/floor.cpp on the same targets: so many echoes to each a second, else one every two seconds."""
    listed = subprocess.check_output(["ip", "-n", "far", "-j", "link", "show", "router"])
    mac = json.loads(listed)[0]["address"]
    lines = "\n".join(f"up{i} {mac} {end(i, 2)} {target(i)}" for i in range(uplinks)) + "\n"
    return cost_of(seconds, uplinks * seconds * (echoes or 0.5), str(BUILD / "bench_floor"), *([str(echoes)] if echoes else []),
                   lines=lines)


def measure_alone(uplinks, seconds, ipv6=False, is_busy=False):
    """The daemon alone on uplinks of one family; `is_busy`: beside programs that take every processor."""
    build_network({"router": range(uplinks)}, ipv6=ipv6)
    write_conf({"router": range(uplinks)}, ipv6=ipv6)
    with Responder(is_alone=not is_busy), contextlib.ExitStack() as stack:
        for _ in range(os.cpu_count() if is_busy else 0):
            load = subprocess.Popen([sys.executable, "-c", "while True: pass"])
            stack.callback(load.wait)
            stack.callback(load.kill)
        return measure_daemon(BUSY_S, PROCESSORS) if is_busy else measure_daemon(seconds)


def measure_extended(uplinks, seconds):
    """Of so many uplinks with an extended ping each: the daemon's cost of an echo, and that of a program which does
    nothing but ask and wait for the reply, one echo after the other."""
    build_network({"router": range(uplinks)})
    write_conf({"router": range(uplinks)}, probe=extended_ping)
    with Responder():
        daemon = measure_daemon(seconds)["cpu_us_per_probe"]
        floor = measure_floor(uplinks, seconds, EXTENDED_ECHOES)["cpu_us_per_probe"]
    return {"daemon": daemon, "floor": floor}


def unrelated_frames(mac):
    """UDP, TCP and a foreign echo reply, as they reach the router."""
    def frame(protocol, payload):
        header = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(payload), 0, 0, 64, protocol, 0,
                             socket.inet_aton("198.18.0.1"), socket.inet_aton(end(0, 2)))
        return mac + b"\2\0\0\0\0\1" + b"\x08\x00" + header + payload
    return [frame(17, struct.pack("!HHHH", 5001, 5001, 24, 0) + bytes(16)),
            frame(6, struct.pack("!HHIIBBHHH", 80, 50000, 1, 1, 0x50, 16, 512, 0, 0)),
            frame(1, struct.pack("!BBHHHI", 0, 0, 0, 77, 1, 0x66000000) + bytes(16))]


def measure_unrelated(seconds):
    """CPU that the daemon takes while 100,000 packets which are none of its business reach its namespace, less what
    it takes without them in the same time."""
    listed = subprocess.check_output(["ip", "-n", "router", "-j", "link", "show", "up0"])
    mac = bytes.fromhex(json.loads(listed)[0]["address"].replace(":", ""))
    frames = unrelated_frames(mac)
    sender = "import socket,sys,time\n" \
             "s=socket.socket(socket.AF_PACKET,socket.SOCK_RAW); s.bind(('router',0))\n" \
             "f=[bytes.fromhex(h) for h in sys.argv[3:]]; n=int(sys.argv[1]); t=float(sys.argv[2])/n; b=time.monotonic()\n" \
             "for i in range(n):\n" \
             "  s.send(f[i%len(f)])\n" \
             "  if i%100==0:\n" \
             "    d=b+i*t-time.monotonic()\n" \
             "    if d>0: time.sleep(d)\n"
    with Daemon() as daemon:
        before = cpu_s(daemon.pid)
        time.sleep(seconds)
        idle = cpu_s(daemon.pid) - before
        before, received = cpu_s(daemon.pid), packets_received("router", "up0")
        began = time.monotonic()
        status = inside("far", sys.executable, "-c", sender, str(UNRELATED_PACKETS), str(seconds * 0.9),
               *(frame.hex() for frame in frames)).wait()
        time.sleep(max(0.0, seconds - (time.monotonic() - began)))
        received = packets_received("router", "up0") - received
        if status != 0 or received < 0.95 * UNRELATED_PACKETS:
            sys.exit(f"bench: {received} of {UNRELATED_PACKETS} unrelated packets came, the sender ended with {status}")
        return (cpu_s(daemon.pid) - before - idle) * 1000


def build_namespaces(count):
    """So many namespaces of the router with one uplink each, both families; the far ends are ports of one bridge."""
    for name in ["far", "router", *(f"vrf{i}" for i in range(count))]:
        subprocess.run(["ip", "netns", "del", name], stderr=subprocess.DEVNULL, check=False)
        ip("netns", "add", name)
    # Else its kernel answers each IPv6 echo as well, that nobody is there, in the time of the one who sends.
    keep_quiet("far", ipv6=False)
    far = [f"link add router address {FAR_MAC} type bridge", "link set router up"]
    for i in range(count):
        ip("-n", f"vrf{i}", batch=[
            f"link add up{i} type veth peer name far{i} netns far", f"addr add {end(i, 2)}/24 dev up{i}",
            f"addr add {end(i, 2, True)}/64 dev up{i} nodad", f"link set up{i} up", "link set lo up",
            *(f"neigh add {end(i, 1, ipv6)} lladdr {FAR_MAC} dev up{i} nud permanent" for ipv6 in (False, True))])
        far += [f"link set far{i} master router up"]
    ip("-n", "far", batch=far)


def write_namespaces_conf(count, path="/run/lb.conf"):
    health, rules = [], []
    for i in range(count):
        for family, nexthop in (("", end(i, 1)), ("6", end(i, 1, True))):
            source = [f"source_address {end(i, 2, True)}"] if family else []
            health += [f"interface{family} up{i} {{", f"nexthop {nexthop}", *source, "success-ct 1", "failure-ct 2",
                       f"namespace vrf{i}", "rule 1 {", "type ping {", "resp-time 3000", "}", "}", "}"]
            rules += [f"rule {i + 1}_ipv{family or 4} {{", f"namespace vrf{i}", "target {",
                      f"address {'2001:db8::/32' if family else '203.0.113.0/24'}", "}",
                      f"interface{family} up{i} {{", "weight 1", "}", "}"]
    pathlib.Path(path).write_text("\n".join(["health {", *health, "}", *rules]) + "\n", encoding="ascii")


def measure_namespaces(count, seconds):
    """The share of a processor that so many namespaces take, both families, in percent."""
    build_namespaces(count)
    write_namespaces_conf(count)
    with Responder(is_alone=False), Daemon() as daemon:
        before, began = cpu_s(daemon.pid), time.monotonic()
        time.sleep(seconds)
        share = (cpu_s(daemon.pid) - before) / (time.monotonic() - began) * 100
        expect_all_active()
        return {"percent": share}


def measure_outage():
    """Seconds from a silent far end to the fragment without its route (timeout 3 s, two failures in a row)."""
    fragment = pathlib.Path("/usr/etc/routing-wlb.conf")
    fragment.unlink(missing_ok=True)
    with Responder() as responder, Daemon(warm_up_s=0):
        expect(lambda: fragment.exists() and "route " in fragment.read_text(encoding="ascii"), within=30)
        time.sleep(3)
        began = time.monotonic()
        responder.__exit__()
        expect(lambda: "route " not in fragment.read_text(encoding="ascii"), within=60)
        return time.monotonic() - began


def measure_loader(interfaces, rules):
    """Seconds of `lb -t` for a configuration of this size, the shortest of five."""
    text = ["health {"]
    for i in range(interfaces):
        text += [f"interface up{i} {{", "nexthop 192.0.2.1", "rule 1 {", "type ping {", f"target {target(i)}", "}",
                 "}", "}"]
    text += ["}"]
    for number in range(1, rules + 1):
        text += [f"rule {number}_ipv4 {{", "target {", f"address 10.{number // 250}.{number % 250}.0/24", "}"]
        for j in range(10):
            text += [f"interface up{(number * 10 + j) % interfaces} {{", "weight 1", "}"]
        text += ["}"]
    pathlib.Path("/run/large.conf").write_text("\n".join(text) + "\n", encoding="ascii")
    times = []
    for _ in range(5):
        began = time.monotonic()
        subprocess.run([str(BUILD / "lb"), "-t", "-f", "/run/large.conf"], check=True)
        times.append(time.monotonic() - began)
    return min(times)

#!/usr/bin/python3
"""Holds the rooms of src/ to one direction of dependence, and the kernel to one of them; the folders of tools/ as well.

    rooms.py [SOURCE [TOOLS]]

- A room includes only rooms below it.
- Headers of sockets, interface requests, netlink and threads are included below host/linux and in base only.
- The headers of host include no header of a system at all: the C++ library and rooms below are enough.
- A folder of tools includes only those that it is said to know.

Prints each include that is wrong; the exit status is 1 when there is one.
"""
import pathlib
import re
import sys

# From the process frame down to plain bytes; the two rooms of one floor do not know each other. The two hosts are
# rooms below their headers' users: nothing above includes them, the linker chooses one.
FLOORS = (("core",), ("output", "decision"), ("probe",), ("config",), ("host/linux", "host/simulated"), ("host",),
          ("base",), ("wire",))
FLOOR_OF = {room: floor for floor, rooms in enumerate(FLOORS) for room in rooms}
HOSTS = {"host/linux", "host/simulated"}
# Which folders of tools/ each of them knows, beside itself.
KNOWN = {
    "shared": set(),
    "dumps": {"shared"},
    "lb-lease": {"shared"},
    "lbroute": {"shared", "dumps"},
    "lbwatch": {"shared", "dumps"},
    "lbshow": {"shared", "dumps", "lbwatch"},  # how long a state lasts
    "lbsim": {"shared", "lbwatch"},            # a recorded history
    "lbcheck": {"shared", "dumps", "lbroute"},  # what the kernel has
}
INCLUDE = re.compile(r'^#include "([\w/]+)/[\w.]+"', re.MULTILINE)
FOLDER = re.compile(r'^#include "([\w-]+)/', re.MULTILINE)
SYSTEM_INCLUDE = re.compile(r"^#include <([\w/.]+)>", re.MULTILINE)

OF_THE_KERNEL = re.compile(r"(sys/(socket|ioctl|eventfd|un)|net/|netinet/|arpa/|linux/|libmnl/|libnetfilter|ifaddrs|netdb"
                           r"|poll|pthread|thread|sched)")
# Members of given type, by file and header.
GIVEN = {
    ("probe/lb_test.h", "pthread.h"),           # LBTest::_ipv4_result_mutex, LBTest6::_ipv6_result_mutex
    ("probe/probes_in_flight.h", "pthread.h"),  # the reference to these two
    ("probe/lb_test_icmp.h", "netinet/ip_icmp.h"),  # LBTestICMP::icmp4_checksum
    ("probe/lb_test_ping.h", "netinet/ip_icmp.h"),  # LBTestPING::icmp4_checksum
    ("probe/lb_test_icmp6.h", "netinet/icmp6.h"),   # LBTestICMP6::in_checksum
    ("probe/lb_test_icmp6.h", "netinet/in.h"),      # LBTestICMP6::get_link_local_addr
    ("probe/lb_test_icmp6.h", "netinet/ip6.h"),     # LBTestICMP6::in_checksum
    ("probe/lb_neighbor.h", "netinet/icmp6.h"),     # LBNeighbor::icmp6_checksum
    ("probe/lb_neighbor.h", "netinet/ip6.h"),       # LBNeighbor::icmp6_checksum
    ("output/lb_output.h", "pthread.h"),            # LBOutput::mutex
}


def room_of(path):
    """The room of a path below src/, of a file or of what an include names without its file."""
    parts = path.parts
    return "/".join(parts[:2]) if "/".join(parts[:2]) in HOSTS else parts[0]


def wrong_includes(source):
    for path in sorted(source.rglob("*.[ch]*")):
        here = path.relative_to(source)
        room, text = room_of(here.parent), path.read_text(encoding="utf-8")
        for included in INCLUDE.findall(text):
            other = room_of(pathlib.PurePath(included))
            is_allowed = other == room or (FLOOR_OF.get(other, -1) > FLOOR_OF[room] and other not in HOSTS)
            if not is_allowed:
                yield f"{here} includes {included}/: {room} must not know it"
        for header in SYSTEM_INCLUDE.findall(text):
            if room == "host" and header.endswith(".h"):
                yield f"{here} includes <{header}>: the headers of host name no system's"
            elif (OF_THE_KERNEL.match(header) and room not in ("host/linux", "base")
                  and (str(here), header) not in GIVEN):
                yield f"{here} includes <{header}>: only host/linux and base may"


def wrong_companions(tools):
    folders = {path.parent.name for path in tools.glob("*/*.cpp")}
    for folder in sorted(folders ^ set(KNOWN)):
        yield f"{tools / folder}: a folder without a line in KNOWN, or a line without a folder"
    for path in sorted(tools.glob("*/*.[ch]*")):
        folder = path.parent.name
        for other in FOLDER.findall(path.read_text(encoding="utf-8")):
            if other in folders - {folder} and other not in KNOWN.get(folder, folders):
                yield f"{folder}/{path.name} includes {other}/: {folder} must not know it"


def main():
    source = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parents[2] / "src")
    checked = len(list(source.rglob("*.cpp")))
    if not checked:
        sys.exit(f"rooms: no sources under {source}")
    tools = pathlib.Path(sys.argv[2]) if len(sys.argv) > 2 else source.parent / "tools"
    wrong = list(wrong_includes(source)) + list(wrong_companions(tools))
    wrong += [f"no file includes it any more: {file} <{header}>" for file, header in sorted(GIVEN)
              if f"#include <{header}>" not in (source / file).read_text(encoding="utf-8")]
    print("\n".join(wrong) if wrong else f"rooms: {checked} source files and the companions depend downwards only")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())

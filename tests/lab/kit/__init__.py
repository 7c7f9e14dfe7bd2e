"""The lab kit: everything a lab test needs, one job a module.

    sandbox         private mounts, pids and network for one test file
    netns           network namespaces held by descriptor
    packets         the few frames that scripted peers read and write
    peer            the far end of an uplink: answers, delays, drops, lies
    echo_policies   what a peer does with an echo request
    recording       frames seen, kept for scapy and for a pcap file
    system_log      the captured /dev/log
    injection       system calls that fail in a program that runs
    keep_alives     the captured notification socket of the service manager
    cycles          waiting in cycles of the daemon
    disk            a small file system that a test fills or makes read-only
    lb_lease        the program that writes lease files, and its adapters where the package has them
    dhcp            a real DHCP server, and the real clients
    lbroute         the program that puts fragments into force, and the kernel's routes
    lbwatch         the program that follows the daemon, and dumps written by script
    browser         a real browser, driven over HTTP
    prometheus      the real Prometheus, and what it is asked
    lbshow          what the companion program shows of the daemon
    routing_daemon  the captured routing daemon and the real one
    newer_bird      the routing daemons bird 2 and 3
    conf            configuration files of the daemon
    daemon          the daemon under test
    sanitizers      what they report of any program
    lab             one router with its uplinks; the base class of lab tests
"""
from .conf import Conf, ping, ping_ext
from .expect import expect
from .lab import Lab, LabTest, main

__all__ = ["Conf", "Lab", "LabTest", "expect", "main", "ping", "ping_ext"]

"""The lease of a real udhcpc, told by the script that it is given.

Topology: lease_scene.py.
"""
from kit import lb_lease, main
from kit.dhcp import Udhcpc, missing
from kit.lb_lease import UDHCPC_SCRIPT
from lease_scene import ClientTests, LeaseTest


class Leases(ClientTests, LeaseTest):
    def start(self):
        self.run_client(Udhcpc, script=UDHCPC_SCRIPT)


if __name__ == "__main__":
    main(missing("udhcpc", "dnsmasq"), prepare=lambda: lb_lease.install("udhcpc"))

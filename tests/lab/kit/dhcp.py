"""A real DHCP server (dnsmasq) and the real clients; each a child of the lab."""
import contextlib
import os
import shutil
import signal
import subprocess

from .expect import expect

# The shortest lease that the server gives is two minutes; clients that heed T1 ask again after this time.
RENEWAL_S = 3


class _Child:
    """A program in a namespace, ended with the lab. Its output is NAME.log in the folder."""

    def __init__(self, space, folder, name, *words):
        self._log_path = os.path.join(folder, f"{name}.log")
        with open(self._log_path, "ab") as log:
            # A group of its own: the clients start helpers.
            self._process = subprocess.Popen(space.command(*words), stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                             process_group=0)

    def log(self):
        with open(self._log_path, encoding="utf-8", errors="replace") as file:
            return file.read()

    def signal(self, number):
        self._process.send_signal(number)

    def close(self):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self._process.pid, signal.SIGKILL)
        self._process.wait()


class DhcpServer:
    """Gives leases of 192.0.2.0/24 with a router, and advertises itself as router of 2001:db8::/64.

    `interface` of the namespace `space` has its addresses already.
    """

    def __init__(self, space, folder, interface, router):
        self._space, self._folder, self._interface = space, folder, interface
        self._options = "/run/dhcp-options"
        self._write_options(router)
        self._start("1200")

    def _write_options(self, router, static_routes=None):
        with open(self._options, "w", encoding="ascii") as file:
            file.write((f"option:router,{router}\n" if router else "option:router\n") + f"58,{RENEWAL_S}\n")
            if static_routes:
                file.write(f"option:classless-static-route,{static_routes}\n")

    def _start(self, router_lifetime_s):
        self._child = _Child(
            self._space, self._folder, "dnsmasq", "dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null",
            "--port=0", f"--interface={self._interface}", "--bind-interfaces", "--user=root", "--pid-file=",
            "--dhcp-range=192.0.2.100,192.0.2.150,255.255.255.0,2m", "--dhcp-authoritative", "--no-ping",
            f"--dhcp-optsfile={self._options}", "--dhcp-leasefile=/run/dnsmasq.leases", "--log-dhcp",
            "--log-facility=-", "--enable-ra", "--dhcp-range=2001:db8::,ra-only",
            f"--ra-param={self._interface},4,{router_lifetime_s}")
        expect(lambda: "started" in self._child.log(), what="the DHCP server is ready")

    def give(self, router, static_routes=None):
        """From now on leases name this router, or none, and these classless static routes."""
        self._write_options(router, static_routes)
        before = self._child.log().count("read " + self._options)
        self._child.signal(signal.SIGHUP)
        expect(lambda: self._child.log().count("read " + self._options) > before, what="the server has read it")

    def advertise_no_router(self):
        """From now on it advertises that it is no router."""
        self._child.close()
        self._start("0")

    def close(self):
        self._child.close()


class _Client(_Child):
    """A client. `renew` makes it ask again, `release` give its lease back."""

    def renew(self):
        """Most do so by themselves, every RENEWAL_S or so."""


class Dhclient(_Client):
    def __init__(self, space, folder, interface, leases="/run/dhclient.leases"):
        self._space, self._files = space, ("-lf", leases, "-pf", "/run/dhclient.pid", interface)
        super().__init__(space, folder, "dhclient", "dhclient", "-4", "-d", *self._files)

    def release(self):
        # It says so behind its script; before, the one who releases would find no lease.
        expect(lambda: "bound to" in self.log(), within=30)
        self._space.run("dhclient", "-4", "-r", *self._files)


class Dhcpcd(_Client):
    def __init__(self, space, folder, interface):
        with open("/run/dhcpcd.conf", "w", encoding="ascii") as file:
            # Do not wait whether somebody else has the address.
            file.write("noarp\noption classless_static_routes\n")
        self._releasing = space.command("dhcpcd", "-k", interface)
        super().__init__(space, folder, "dhcpcd", "dhcpcd", "-B", "-f", "/run/dhcpcd.conf", interface)

    def release(self):
        """It loses a request that meets it right behind a new lease, and its -k gives up after 10 seconds."""
        expect(lambda: subprocess.run(self._releasing, capture_output=True, check=False).returncode == 0, within=40,
               what="dhcpcd has released its lease")


class Networkd(_Client):
    """systemd-networkd, alone in a namespace: it manages this interface and no other."""

    PROGRAM = "/lib/systemd/systemd-networkd"

    def __init__(self, space, folder, interface):
        for directory in ("netif/leases", "netif/links", "netif/lldp", "network"):
            os.makedirs(f"/run/systemd/{directory}")
        subprocess.run(["chown", "-R", "systemd-network", "/run/systemd/netif"], check=True)
        with open(f"/run/systemd/network/{interface}.network", "w", encoding="ascii") as file:
            file.write(f"[Match]\nName={interface}\n[Network]\nDHCP=ipv4\nIPv6AcceptRA=yes\n")
        # Where /sys is read-only it does not wait for udev.
        super().__init__(space, folder, "networkd", "unshare", "--mount", "sh", "-c",
                         f"mount -t sysfs -o ro sysfs /sys && exec {self.PROGRAM}")


class Udhcpc(_Client):
    def __init__(self, space, folder, interface, script):
        super().__init__(space, folder, "udhcpc", "udhcpc", "-f", "-t", "20", "-T", "1", "-O", "staticroutes",
                         "-i", interface, "-s", script)

    def renew(self):
        self.signal(signal.SIGUSR1)

    def release(self):
        self.signal(signal.SIGUSR2)


def missing(*programs):
    """The first of the programs that this machine lacks; None when all are there."""
    return next((name for name in programs if shutil.which(name, path="/usr/sbin:/sbin:/usr/bin:/bin") is None), None)

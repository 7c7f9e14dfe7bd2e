"""The program that writes lease files: whole ones, of configured uplinks only, whatever stands in its way.

No network: the daemon's end of the files is in test_next_hops.py and test_leases_*.py.
"""
import contextlib
import fcntl
import os
import pty
import shutil
import subprocess
import threading

from kit import Conf, LabTest, expect, lb_lease, main, sandbox
from kit.lb_lease import LB_LEASE, LEASE, LEASE6, LOCK, files, lease, lease6, put, run, text_of

CONF = "/run/lb.conf"
DIRECTORY = os.path.dirname(LEASE)
DONE, FAILED, MISUSED, NO_UPLINK = range(4)
# A whole other lease, as a DHCP client would keep it there itself.
FOREIGN = 'lease {\n  interface "gi1_1";\n  option routers 192.0.2.9;\n}\n'
OF_OTHERS = f"lb-lease: {LEASE} was not written by lb-lease and stays as it is"


def opened_by(process):
    """What its descriptors stand for."""
    folder = f"/proc/{process}/fd"
    for name in os.listdir(folder):
        with contextlib.suppress(FileNotFoundError):  # closed since
            yield os.readlink(f"{folder}/{name}")


def held_lock():
    """The lock of the program, taken; it is free again once this is closed."""
    lock = os.open(LOCK, os.O_RDWR | os.O_CREAT, 0o600)
    fcntl.flock(lock, fcntl.LOCK_EX)
    return lock


class ProgramTest(LabTest):
    def setUp(self):
        super().setUp()
        self.lab.write_conf(Conf().interface("gi1_1", nexthop="dhcp").interface("gi1_1", nexthop="dhcp", ipv6=True)
                            .interface("gi1_2", nexthop="192.0.2.1").interface("gre_1", nexthop="tunnel")
                            .interface("gi1_3", nexthop="dhcp", namespace="blue"))

    def check(self, status, said, *arguments):
        """Runs with the test's configuration, and with these results."""
        self.assertEqual(run("-f", CONF, *arguments), (status, said))


class Writing(ProgramTest):
    def test_routers_of_both_families_stand_in_the_files_of_the_daemon(self):
        self.check(DONE, "", "gi1_1", "192.0.2.1")
        self.check(DONE, "", "--ipv6", "gi1_1", "FE80::0:1")

        self.assertEqual((text_of(LEASE), text_of(LEASE6)), (lease("192.0.2.1"), lease6("fe80::1")))
        self.assertEqual(files(), sorted(os.path.basename(path) for path in (LEASE, LEASE6)))

    def test_first_of_several_routers_counts(self):
        self.check(DONE, "", "gi1_1", "192.0.2.1", "192.0.2.2")
        self.check(DONE, "", "--ipv6", "gi1_1", "fe80::12", "fe80::2")

        self.assertEqual((text_of(LEASE), text_of(LEASE6)), (lease("192.0.2.1"), lease6("fe80::12")))

    def test_router_of_the_static_routes_counts_before_all(self):
        for others in (["192.0.2.9"], ["--gone"]):
            put(LEASE, None)
            self.check(DONE, "", "gi1_1", "--static-routes", "24 10 0 0 192 0 2 8 0 192 0 2 1", *others)
            self.assertEqual(text_of(LEASE), lease("192.0.2.1"))

    def test_static_routes_without_a_default_leave_the_router(self):
        for routes in ("", "10.0.0.0/8 192.0.2.8"):
            put(LEASE, None)
            self.check(DONE, "", "gi1_1", "--static-routes", routes, "192.0.2.1")
            self.assertEqual(text_of(LEASE), lease("192.0.2.1"))

    def test_static_routes_that_are_none_are_told_and_leave_the_router(self):
        self.check(DONE, "lb-lease: left out what is no list of static routes of gi1_1: 'x y'\n",
                   "gi1_1", "--static-routes", "x y", "192.0.2.1")

        self.assertEqual(text_of(LEASE), lease("192.0.2.1"))

    def test_uplink_of_any_namespace_is_written(self):
        self.check(DONE, "", "gi1_3", "192.0.2.1")

        self.assertEqual(files(), ["dhclient_gi1_3.leases"])

    def test_file_is_readable_for_all_whatever_the_callers_mask(self):
        subprocess.run(["sh", "-c", f'umask 077; exec "$0" -f {CONF} gi1_1 192.0.2.1', LB_LEASE], check=True)

        self.assertEqual(os.stat(LEASE).st_mode & 0o777, 0o644)

    def test_missing_directory_is_made(self):
        sandbox.unmount(DIRECTORY)
        self.addCleanup(sandbox.mount, "lab", DIRECTORY, "tmpfs")
        sandbox.mount("lab", os.path.dirname(DIRECTORY), "tmpfs")
        self.addCleanup(sandbox.unmount, os.path.dirname(DIRECTORY))

        self.check(DONE, "", "gi1_1", "--gone")
        self.assertFalse(os.path.exists(DIRECTORY))
        self.check(DONE, "", "gi1_1", "192.0.2.1")

        self.assertEqual(text_of(LEASE), lease("192.0.2.1"))
        self.assertEqual(os.stat(DIRECTORY).st_mode & 0o777, 0o755)

    def test_file_that_says_so_already_is_not_written_again(self):
        self.check(DONE, "", "gi1_1", "192.0.2.1")
        before = os.stat(LEASE)
        self.check(DONE, "", "gi1_1", "192.0.2.1")

        self.assertEqual((os.stat(LEASE).st_ino, os.stat(LEASE).st_mtime_ns), (before.st_ino, before.st_mtime_ns))

    def test_gone_takes_away_the_file_of_its_family_only(self):
        self.check(DONE, "", "gi1_1", "192.0.2.1")
        self.check(DONE, "", "--ipv6", "gi1_1", "fe80::1")
        self.check(DONE, "", "gi1_1", "--gone")
        self.check(DONE, "", "gi1_1", "--gone")

        self.assertEqual(files(), [os.path.basename(LEASE6)])


class SideBySide(ProgramTest):
    def test_reader_sees_whole_files_only(self):
        self.check(DONE, "", "gi1_1", "192.0.2.1")
        seen, done = set(), threading.Event()

        def read():
            while not done.is_set():
                seen.add(text_of(LEASE))

        reader = threading.Thread(target=read)
        reader.start()
        for number in range(2, 60):
            self.check(DONE, "", "gi1_1", f"192.0.2.{number}")
        done.set()
        reader.join()

        self.assertGreater(len(seen), 5)
        self.assertLessEqual(seen, {lease(f"192.0.2.{number}") for number in range(1, 60)})

    def test_calls_at_the_same_time_leave_one_whole_file(self):
        calls = [subprocess.Popen([LB_LEASE, "-f", CONF, "gi1_1", f"192.0.2.{number}"]) for number in range(1, 21)]

        self.assertEqual([call.wait(60) for call in calls], [DONE] * len(calls))

        self.assertIn(text_of(LEASE), {lease(f"192.0.2.{number}") for number in range(1, 21)})
        self.assertEqual(files(), [os.path.basename(LEASE)])

    def test_call_waits_for_another(self):
        lock = held_lock()
        call = subprocess.Popen([LB_LEASE, "-f", CONF, "gi1_1", "192.0.2.1"])
        expect(lambda: LOCK in opened_by(call.pid), what="the call has come as far as the lock")
        self.assertIsNone(call.poll())
        self.assertIsNone(text_of(LEASE))
        os.close(lock)

        self.assertEqual(call.wait(60), DONE)
        self.assertEqual(text_of(LEASE), lease("192.0.2.1"))

    def test_lock_that_stays_ends_in_a_message(self):
        self.addCleanup(os.close, held_lock())

        self.check(FAILED, f"lb-lease: {LOCK} has been locked for 10 seconds, by another lb-lease or some program of "
                           "root's, see: lslocks\n", "gi1_1", "192.0.2.1")


class OtherInterfaces(ProgramTest):
    """The configuration names them later, perhaps."""

    def test_others_than_dhcp_uplinks_are_written_and_told_apart_silently(self):
        for arguments in (["gi1_2", "192.0.2.1"], ["gre_1", "192.0.2.1"], ["lan", "192.0.2.1"],
                          ["--ipv6", "gi1_3", "fe80::1"]):
            self.check(NO_UPLINK, "", *arguments)

        self.assertEqual(files(), ["dhclient_gi1_2.leases", "dhclient_gre_1.leases", "dhclient_lan.leases",
                                   "dhcp6_clientgi1_3.leases"])

    def test_gone_takes_the_file_away(self):
        self.check(NO_UPLINK, "", "gi1_2", "192.0.2.1")
        self.check(NO_UPLINK, "", "gi1_2", "--gone")

        self.assertEqual(files(), [])

    def test_what_cannot_be_written_is_passed_over_and_leaves_no_old_router(self):
        disk = self.lab.disk(DIRECTORY)
        self.check(NO_UPLINK, "", "gi1_2", "192.0.2.1")
        disk.fill()

        self.check(NO_UPLINK, "", "gi1_2", "192.0.2.2")

        self.assertEqual(files(), ["filler"])

    def test_others_files_stay_and_are_not_told(self):
        path = f"{DIRECTORY}/dhclient_gi1_2.leases"
        put(path, FOREIGN)
        for arguments in (["gi1_2", "192.0.2.1"], ["gi1_2", "--gone"], ["gi1_2", "x"]):
            self.check(NO_UPLINK, "", *arguments)

        self.assertEqual(text_of(path), FOREIGN)

    def test_person_is_told_why(self):
        terminal, far_end = pty.openpty()
        self.addCleanup(os.close, terminal)
        status = subprocess.run([LB_LEASE, "-f", CONF, "gi1_2", "192.0.2.1"], stderr=far_end, check=False).returncode
        os.close(far_end)

        said = b""
        while not said.endswith(b"\n"):  # a terminal gives what is written piece by piece
            said += os.read(terminal, 4096)
        self.assertEqual(status, NO_UPLINK)
        self.assertEqual(said.decode(), "lb-lease: gi1_2 is none of the uplinks with 'nexthop dhcp': no 'interface gi1_2'"
                                        f" in {CONF} has it\r\n")

    def test_lease_that_is_older_than_the_configuration_is_there_when_it_comes(self):
        sandbox.make_writable("/etc")
        self.addCleanup(sandbox.unmount, "/etc")
        put(lb_lease.CONF, None)

        self.assertEqual(run("gi1_1", "192.0.2.1"), (NO_UPLINK, ""))

        self.assertEqual(text_of(LEASE), lease("192.0.2.1"))

    def test_configuration_that_cannot_be_read_is_told(self):
        self.assertEqual(run("-f", "/run/none.conf", "gi1_1", "192.0.2.1"),
                         (NO_UPLINK, "lb-lease: /run/none.conf cannot be read: No such file or directory; until it can be"
                                     " read as a whole, gi1_1 is none of the uplinks with 'nexthop dhcp'\n"))
        self.assertEqual(text_of(LEASE), lease("192.0.2.1"))

    def test_configuration_with_unmatched_brackets_counts_as_far_as_it_goes(self):
        self.check(DONE, "", "gi1_1", "192.0.2.1")
        put(CONF, "health {\n  interface gi1_1 {\n    nexthop dhcp\n  }\n")

        self.check(DONE, "", "gi1_1", "192.0.2.2")
        self.check(NO_UPLINK, f"lb-lease: {CONF} is not whole, see: lbcheck {CONF}; until it can be read as a whole, gi1_3"
                              " is none of the uplinks with 'nexthop dhcp'\n", "gi1_3", "192.0.2.3")

        self.assertEqual(text_of(LEASE), lease("192.0.2.2"))
        self.assertEqual(text_of(f"{DIRECTORY}/dhclient_gi1_3.leases"), lease("192.0.2.3", interface="gi1_3"))
        self.assertEqual(self.lab.log.texts(), [])


class Refused(ProgramTest):
    def test_names_that_no_interface_has(self):
        for name, reason in (("", "is empty"), ("..", "is a folder's name"), ("../../etc/x", "holds a '/' or ':'"),
                             ("gi1 1", "holds a blank or a character that cannot be printed"),
                             ("sixteen_letters_", "is longer than 15 characters")):
            self.check(MISUSED, f"lb-lease: the interface name {reason}\n", name, "192.0.2.1")

        self.assertEqual(files(), [])

    def test_addresses_that_no_router_has_keep_the_old_file(self):
        self.check(DONE, "", "gi1_1", "192.0.2.1")
        for routers, bad, reason in ((["0.0.0.0"], "0.0.0.0", "is no address that a router can have"),
                                     (["192.0.2.2", "x;"], "x;", "is no IPv4 address"),
                                     (["fe80::1"], "fe80::1", "is no IPv4 address"), ([""], "", "is no IPv4 address")):
            self.check(MISUSED, f"lb-lease: the router of gi1_1, '{bad}', {reason}\n", "gi1_1", *routers)

        self.assertEqual(text_of(LEASE), lease("192.0.2.1"))

    def test_neither_or_both_of_router_and_gone(self):
        self.check(MISUSED, "lb-lease: a router is missing, or --gone\n", "gi1_1")
        self.check(MISUSED, "lb-lease: --gone takes no router\n", "gi1_1", "192.0.2.1", "--gone")

    def test_nothing_at_all(self):
        self.check(MISUSED, "lb-lease: the interface name is empty\n")

    def test_removal_of_old_ones_beside_anything_else(self):
        self.check(MISUSED, "lb-lease: --remove-old takes nothing else\n", "--remove-old", "gi1_1")
        for arguments in (["--gone"], ["--ipv6"], ["--static-routes", "x"]):
            self.assertEqual(run("--remove-old", *arguments)[0], MISUSED)

    def test_unknown_option(self):
        self.assertEqual(run("--nonsense", "gi1_1", "192.0.2.1")[0], MISUSED)

    def test_output_that_was_asked_for_is_no_fault(self):
        self.assertEqual(run("--help")[0], DONE)
        self.assertRegex(run("--version")[1], r"^lb-lease [0-9]+\.[0-9]+\.[0-9]+\n$")


class Others(ProgramTest):
    """What stands there and is not the program's own."""

    def check_stays(self):
        for arguments in (["192.0.2.1"], ["--gone"]):
            status, said = run("-f", CONF, "gi1_1", *arguments)
            self.assertEqual((status, said.partition(";")[0]), (FAILED, OF_OTHERS))
        self.assertEqual(files(), [os.path.basename(LEASE)])

    def test_lease_of_a_client(self):
        for text in (FOREIGN, ""):
            put(LEASE, text)
            self.check_stays()
            self.assertEqual(text_of(LEASE), text)

    def test_link(self):
        put("/run/target", lease("192.0.2.9"))
        os.symlink("/run/target", LEASE)

        self.check_stays()

        self.assertEqual((os.readlink(LEASE), text_of("/run/target")), ("/run/target", lease("192.0.2.9")))
        os.unlink(LEASE)

    def test_folder_and_pipe(self):
        for make, remove in ((os.mkdir, os.rmdir), (os.mkfifo, os.unlink)):
            make(LEASE)
            self.check_stays()
            remove(LEASE)

    def test_rest_of_a_killed_call_is_replaced_and_never_followed(self):
        put("/run/victim", "untouched")
        leftover = os.path.join(DIRECTORY, ".lb-lease.new")
        for make in (lambda: put(leftover, "half a"), lambda: os.symlink("/run/victim", leftover),
                     lambda: os.mkfifo(leftover)):
            make()
            put(LEASE, None)
            self.check(DONE, "", "gi1_1", "192.0.2.1")
            self.assertEqual((text_of(LEASE), files()), (lease("192.0.2.1"), [os.path.basename(LEASE)]))

        self.assertEqual(text_of("/run/victim"), "untouched")


class Old(ProgramTest):
    """What was written before the machine's last start."""

    def remove(self):
        self.assertEqual(run("--remove-old"), (DONE, ""))

    def test_files_of_another_start_are_removed_and_those_of_this_one_stay(self):
        put(LEASE, lease("192.0.2.1", boot="0c4b"))
        put(LEASE6, lease6("fe80::1", boot="0c4b"))
        self.check(DONE, "", "gi1_3", "192.0.2.3")

        self.remove()

        self.assertEqual(files(), ["dhclient_gi1_3.leases"])

    def test_files_of_others_stay(self):
        put(LEASE, FOREIGN)
        os.symlink(LEASE, LEASE6)

        self.remove()

        self.assertEqual(files(), sorted(os.path.basename(path) for path in (LEASE, LEASE6)))

    def test_missing_folder_is_well(self):
        sandbox.unmount(DIRECTORY)
        self.addCleanup(sandbox.mount, "lab", DIRECTORY, "tmpfs")
        sandbox.mount("lab", os.path.dirname(DIRECTORY), "tmpfs")
        self.addCleanup(sandbox.unmount, os.path.dirname(DIRECTORY))

        self.remove()

        self.assertFalse(os.path.exists(DIRECTORY))

    def test_same_router_told_again_counts_for_this_start(self):
        put(LEASE, lease("192.0.2.1", boot="0c4b"))

        self.check(DONE, "", "gi1_1", "192.0.2.1")

        self.assertEqual(text_of(LEASE), lease("192.0.2.1"))


class Disks(ProgramTest):
    def setUp(self):
        super().setUp()
        self.disk = self.lab.disk(DIRECTORY)
        self.check(DONE, "", "gi1_1", "192.0.2.1")

    def check_stays(self, reason, advice):
        self.check(FAILED, f"lb-lease: {LEASE} stays as it was: {reason}; {advice}\n", "gi1_1", "192.0.2.2")
        self.assertEqual(text_of(LEASE), lease("192.0.2.1"))

    def test_full_one_keeps_the_old_file_and_takes_the_next(self):
        self.disk.fill()
        self.check_stays("No space left on device", f"make room there, see: df -h -i {DIRECTORY}")
        self.assertEqual(files(), sorted([os.path.basename(LEASE), "filler"]))

        self.disk.empty()
        self.check(DONE, "", "gi1_1", "192.0.2.2")
        self.assertEqual(text_of(LEASE), lease("192.0.2.2"))

    def test_read_only_one_keeps_the_old_file(self):
        self.disk.set_read_only(True)
        self.addCleanup(self.disk.set_read_only, False)
        advice = f"make it writable, for a service by ReadWritePaths={DIRECTORY}, see: findmnt -T {DIRECTORY}"

        self.check_stays("Read-only file system", advice)
        self.check(FAILED, f"lb-lease: {LEASE} stays as it was: Read-only file system; {advice}\n", "gi1_1", "--gone")

        self.assertEqual(text_of(LEASE), lease("192.0.2.1"))

    def test_caller_without_rights_is_told(self):
        program = shutil.copy(LB_LEASE, "/run/lb-lease")  # others may not enter the project's folder
        done = subprocess.run(["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", program, "-f", CONF,
                               "gi1_1", "192.0.2.2"], stderr=subprocess.PIPE, text=True, check=False)

        self.assertEqual((done.returncode, done.stderr),
                         (FAILED, f"lb-lease: {LOCK} cannot be opened: Permission denied; run it as root\n"))
        self.assertEqual(text_of(LEASE), lease("192.0.2.1"))


if __name__ == "__main__":
    main()

"""The command line: options, usage, pid file, background mode. No network takes part."""
import os
import signal
import stat
import subprocess

from kit import LabTest, expect, main
from kit.daemon import command
from scenes import error, one_uplink

USAGE = """\
lb -ftviodh
  -f [file] configuration file
  -t load configuration file only and exit
  -i specify location of pid directory
  -o specify location of output directory
  -d run as daemon
  -h help
"""
EMPTY = "Configuration file is empty\n"
PID_FILE = "/run/lb.pid"


class CommandLine(LabTest):
    def end_of(self, *arguments):
        """(exit status, standard output) of a run that ends by itself."""
        daemon = self.lab.run_daemon(*arguments)
        status = daemon.wait()
        return status, daemon.stdout

    def test_help_prints_the_usage(self):
        self.assertEqual(self.end_of("-h"), (0, USAGE))

    def test_unknown_option_prints_the_usage(self):
        self.assertEqual(self.end_of("-x"), (0, USAGE))

    def test_option_without_its_argument_prints_the_usage(self):
        for option in ("-f", "-i", "-o"):
            with self.subTest(option):
                self.assertEqual(self.end_of(option), (0, USAGE))

    def test_help_ends_before_anything_is_done(self):
        self.assertEqual(self.end_of("-f", "/nowhere", "-i", PID_FILE, "-h"), (0, USAGE))
        self.assertFalse(os.path.exists(PID_FILE))
        self.assertEqual(self.lab.log.texts(), [])

    def test_no_configuration_file_ends_the_run(self):
        self.assertEqual(self.end_of(), (0, EMPTY))

    def test_empty_configuration_path_ends_the_run(self):
        self.assertEqual(self.end_of("-f", ""), (0, EMPTY))

    def test_standard_output_that_nobody_reads_any_more_does_not_end_the_run(self):
        left, pipe = os.pipe()
        os.close(left)
        try:
            self.assertEqual(subprocess.run(command(), stdout=pipe, check=False, timeout=20).returncode, 0)
        finally:
            os.close(pipe)

    def test_no_configuration_file_means_no_fork_and_no_pid_file(self):
        daemon = self.lab.run_daemon("-d", "-i", PID_FILE)
        self.assertEqual(daemon.wait(), 0)
        self.assertEqual(daemon.stdout, EMPTY)
        self.assertFalse(os.path.exists(PID_FILE))

    def test_test_run_loads_and_ends_silently(self):
        self.assertEqual(self.end_of("-t", "-f", self.lab.write_conf(one_uplink())), (0, ""))
        self.assertEqual(self.lab.log.texts(), [])

    def test_test_run_of_a_missing_file_logs_and_ends_with_0(self):
        self.assertEqual(self.end_of("-t", "-f", "/run/none.conf"), (0, ""))
        self.assertEqual(self.lab.log.texts(),
                         [error("wan_lb: configuration file not found: /run/none.conf")])

    def test_later_options_override_earlier_ones(self):
        self.end_of("-t", "-f", "/run/first", "-f", "/run/second")
        self.assertEqual(self.lab.log.texts(),
                         [error("wan_lb: configuration file not found: /run/second")])

    def test_v_has_no_effect(self):
        self.assertEqual(self.end_of("-v", "-t", "-f", "/run/none.conf"), (0, ""))
        self.assertEqual(len(self.lab.log.texts()), 1)

    def test_messages_carry_severity_facility_identity_and_pid(self):
        daemon = self.lab.run_daemon("-t", "-f", "/run/none.conf")
        daemon.wait()
        line = self.lab.log.lines()[0]
        self.assertEqual((line.severity, line.facility, line.identity, line.pid),
                         (4, 3, "wan_lb", daemon.pid))


class PidFile(LabTest):
    def test_holds_the_pid_and_a_newline_and_stays(self):
        daemon = self.lab.run_daemon("-t", "-i", PID_FILE, "-f", "/run/none.conf")
        daemon.wait()
        with open(PID_FILE, encoding="ascii") as file:
            self.assertEqual(file.read(), f"{daemon.pid}\n")

    def test_is_readable_by_all_and_writable_by_its_owner(self):
        self.lab.run_daemon("-t", "-i", PID_FILE, "-f", "/run/none.conf").wait()
        self.assertEqual(stat.S_IMODE(os.stat(PID_FILE).st_mode), 0o644)

    def test_is_truncated_first(self):
        with open(PID_FILE, "w", encoding="ascii") as file:
            file.write("something longer than a process number\n")
        daemon = self.lab.run_daemon("-t", "-i", PID_FILE, "-f", "/run/none.conf")
        daemon.wait()
        with open(PID_FILE, encoding="ascii") as file:
            self.assertEqual(file.read(), f"{daemon.pid}\n")

    def test_that_cannot_be_opened_is_reported_and_start_up_continues(self):
        self.lab.run_daemon("-t", "-i", "/run/no/such/lb.pid", "-f", "/run/none.conf").wait()
        self.assertEqual(self.lab.log.texts(), [
            error("Can't fopen pid lock file /run/no/such/lb.pid, continuing"),
            error("wan_lb: configuration file not found: /run/none.conf")])


class Background(LabTest):
    def child_of(self, daemon):
        """The pid of the child in the pid file; the parent has ended with 0."""
        self.assertEqual(daemon.wait(), 0)

        def pid_in_file():
            try:
                with open(PID_FILE, encoding="ascii") as file:
                    return int(file.read() or 0)
            except FileNotFoundError:
                return 0
        return expect(pid_in_file)

    def kept_child(self, *arguments):
        """The pid of a background daemon that goes on; ended with the test."""
        daemon = self.lab.run_daemon("-d", "-i", PID_FILE, *arguments)
        child = self.child_of(daemon)
        self.addCleanup(os.waitpid, child, 0)
        self.addCleanup(os.kill, child, signal.SIGKILL)
        return daemon, child

    def test_test_run_in_the_background_ends_the_child_with_0(self):
        daemon = self.lab.run_daemon("-t", "-d", "-i", PID_FILE, "-f", "/run/none.conf")
        child = self.child_of(daemon)
        self.assertNotEqual(child, daemon.pid)
        _, status = os.waitpid(child, 0)
        self.assertEqual(status, 0)
        self.assertEqual([line.pid for line in self.lab.log.lines()], [child])

    def test_standard_descriptors_are_held_on_dev_null(self):
        self.lab.uplink("gi1_1", "192.0.2.10/24", "192.0.2.1")
        _, child = self.kept_child("-f", self.lab.write_conf(one_uplink()))
        expect(self.lab.log.lines)  # a worker runs, so its sockets are open soon
        expect(lambda: any("socket" in link for link in descriptors(child).values()))
        self.assertEqual([descriptors(child)[number] for number in (0, 1, 2)], ["/dev/null"] * 3)

    def test_nothing_else_is_detached(self):
        daemon, child = self.kept_child("-f", "/run/none.conf")
        self.assertEqual(os.getpgid(child), daemon.pid)
        self.assertEqual(os.getsid(child), os.getsid(0))
        self.assertEqual(os.readlink(f"/proc/{child}/cwd"), os.getcwd())

    def test_service_manager_learns_the_childs_pid(self):
        daemon = self.lab.run_daemon("-d", "-i", PID_FILE, "-f", "/run/none.conf")
        child = self.child_of(daemon)
        self.addCleanup(os.waitpid, child, 0)
        self.addCleanup(os.kill, child, signal.SIGKILL)
        expect(lambda: self.lab.keep_alives.times(f"MAINPID={child}"))


class WithoutWork(LabTest):
    def test_missing_configuration_leaves_the_daemon_idle(self):
        daemon = self.lab.run_daemon("-f", "/run/none.conf")
        expect(lambda: self.lab.log.texts() ==
               [error("wan_lb: configuration file not found: /run/none.conf")])
        expect(lambda: self.lab.keep_alives.times("READY=1"))
        wake_ups = voluntary_switches(daemon.pid)
        # It sleeps four seconds at a time: twice shows that it goes on for ever.
        expect(lambda: voluntary_switches(daemon.pid) >= wake_ups + 2, within=30)
        self.assertEqual(len(self.lab.log.texts()), 1)


def voluntary_switches(pid):
    """How often the main thread has gone to sleep."""
    with open(f"/proc/{pid}/task/{pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status
                    if line.startswith("voluntary_ctxt_switches:"))


def descriptors(pid):
    """{number: what it leads to} of a process."""
    found = {}
    for number in os.listdir(f"/proc/{pid}/fd"):
        try:
            found[int(number)] = os.readlink(f"/proc/{pid}/fd/{number}")
        except FileNotFoundError:  # closed meanwhile
            pass
    return found


if __name__ == "__main__":
    main()

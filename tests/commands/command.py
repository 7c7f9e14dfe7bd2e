"""What the tests of a command share. It is told on their own command line: PROJECT PROGRAM."""
import os
import pathlib
import pty
import re
import subprocess
import sys
import tempfile
import time
import unittest

PROJECT, PROGRAM = (pathlib.Path(path).resolve() for path in sys.argv[1:3])

# A network without links, and a /run and a /var of the test's own.
APART = ["unshare", "--net", "--mount", "sh", "-ec",
         'mount -t tmpfs tmpfs /run; mount --bind "$0" /var; ln -sfn /run /var/run; exec "$@"']


class CommandLine(unittest.TestCase):
    patience_s = 60

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def file(self, name, text):
        path = self.folder / name
        path.parent.mkdir(exist_ok=True)
        path.write_text(text, encoding="utf-8")
        return str(path)

    def run_it(self, *arguments, before=()):
        """(exit status, standard output, standard error)"""
        ended = subprocess.run([*before, PROGRAM, *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, text=True, check=False,
                               timeout=self.patience_s)
        return ended.returncode, ended.stdout, ended.stderr

    def run_apart(self, *arguments):
        """On a machine of the test's own; what it leaves in /var lies in `var`."""
        return self.run_it(*arguments, before=self.apart())

    def apart(self):
        var = self.folder / "var"
        var.mkdir(exist_ok=True)
        if subprocess.run([*APART, var, "true"], stderr=subprocess.DEVNULL, check=False).returncode:
            self.skipTest("needs the right to make a network and mounts of its own")
        return [*APART, var]

    def on_a_terminal(self, stream, *arguments, patience_s=20, until="", before=()):
        """What a person sees of one stream, up to and with these words or to the end."""
        terminal, far_end = pty.openpty()
        self.addCleanup(os.close, terminal)
        other = {"stdout": "stderr", "stderr": "stdout"}[stream]
        with subprocess.Popen([*before, PROGRAM, *arguments], stdin=subprocess.DEVNULL,
                              **{stream: far_end, other: subprocess.DEVNULL}) as running:
            os.close(far_end)
            seen = b""
            end = time.monotonic() + patience_s
            while time.monotonic() < end and not (until and until in seen.decode()):
                try:
                    piece = os.read(terminal, 4096)
                except OSError:  # the far end is closed
                    break
                if not piece:
                    break
                seen += piece
            running.kill()
        return seen.decode().replace("\r\n", "\n")

    def assert_refused(self, status, words, *arguments):
        ended, output, errors = self.run_it(*arguments)
        self.assertEqual((ended, output), (status, ""), (arguments, errors))
        self.assertIn(words, errors, arguments)

    def assert_tells_of_itself(self, misused, description, *wanted):
        """Asked for, it is no error; an unknown option is one."""
        status, output, errors = self.run_it("--version")
        self.assertRegex(output, rf"^{PROGRAM.name} \d+\.\d+\.\d+\n$")
        self.assertEqual((status, errors), (0, ""))
        status, output, errors = self.run_it("--help")
        self.assertIn(description, re.sub(r"\s+", " ", output))
        self.assertEqual((status, errors), (0, ""))
        self.assert_refused(misused, f"{PROGRAM.name}: The following argument was not expected: --no-such-option",
                            "--no-such-option", *wanted)

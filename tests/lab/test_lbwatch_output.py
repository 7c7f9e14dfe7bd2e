"""lbwatch whose standard output takes nothing more: it says so and why, but not to somebody who has stopped reading."""
import os
import pathlib
import signal
import subprocess

from kit import expect, main
from kit.lab import OUTPUT_DIRECTORY
from kit.lbwatch import HISTORY, LBWATCH, lbwatch
from lbwatch_scene import Scripted

FULL = "standard output cannot be written: No space left on device"


def run_into(output, *arguments, **options):
    return subprocess.Popen([LBWATCH, *arguments], stdout=output, stderr=subprocess.PIPE, text=True, **options)


def end_of(process):
    """Exit status, and all it said."""
    said = process.communicate(timeout=20)[1]
    return process.returncode, said


def closed_pipe():
    """An end to write to, whose reader has gone."""
    reader, writer = os.pipe()
    os.close(reader)
    return writer


class Output(Scripted):
    def follow(self, output):
        self.daemon.start()
        process = run_into(output, "run", "-o", OUTPUT_DIRECTORY, "--history", HISTORY, "--hooks", "none")
        self.addCleanup(process.kill)
        return process

    def told(self):
        return lbwatch("events", "--history", HISTORY).stdout.splitlines()

    def test_events_that_a_full_disk_did_not_take_are_counted_at_the_end(self):
        with open("/dev/full", "wb") as full:
            process = self.follow(full)
        expect(lambda: any("eth1" in line and "active" in line for line in self.told()))
        self.assertIsNone(process.poll())

        process.send_signal(signal.SIGTERM)

        status, said = end_of(process)
        self.assertEqual(status, 1)
        self.assertEqual(said, f"lbwatch: {FULL}; {len(self.told())} events were not told there; "
                               f"lbwatch events --history {HISTORY} tells them\n")

    def test_history_that_could_not_be_written_is_counted_at_the_end(self):
        self.daemon.start()
        with open("/run/told", "wb") as told:
            process = run_into(told, "run", "-o", OUTPUT_DIRECTORY, "--history", "/run/told/history.db",
                               "--hooks", "none")
        self.addCleanup(process.kill)
        expect(lambda: pathlib.Path("/run/told").read_text(encoding="utf-8").count("-> active") == 2)

        process.send_signal(signal.SIGTERM)

        status, said = end_of(process)
        self.assertEqual(status, 1)
        self.assertRegex(said, r"goes on in memory[^\n]*\n(.*\n)*lbwatch: [1-9]\d* rows of /run/told/history.db are lost\n$")

    def test_reader_that_has_gone_ends_it_without_a_word(self):
        writer = closed_pipe()
        process = self.follow(writer)
        os.close(writer)

        self.assertEqual(end_of(process), (1, ""))


class PastEvents(Scripted):
    def setUp(self):
        super().setUp()
        self.settled().kill(signal.SIGTERM)

    def test_full_disk_is_told(self):
        for words in (["events"], ["events", "--json"], ["report"], ["report", "--csv"]):
            with open("/dev/full", "wb") as full:
                process = run_into(full, *words, "--history", HISTORY)
            self.assertEqual(end_of(process), (1, f"lbwatch: {FULL}\n"), words)

    def test_reader_that_has_gone_is_not_told(self):
        for words in ("events", "report"):
            for is_signal_ignored, status in ((False, -signal.SIGPIPE), (True, 1)):
                writer = closed_pipe()
                # Python itself ignores the signal, which a program inherits.
                process = run_into(writer, words, "--history", HISTORY, restore_signals=not is_signal_ignored)
                os.close(writer)
                self.assertEqual(end_of(process), (status, ""), (words, is_signal_ignored))


if __name__ == "__main__":
    main()

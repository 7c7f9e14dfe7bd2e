#!/usr/bin/python3
"""The bash completions: they load by their command's name, and offer what the programs take.

    test_completion.py PROJECT PROGRAM-FOLDER
"""
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

PROJECT, PROGRAMS = (pathlib.Path(folder).resolve() for folder in sys.argv[1:3])
sys.path.insert(0, str(PROJECT / "tests/style"))

from manual import commands_of, options_of  # noqa: E402

COMPLETION = "/usr/share/bash-completion/bash_completion"

# compopt(1) wants a completion that the shell itself has begun.
ASK = """
compopt() { :; }
. "$LOADER"
_completion_loader "$1"
function=$(complete -p "$1" | sed 's/.*-F \\([^ ]*\\).*/\\1/')
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMP_LINE="$*" COMP_POINT=${#COMP_LINE}
"$function" "$1" "${@: -1}" "${@: -2:1}"
printf '%s\\n' "${COMPREPLY[@]}"
"""


def completions(*words):
    """What bash would offer for the last of these words."""
    with tempfile.TemporaryDirectory() as folder:
        (pathlib.Path(folder) / "bash-completion").mkdir()
        (pathlib.Path(folder) / "bash-completion/completions").symlink_to(PROJECT / "packaging/completion")
        asked = subprocess.run(["bash", "--norc", "-c", ASK, "bash", *words],
                               env=dict(os.environ, XDG_DATA_DIRS=folder, LOADER=COMPLETION), cwd=PROJECT, text=True,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
    if asked.stderr:
        raise AssertionError(asked.stderr)
    return set(asked.stdout.split())


class Completion(unittest.TestCase):
    def check_options(self, program):
        """No option is missing, none is made up; lb's -v means nothing, and its usage leaves it out."""
        told = options_of(PROGRAMS / program)
        self.assertTrue(told)
        self.assertEqual(completions(program, "-") - {"-v"}, told)

    def test_lb_offers_its_options(self):
        self.check_options("lb")

    def test_lbcheck_offers_its_options(self):
        self.check_options("lbcheck")

    def test_lbsim_offers_its_options(self):
        self.check_options("lbsim")

    def test_lbsim_completes_files(self):
        self.assertEqual(completions("lbsim", "--compare", "demo/lb"), {"demo/lb.conf"})
        self.assertEqual(completions("lbsim", "demo/lb"), {"demo/lb.conf"})

    def test_lb_lease_offers_its_options(self):
        self.check_options("lb-lease")

    def test_lb_lease_completes_interfaces_and_configurations(self):
        self.assertEqual(completions("lb-lease", "lo"), {"lo"})
        self.assertEqual(completions("lb-lease", "-f", "examples/dual"), {"examples/dual-stack.conf"})

    def test_lbshow_offers_its_options(self):
        self.check_options("lbshow")

    def test_lbwatch_offers_its_options(self):
        self.check_options("lbwatch")

    def test_lbwatch_offers_the_options_of_its_words(self):
        for word in commands_of(PROGRAMS / "lbwatch"):
            self.assertEqual(completions("lbwatch", word, "-"), options_of(PROGRAMS / "lbwatch", word), word)

    def test_lbroute_offers_its_options_and_those_of_each_command(self):
        self.check_options("lbroute")
        for command in commands_of(PROGRAMS / "lbroute"):
            self.assertEqual(completions("lbroute", command, "x", "-"), options_of(PROGRAMS / "lbroute", command),
                             command)

    def test_lbroute_offers_its_commands(self):
        self.assertEqual(completions("lbroute", ""), completions("lbroute", "-") | {*commands_of(PROGRAMS / "lbroute")})

    def test_a_configuration_is_completed_behind_f(self):
        self.assertEqual(completions("lb", "-f", "examples/dual"), {"examples/dual-stack.conf"})

    def test_an_output_directory_is_completed_behind_o(self):
        self.assertEqual(completions("lb", "-o", "exam"), {"examples"})
        self.assertEqual(completions("lbshow", "-o", "exam"), {"examples"})

    def test_lbcheck_completes_files(self):
        self.assertEqual(completions("lbcheck", "--strict", "demo/lb"), {"demo/lb.conf"})

    def test_lbshow_completes_what_to_show(self):
        self.assertEqual(completions("lbshow", "r"), {"routes", "rules"})

    def test_lbshow_completes_byte_orders(self):
        self.assertEqual(completions("lbshow", "--byte-order", ""), {"big", "little"})


if __name__ == "__main__":
    if not os.path.exists(COMPLETION) or shutil.which("bash") is None:
        print("skipped: bash-completion is not installed")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1], verbosity=2)

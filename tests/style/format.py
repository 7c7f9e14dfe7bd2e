#!/usr/bin/python3
"""The layout of every C++ file is the formatter's.

    format.py CLANG-FORMAT FILE...

Each release of the formatter lays some lines out in another way, so one release is the measure, and with any other this
is skipped.
"""
import re
import subprocess
import sys

SKIPPED = 77
RELEASE = "14"


def main():
    formatter, *files = sys.argv[1:]
    if not files:
        sys.exit(__doc__)
    said = subprocess.run([formatter, "--version"], check=True, stdout=subprocess.PIPE, text=True).stdout
    release = re.search(r"version (\d+)", said).group(1)
    if release != RELEASE:
        print(f"skipped: the layout is that of clang-format {RELEASE}, here is {release}")
        return SKIPPED
    return subprocess.run([formatter, "--dry-run", "-Werror", *files], check=False).returncode


if __name__ == "__main__":
    sys.exit(main())

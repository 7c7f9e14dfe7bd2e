#!/usr/bin/python3
"""Holds the examples of lbsim(1) to the program: runs the commands of the worked one as they stand, and compares what they print;
the scenario runs with the configuration that the page names for it.

    lbsim_example.py PROJECT LBSIM
"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

SAMPLE = "examples/two-providers-3-to-1.conf"
OF_THE_SCENARIO = "demo/lb.conf"


def block_of(page, heading):
    """The first lines under a heading that are printed as they stand."""
    text = page.read_text(encoding="utf-8").partition(f"\n.SH {heading}\n")[2]
    block = re.search(r"^\.nf\n(.*?)^\.fi", text, re.M | re.S).group(1)
    return block.replace("\\-", "-").replace("\\(aq", "'").replace("\\e", "\\")


def example_of(page):
    """The commands of the page's example, and the lines printed by them."""
    lines = block_of(page, "EXAMPLE").splitlines()
    return [line[2:] for line in lines if line.startswith("$ ")], [line for line in lines if not line.startswith("$ ")]


def main():
    project, lbsim = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
    commands, wanted = example_of(project / "man/lbsim.1")
    if len(commands) < 2 or len(wanted) < 10:
        print("lbsim.1: no example found")
        return 1
    with tempfile.TemporaryDirectory() as folder:
        (pathlib.Path(folder) / "lb.conf").write_text((project / SAMPLE).read_text(encoding="utf-8"), encoding="utf-8")
        environment = dict(os.environ, PATH=f"{lbsim.parent}:{os.environ['PATH']}")
        printed = subprocess.run("\n".join(commands), shell=True, cwd=folder, env=environment, check=True, text=True,
                                 stdout=subprocess.PIPE).stdout.splitlines()
    if printed[:len(wanted)] != wanted:
        print("lbsim.1 shows:", *wanted, "but this is printed:", *printed, sep="\n")
        return 1
    scenario = block_of(project / "man/lbsim.1", "SCENARIO")
    simulated = subprocess.run([lbsim, project / OF_THE_SCENARIO, "/dev/stdin"], input=scenario, text=True, check=False,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if simulated.returncode != 0 or "clock back 2h" not in simulated.stdout:
        print("lbsim.1: its scenario does not run:", simulated.stdout, sep="\n")
        return 1
    print("lbsim.1: the examples do what the page shows")
    return 0


if __name__ == "__main__":
    sys.exit(main())

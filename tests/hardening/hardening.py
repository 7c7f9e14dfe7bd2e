#!/usr/bin/python3
"""Looks into a built program for the marks of its protections; prints each that is missing.

    hardening.py PROGRAM

Address space layout randomisation needs a position-independent program. A read-only relocation table needs both RELRO
and binding at the start. What the compiler protected stands in what the program imports, and in the options that GCC
notes in the debug data of each source file. The exit status is 1 when something is missing.
"""
import re
import subprocess
import sys

# Their unguarded forms stay only where _FORTIFY_SOURCE is below 2: that level refuses "%n" in writable formats.
GUARDED_CALLS = {"printf", "fprintf", "vfprintf", "syslog", "vsyslog"}
NOTED_OPTIONS = ("-fstack-protector-strong", "-fstack-clash-protection")


def readelf(program, *options):
    done = subprocess.run(["readelf", "--wide", *options, program], capture_output=True, text=True, check=False,
                          env={"PATH": "/usr/bin:/bin", "LC_ALL": "C"})
    if done.returncode != 0:
        sys.exit(f"hardening: readelf cannot read {program}: {done.stderr.strip()}")
    return done.stdout


def missing_of_layout(program):
    segments = readelf(program, "--segments")
    dynamic = readelf(program, "--dynamic")
    if not re.search(r"\(FLAGS_1\).*\bPIE\b", dynamic):
        yield "position-independent program"
    if "GNU_RELRO" not in segments:
        yield "read-only relocations"
    if not re.search(r"\((FLAGS\).*BIND_NOW|FLAGS_1\).*\bNOW\b)", dynamic):
        yield "binding at the start"
    stack = re.search(r"GNU_STACK(?:\s+0x[0-9a-f]+){5}\s+(\S+)", segments)
    if not stack or "E" in stack.group(1):
        yield "stack without execution"


def missing_of_imports(program):
    imported = set(re.findall(r"\bUND (\w+)", readelf(program, "--dyn-syms")))
    if "__stack_chk_fail" not in imported:
        yield "stack protector"
    guards = {name for name in imported if re.fullmatch(r"__\w+_chk", name)}
    if not guards or imported & GUARDED_CALLS:
        yield "guarded library calls"


def missing_of_notes(program):
    producers = re.findall(r"DW_AT_producer.*?: (GNU C\+\+.*)", readelf(program, "--debug-dump=info", "--dwarf-depth=1"))
    if not producers:
        yield "the compiler's notes: GCC writes them with -g"
    for option in NOTED_OPTIONS:
        without = [noted for noted in producers if option not in noted.split()]
        if without:
            yield f"{option} in {len(without)} of {len(producers)} source files"


def missing(program):
    return [*missing_of_layout(program), *missing_of_imports(program), *missing_of_notes(program)]


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    lacks = missing(sys.argv[1])
    print("\n".join(f"missing: {lack}" for lack in lacks) if lacks else "every protection is there")
    return 1 if lacks else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/python3
"""Holds docs/behaviour.md to the tests: every number stands once, names tests that exist, and is there where it is cited.
Other pages that tell which tests hold something name tests that exist, too.

    behaviour.py PROJECT UNIT-TESTS

UNIT-TESTS is the program with the unit tests. Prints what is wrong; the exit status is 1 then.
"""
import ast
import collections
import pathlib
import re
import subprocess
import sys

ENTRY = re.compile(r"^\*\*B(\d+)\. ", re.MULTILINE)
TEST = re.compile(r"`([\w]+\.[\w]+)`")
CITED = re.compile(r"\bB(\d+)\b")
# Pages that name tests as CTest has them: `lab.NAME`, and unit tests, `Suite.test` or `Suite.*`.
NAMING = ("docs/reliability.md", "tests/*/README.md")
LAB_TEST = re.compile(r"`lab\.(\w+)`")
UNIT_TEST = re.compile(r"`([A-Z]\w+\.)(\w+|\*)`")
UNIT_TEST_IN_SOURCE = re.compile(r"^TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)", re.MULTILINE)
# Where numbers are cited: documents, and whatever may explain itself by one.
CITING = ("*.md", "man/*", "docs/*.md", "examples/*", "packaging/**/*", "src/**/*.[ch]*", "tools/**/*.[ch]*",
          "tests/lab/**/*.py", "tests/unit/**/*.[ch]*")


def unit_tests(program):
    """Suite.name of each, as the program itself lists them."""
    listed = subprocess.run([program, "--gtest_list_tests"], stdout=subprocess.PIPE, text=True, check=True).stdout
    suite = ""
    for line in listed.splitlines():
        if not line.startswith(" "):
            suite = line.partition("#")[0].strip()
        elif suite:
            yield suite.rpartition("/")[2].rstrip(".") + "." + line.partition("#")[0].strip().partition("/")[0]


def classes_of(path):
    """The classes of a file: {name: (names of the bases, names of the tests)}."""
    tree = ast.parse(path.read_text(encoding="utf-8"))
    return {node.name: ([base.id for base in node.bases if isinstance(base, ast.Name)],
                        [one.name for one in node.body
                         if isinstance(one, ast.FunctionDef) and one.name.startswith("test_")])
            for node in tree.body if isinstance(node, ast.ClassDef)}


def lab_tests(folder):
    """file.test of each, those of its classes' bases included."""
    classes = {path: classes_of(path) for path in folder.glob("*.py")}
    shared = collections.ChainMap(*classes.values())

    def tests_of(name):
        bases, tests = shared.get(name, ((), ()))
        return {*tests, *(test for base in bases for test in tests_of(base))}

    for path, own in classes.items():
        if path.name.startswith("test_"):
            for bases, tests in own.values():
                yield from (f"{path.stem.removeprefix('test_')}.{test}"
                            for test in {*tests, *(test for base in bases for test in tests_of(base))})


def entries(page):
    """(number, text) of each entry."""
    parts = ENTRY.split(page)[1:]
    for number, text in zip(parts[::2], parts[1::2]):
        yield int(number), text.partition("\n## ")[0]


def missing_tests(project):
    """What the other pages name and nobody has; the tests of every unit-test program count."""
    in_sources = [UNIT_TEST_IN_SOURCE.findall(path.read_text(encoding="utf-8"))
                  for path in (project / "tests").rglob("*.cpp")]
    units = {f"{suite}.{test}" for tests in in_sources for suite, test in tests}
    units |= {suite.partition(".")[0] + ".*" for suite in units}
    labs = {path.stem.partition("_")[2]
            for pattern in ("test_*.py", "uml/scenario_*.py") for path in (project / "tests/lab").glob(pattern)}
    for page in sorted(page for pattern in NAMING for page in project.glob(pattern)):
        text = page.read_text(encoding="utf-8")
        named = {"".join(parts) for parts in UNIT_TEST.findall(text) if parts[1] not in ("md", "cpp", "h")}
        missing = sorted(named - units) + [f"lab.{name}" for name in sorted({*LAB_TEST.findall(text)} - labs)]
        yield from (f"{page.relative_to(project)} names {name}, which does not exist" for name in missing)


def wrong(project, known):
    page = (project / "docs/behaviour.md").read_text(encoding="utf-8")
    numbers = collections.Counter()
    for number, text in entries(page):
        numbers[number] += 1
        tests = TEST.findall(text.rpartition("\nTests: ")[2]) if "\nTests: " in text else []
        if not tests:
            yield f"B{number} names no test"
        yield from (f"B{number} names {test}, which does not exist" for test in tests if test not in known)
    yield from (f"B{number} stands {count} times" for number, count in numbers.items() if count > 1)
    if not numbers:
        yield "docs/behaviour.md has no entry"
    for path in sorted({path for pattern in CITING for path in project.glob(pattern) if path.is_file()}):
        cited = {int(number) for number in CITED.findall(path.read_text(encoding="utf-8", errors="replace"))}
        yield from (f"{path.relative_to(project)} cites B{number}, which does not exist"
                    for number in sorted(cited - numbers.keys()))


def main():
    project = pathlib.Path(sys.argv[1])
    known = {*unit_tests(sys.argv[2]), *lab_tests(project / "tests/lab")}
    problems = [*wrong(project, known), *missing_tests(project)]
    print("\n".join(problems) if problems else "behaviour: every number has its tests")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())

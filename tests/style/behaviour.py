#!/usr/bin/python3
"""Holds docs/behaviour.md to the tests: every number stands once, names tests that exist, and is there where it is cited.

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
    problems = list(wrong(project, known))
    print("\n".join(problems) if problems else "behaviour: every number has its tests")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())

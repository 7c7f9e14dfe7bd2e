#!/usr/bin/python3
"""Holds the rooms of src/ to one direction of dependence: a room includes only rooms below it.

Prints each include that points upwards or sideways; the exit status is 1 when there is one.
"""
import pathlib
import re
import sys

# From the process frame down to plain bytes; the two rooms of one floor do not know each other.
FLOORS = (("core",), ("output", "decision"), ("probe",), ("host",), ("config",), ("platform",), ("net",))
FLOOR_OF = {room: floor for floor, rooms in enumerate(FLOORS) for room in rooms}
INCLUDE = re.compile(r'^#include "(\w+)/', re.MULTILINE)


def wrong_includes(source):
    for path in sorted(source.rglob("*.[ch]*")):
        room = path.relative_to(source).parts[0]
        for included in INCLUDE.findall(path.read_text(encoding="utf-8")):
            is_allowed = included == room or FLOOR_OF.get(included, -1) > FLOOR_OF[room]
            if not is_allowed:
                yield f"{path.relative_to(source)} includes {included}/: {room} must not know it"


def main():
    source = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parents[2] / "src")
    checked = len(list(source.rglob("*.cpp")))
    if not checked:
        sys.exit(f"rooms: no sources under {source}")
    wrong = list(wrong_includes(source))
    print("\n".join(wrong) if wrong else f"rooms: {checked} source files depend downwards only")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())

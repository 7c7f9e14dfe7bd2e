#!/usr/bin/python3
"""Holds the operating guide to lbroute: it explains every text that the program tells its operator, and none besides.

    lbroute_messages.py PROJECT CLANG

A text of the source is a string of several words, those of help and status left out. The guide's tables write `...` for what
differs. Prints what is missing on either side; the exit status is 1 then.
"""
import pathlib
import re
import sys

from cpp_tokens import literals_of

HEADING = "\n## Messages of lbroute\n"
# What it says in the words of files that it has in common with other programs.
SHARED = ("program.cpp", "folder_watch.cpp")
# The command line's own words, its answers, what status shows, and the languages of ip(8) and bird.
NO_MESSAGES = ("main.cpp", "maintenance.cpp", "report.cpp", "report_text.cpp", "status.cpp", "commands.cpp")
NO_WORDS = re.compile(r"[{}]|check link|^#")


def is_message(text):
    """Several words in a row: no key, no path, no word of ip(8)."""
    return len(re.findall(r"[A-Za-z']{2,} (?=[A-Za-z'(])", text)) >= 2 and not NO_WORDS.search(text)


def told(folder, clang):
    paths = [str(path) for path in sorted(folder.glob("*.[ch]*")) if path.name not in NO_MESSAGES]
    paths.extend(str(folder.parent / "shared" / name) for name in SHARED)
    return (one.text.strip() for one in literals_of(clang, paths))


def table_of(guide):
    """The lines of the tables behind the heading."""
    section = re.split(r"\n## ", guide.read_text(encoding="utf-8").partition(HEADING)[2])[0]
    return [line for line in section.splitlines() if line.startswith("| `")]


def rest_of(row, texts):
    """The words of a row that no text of the source has."""
    for text in sorted(texts, key=len, reverse=True):
        row = row.replace(text, " ")
    return re.findall(r"[A-Za-z]{2,}", row)


def wrong(texts, table):
    messages, rows = {text for text in texts if is_message(text)}, [line.split("`")[1] for line in table]
    if len(messages) < 30 or len(rows) < 20:
        yield f"only {len(messages)} messages and {len(rows)} rows found"
    yield from (f"docs/operating.md says nothing about: {text}" for text in sorted(messages)
                if not any(text in line for line in table))
    for row in rows:
        if rest := rest_of(row, texts):
            yield f"no source tells '{' '.join(rest)}' of: {row}"
    yield from (f"explained twice: {row}" for row in sorted({row for row in rows if rows.count(row) > 1}))


def main():
    project = pathlib.Path(sys.argv[1])
    texts = {text for text in told(project / "tools/lbroute", sys.argv[2]) if text}
    problems = list(wrong(texts, table_of(project / "docs/operating.md")))
    print("\n".join(problems) if problems else "lbroute_messages: all are explained")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())

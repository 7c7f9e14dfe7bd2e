#!/usr/bin/python3
"""Holds the operating guide to the daemon: it explains every message that the source can write, and none besides.

    messages.py PROJECT DAEMON CLANG

The calls are found by the compiler's lexer; what the daemon's program holds of operator messages must be among them.
Prints what is missing on either side; the exit status is 1 then.
"""
import pathlib
import re
import sys

from cpp_tokens import calls_of

LOGGED = {"LOG_ERROR", "LOG_WARNING", "LOG_INFO"}
PLAIN = {"plain_syslog", "SYSLOG_message", "perror", "fprintf"}
OPERATOR_PREFIX = b"%%%s-%s-%s: "
# Put together by hand, where nothing may be formatted.
CRASH = ("...: died of ... in thread ... (...), stack:", b": died of ")


def shown(text):
    """A format as the guide writes it: `...` for what differs, on one line."""
    return " ".join(re.sub(r"%[a-z]", "...", text).split())


def sent(clang, source):
    """Every message that a call sends: (its text, whether it has the operator's prefix)."""
    paths = [str(path) for path in sorted(source.rglob("*.[ch]*"))]
    for call in calls_of(clang, paths, LOGGED | PLAIN):
        if call.name == "fprintf" and call.first != "stderr":
            continue
        if call.text:
            yield call.text, call.name in LOGGED
        elif not call.is_declared:
            sys.exit(f"messages: {call.place} sends a message whose text is not beside the call")


def held(daemon):
    """The operator messages in the program itself."""
    return {text.removeprefix(OPERATOR_PREFIX).decode() for text in daemon.split(b"\0")
            if text.startswith(OPERATOR_PREFIX) and text != OPERATOR_PREFIX}


def explained(guide):
    """The first column of the tables behind the heading Messages."""
    text = guide.read_text(encoding="utf-8").split("\n## Messages\n")[1]
    return re.findall(r"^\| `([^`]+)` \|", text, re.MULTILINE)


def wrong(calls, daemon, rows):
    operators = {text for text, is_logged in calls if is_logged}
    yield from (f"no call that is known here sends: {text}" for text in sorted(held(daemon) - operators))
    messages = {shown(text) for text, _ in calls}
    messages |= {CRASH[0]} if CRASH[1] in daemon else set()
    if len(messages) < 80:
        yield f"only {len(messages)} messages found in src"
    yield from (f"docs/operating.md says nothing about: {text}" for text in sorted(messages - set(rows)))
    yield from (f"no source sends: {text}" for text in sorted(set(rows) - messages))
    yield from (f"explained twice: {text}" for text in sorted({text for text in rows if rows.count(text) > 1}))


def main():
    project, daemon, clang = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), sys.argv[3]
    rows = explained(project / "docs/operating.md")
    problems = list(wrong(list(sent(clang, project / "src")), daemon.read_bytes(), rows))
    print("\n".join(problems) if problems else f"messages: all {len(rows)} are explained")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/python3
"""Holds the operating guide to the daemon: it explains every message that the source can write, and none besides.

    messages.py PROJECT

Prints what is missing on either side; the exit status is 1 then.
"""
import pathlib
import re
import sys

CALL = re.compile(r'(?<!define )\b(?:LOG_ERROR|LOG_WARNING|LOG_INFO|plain_syslog|SYSLOG_message|fprintf|perror)\(\s*'
                  r'(?:stderr,\s*|\d+,\s*)*((?:"(?:[^"\\]|\\.)*"\s*)+)')
ANY_CALL = re.compile(r"\b(?:LOG_ERROR|LOG_WARNING|LOG_INFO|plain_syslog|perror)\(|\bfprintf\(stderr")
DECLARING = ("host/log.h", "host/log.cpp")
# Put together by hand, where nothing may be formatted.
CRASH = ("...: died of ... in thread ... (...), stack:", "host/linux/crash_report.cpp", '": died of "')


def shown(literal):
    """A format as the guide writes it: `...` for what differs, on one line."""
    text = literal.replace("\\n", " ").replace("\\'", "'")
    return " ".join(re.sub(r"%[a-z]", "...", text).split())


def messages_of(path):
    text = path.read_text(encoding="utf-8")
    found = {shown("".join(re.findall(r'"((?:[^"\\]|\\.)*)"', match.group(1)))) for match in CALL.finditer(text)}
    calls = len(ANY_CALL.findall(text))
    if calls > len(CALL.findall(text)):
        sys.exit(f"messages: {path} sends a message whose text is not beside the call")
    return found


def sent(source):
    crash_text, crash_file, part = CRASH
    messages = {crash_text} if part in (source / crash_file).read_text(encoding="utf-8") else set()
    for path in sorted(source.rglob("*.[ch]*")):
        if str(path.relative_to(source)) not in DECLARING:
            messages |= messages_of(path)
    return messages


def explained(guide):
    """The first column of the tables behind the heading Messages."""
    text = guide.read_text(encoding="utf-8").split("\n## Messages\n")[1]
    return re.findall(r"^\| `([^`]+)` \|", text, re.MULTILINE)


def main():
    project = pathlib.Path(sys.argv[1])
    messages, rows = sent(project / "src"), explained(project / "docs/operating.md")
    if len(messages) < 80:
        sys.exit(f"messages: only {len(messages)} found in src")
    wrong = [f"docs/operating.md says nothing about: {text}" for text in sorted(messages - set(rows))]
    wrong += [f"no source sends: {text}" for text in sorted(set(rows) - messages)]
    wrong += [f"explained twice: {text}" for text in sorted({text for text in rows if rows.count(text) > 1})]
    print("\n".join(wrong) if wrong else f"messages: all {len(messages)} are explained")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/python3
"""Holds the manual pages to the programs: they format without a warning, and name every option, keyword and message.

    manual.py PROJECT PROGRAM-FOLDER

Prints what is wrong; the exit status is 1 then, and 77 where there is no man(1).
"""
import pathlib
import re
import shutil
import subprocess
import sys


def warnings_of(page):
    formatted = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-Tutf8", "-Z", "-l", str(page)],
                               stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, check=False)
    if formatted.stderr:
        yield f"{page.name}: {formatted.stderr.strip()}"


def plain(page):
    """The text of a page without its markup, on one line."""
    text = re.sub(r"\\f.|\\&", "", page.read_text(encoding="utf-8")).replace("\\-", "-").replace("\\(aq", "'")
    return re.sub(r"\s+", " ", re.sub(r"^\.[A-Z]+", "", text, flags=re.MULTILINE))


def options_of(program):
    usage = subprocess.run([program, "--help"], stdout=subprocess.PIPE,
                           stderr=subprocess.DEVNULL, text=True, check=False).stdout
    return set(re.findall(r"(?<![\w-])(?:--[a-z][a-z-]*|-[a-z](?![a-z]))", usage))


def keywords_and_messages(source):
    text = (source / "lb_data_keywords.cpp").read_text(encoding="utf-8")
    keywords = set(re.findall(r'(?:[!=]= |\{)"([a-z0-9_-]+)"', text))
    text += (source / "lb_data_factory.cpp").read_text(encoding="utf-8")
    messages = set(re.findall(r'LOG_\w+\(\s*"([^"%]+)', text))
    return keywords, messages


def missing(page, wanted):
    text = plain(page)
    for word in sorted(wanted):
        if not re.search(r"(?<![\w-])" + re.escape(word.strip()) + r"(?![\w-])", text):
            yield f"{page.name}: nothing about '{word}'"


def wrong(project, programs):
    manual = project / "man"
    pages = sorted(manual.glob("*.[1-8]"))
    if len(pages) != 5:
        yield f"{manual}: {len(pages)} pages instead of 5"
    for page in pages:
        yield from warnings_of(page)
    for name in ("lb.8", "lbcheck.1", "lbshow.1", "lbwatch.8"):
        options = options_of(programs / name.partition(".")[0])
        if not options:
            yield f"{name}: the program tells no option"
        yield from missing(manual / name, options)
    keywords, messages = keywords_and_messages(project / "src/config")
    if len(keywords) < 15 or len(messages) < 6:
        yield f"only {len(keywords)} keywords and {len(messages)} messages found in src/config"
    yield from missing(manual / "lb.conf.5", keywords | messages)


def main():
    if shutil.which("man") is None:
        print("manual: no man(1) here")
        return 77
    problems = list(wrong(pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])))
    print("\n".join(problems) if problems else "manual: formats cleanly, names everything")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/python3
"""Holds the manual pages to the programs: they format without a warning, and name every option, keyword and message,
and every column, JSON key and metric of lbshow.

    manual.py PROJECT PROGRAM-FOLDER CONFIGURATION-WORDS CLANG

CONFIGURATION-WORDS is the program that prints the loader's keywords. Prints what is wrong; the exit status is 1 then,
and 77 where there is no man(1).
"""
import pathlib
import re
import shutil
import subprocess
import sys

from cpp_tokens import calls_of, literals_of
from messages import LOGGED


def warnings_of(page):
    formatted = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-Tutf8", "-Z", "-l", str(page)],
                               stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, check=False)
    if formatted.stderr:
        yield f"{page.name}: {formatted.stderr.strip()}"


def plain(page):
    """The text of a page without its markup, on one line."""
    text = re.sub(r"\\f.|\\&", "", page.read_text(encoding="utf-8")).replace("\\-", "-").replace("\\(aq", "'")
    return re.sub(r"\s+", " ", re.sub(r"^\.[A-Z]+", "", text, flags=re.MULTILINE))


def usage_of(program, *command):
    return subprocess.run([program, *command, "--help"], stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL, text=True, check=False).stdout


def options_of(program, *command):
    """The options that a program, or a command of it, tells in its usage."""
    usage = usage_of(program, *command)
    return set(re.findall(r"(?<![\w-])(?:--[a-z][a-z0-9-]*|-[a-z](?![a-z]))", usage))


def commands_of(program):
    """The commands that a program tells in its usage."""
    return re.findall(r"^  (\w+)", re.split(r"(?i)^subcommands:", usage_of(program), flags=re.M)[-1], re.M)


def keywords(program):
    return set(subprocess.run([program], stdout=subprocess.PIPE, text=True, check=True).stdout.split())


def messages_of_the_loader(source, clang):
    """Up to what differs in each."""
    calls = calls_of(clang, [str(path) for path in source.glob("*.cpp")], LOGGED)
    return {call.text.partition("%")[0] for call in calls}


def names_of_lbshow(source, clang):
    """Columns, JSON keys and metrics: what the page promises to keep."""
    columns = {one.text for one in literals_of(clang, [str(source / "tables.cpp")])
               if re.fullmatch("[A-Z]+( [A-Z]+)*", one.text)}
    keys = {one.text for one in literals_of(clang, [str(source / "json.cpp")])
            if one.before in ("{", "[") and one.behind in (",", "]")}
    metrics = {one.text for one in literals_of(clang, [str(source / "metrics.cpp")])
               if re.fullmatch("lb_[a-z_]+", one.text)}
    return columns, keys, metrics


def missing(page, wanted):
    text = plain(page)
    for word in sorted(wanted):
        if not re.search(r"(?<![\w-])" + re.escape(word.strip()) + r"(?![\w-])", text):
            yield f"{page.name}: nothing about '{word}'"


def wrong(project, programs, configuration_words, clang):
    manual = project / "man"
    pages = sorted(manual.glob("*.[1-8]"))
    for page in pages:
        yield from warnings_of(page)
    of_programs = [page for page in pages if (programs / page.stem).is_file()]
    if len(of_programs) != len(pages) - 1:
        yield f"{manual}: {len(pages)} pages, but {len(of_programs)} programs; lb.conf.5 alone has none"
    for page in of_programs:
        options = options_of(programs / page.stem)
        if not options:
            yield f"{page.name}: the program tells no option"
        # "Usage: lbshow [OPTIONS] ...", lb itself "lb -ftviodh"
        if not re.search(rf"^(?:Usage: )?{page.stem} [\[-]", usage_of(programs / page.stem), re.M):
            yield f"{page.name}: the program's usage does not begin with its name"
        yield from missing(page, options)
    for name in ("lbroute", "lbwatch"):
        for command in commands_of(programs / name):
            yield from missing(manual / f"{name}.8", {command} | options_of(programs / name, command))
    columns, keys, metrics = names_of_lbshow(project / "tools/lbshow", clang)
    if len(columns) < 20 or len(keys) < 40 or len(metrics) < 15:
        yield f"only {len(columns)} columns, {len(keys)} keys and {len(metrics)} metrics found in tools/lbshow"
    yield from missing(manual / "lbshow.1", columns | keys | metrics)
    messages = messages_of_the_loader(project / "src/config", clang)
    if len(messages) < 6:
        yield f"only {len(messages)} messages found in src/config"
    yield from missing(manual / "lb.conf.5", keywords(configuration_words) | messages)


def main():
    if shutil.which("man") is None:
        print("skipped: man-db is not installed")
        return 77
    problems = list(wrong(pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), *sys.argv[3:]))
    print("\n".join(problems) if problems else "manual: formats cleanly, names everything")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""The document of what is not held has a row for each entry of the list that the campaigns go by, and no other; and
it names each function that no case lets fail, under its reason.

usage: not_held_test.py DOCUMENT COMMAND_OF_FAULT_CAMPAIGN ...
"""

import pathlib
import re
import subprocess
import sys

NAME = re.compile(r"`(\w+)`")
# How the document says in which way a call fails.
WORDS_OF_WAYS = {"": "", " late": "late", " never returns": "never returns", " without doing anything": "has not written"}


def names_of(row):
    return set(NAME.findall(row)) | {name for name in ("any function", "no call") if f"({name})" in row}


def has(row, name, way, route):
    return name in names_of(row) and WORDS_OF_WAYS[way] in row and (not route or f"route {route}" in row)


def rows_of(document, heading):
    section = document.split(f"\n## {heading}\n")[1].split("\n## ")[0]
    return [line.split("|")[1:-1] for line in section.splitlines() if line.startswith("| ")][1:]


def lines_of(command, word):
    said = subprocess.run([*command, word], capture_output=True, text=True, check=True).stdout
    return [line.split("|") for line in said.splitlines()]


def left_out_is_right(document, command):
    written = {name: reason.strip() for names, reason in rows_of(document, "Calls that do not fail")
               for name in names_of(names)}
    listed = dict(lines_of(command, "--left-out"))
    for name in sorted(written.keys() ^ listed.keys()):
        print(f"{name} is in the {'document' if name in written else 'list'} alone")
    for name in sorted(written.keys() & listed.keys()):
        if written[name] != listed[name]:
            print(f"{name}: the document says \"{written[name]}\", the list \"{listed[name]}\"")
    return bool(listed) and written == listed


def main():
    document, command = pathlib.Path(sys.argv[1]).read_text(encoding="utf-8"), sys.argv[2:]
    rows = [row[0] for row in rows_of(document, "What is not held")]
    entries = [entry[:3] for entry in lines_of(command, "--not-held")]
    missing = [entry for entry in entries if not any(has(row, *entry) for row in rows)]
    listed = {name for name, _, _ in entries}
    spare = [row for row in rows if not names_of(row) or names_of(row) - listed]
    for entry in missing:
        print(f"not in the document: {entry}")
    for row in spare:
        print(f"not in the list: {row}")
    sound = left_out_is_right(document, command)
    return 0 if entries and not missing and not spare and sound else 1


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""The document of what is not held has a row for each entry of the list that the campaigns go by, and no other.

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


def main():
    document, command = pathlib.Path(sys.argv[1]), sys.argv[2:]
    section = document.read_text(encoding="utf-8").split("## What is not held")[1].split("\n## ")[0]
    rows = [line.split("|")[1] for line in section.splitlines() if line.startswith("| ")][1:]
    said = subprocess.run([*command, "--not-held"], capture_output=True, text=True, check=True).stdout
    entries = [line.split("|")[:3] for line in said.splitlines()]
    missing = [entry for entry in entries if not any(has(row, *entry) for row in rows)]
    listed = {name for name, _, _ in entries}
    spare = [row for row in rows if not names_of(row) or names_of(row) - listed]
    for entry in missing:
        print(f"not in the document: {entry}")
    for row in spare:
        print(f"not in the list: {row}")
    return 0 if entries and not missing and not spare else 1


if __name__ == "__main__":
    sys.exit(main())

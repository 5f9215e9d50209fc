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
LINK = re.compile(r"\[([^\]]*)\]\([^)]*\)")
# How the document says in which way a call fails.
WORDS_OF_WAYS = {"": "", " late": "late", " never returns": "never returns", " without doing anything": "has not written"}


def names_of(row):
    return set(NAME.findall(row)) | {name for name in ("any function", "no call") if f"({name})" in row}


def has(what, entry):
    name, way, route = entry
    return name in names_of(what) and WORDS_OF_WAYS[way] in what and (not route or f"route {route}" in what)


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


def not_held_is_right(document, command):
    """Of each row what is seen and why it stays are those of its entries, and its names theirs."""
    written = {(seen.strip(), LINK.sub(r"\1", why).strip()): what
               for what, seen, why in rows_of(document, "What is not held")}
    listed = {}
    for *entry, seen, why in lines_of(command, "--not-held"):
        listed.setdefault((seen, why), []).append(entry)
    wrong = [f"the row is in the {'document' if row in written else 'list'} alone: {row}"
             for row in written.keys() ^ listed.keys()]
    for row in written.keys() & listed.keys():
        what, entries = written[row], listed[row]
        wrong += [f"not in the row \"{what}\": {entry}" for entry in entries if not has(what, entry)]
        if names_of(what) != {name for name, _, _ in entries}:
            wrong.append(f"the row \"{what}\" names what no entry does")
        if "route " in what and not all(route for _, _, route in entries):
            wrong.append(f"the row \"{what}\" is of one route, its entries are of all")
    print(*wrong, sep="\n")
    return bool(listed) and not wrong


def main():
    document, command = pathlib.Path(sys.argv[1]).read_text(encoding="utf-8"), sys.argv[2:]
    sound = [not_held_is_right(document, command), left_out_is_right(document, command)]
    return 0 if all(sound) else 1


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Compares the lines that did not run with the list of those that need not.

usage: judge.py COVERAGE.json LIST REPORT

An entry of the list is "file :: code :: reason", the code as it stands in the line, without what is in front of it. So an
entry stays right when lines move, and falls out of use when its line changes. It stands for one line: two lines of a
file with the same code need two entries.
"""

import collections
import json
import pathlib
import sys

SEPARATOR = " :: "


def read_list(path):
    entries = collections.defaultdict(list)
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        parts = line.split(SEPARATOR)
        if len(parts) != 3 or not all(part.strip() for part in parts):
            sys.exit(f"{path}:{number}: an entry is \"file{SEPARATOR}code{SEPARATOR}reason\"")
        entries[(parts[0], parts[1])].append(parts[2])
    return entries


class File:
    def __init__(self, entry):
        self.name = entry["file"]
        lines = [line for line in entry["lines"] if not line.get("gcovr/noncode")]
        self.lines = len({line["line_number"] for line in lines})
        run = {line["line_number"] for line in lines if line["count"] > 0}
        self.not_run = sorted({line["line_number"] for line in lines} - run)
        branches = [branch for line in lines for branch in line["branches"]]
        self.branches = len(branches)
        self.branches_run = sum(1 for branch in branches if branch["count"] > 0)
        self.source = pathlib.Path(self.name).read_text(encoding="utf-8").splitlines()

    def code(self, number):
        return self.source[number - 1].strip()


def share(part, whole):
    return f"{100.0 * part / whole:5.1f} %" if whole else "    - "


def main():
    coverage, listed, report = (pathlib.Path(argument) for argument in sys.argv[1:4])
    entries = read_list(listed)
    files = [File(entry) for entry in json.loads(coverage.read_text(encoding="utf-8"))["files"]]
    unlisted = []
    with open(report, "w", encoding="utf-8") as out:
        for file in files:
            print(f"{share(file.lines - len(file.not_run), file.lines)} of {file.lines:4} lines  "
                  f"{share(file.branches_run, file.branches)} of {file.branches:4} branches  {file.name}")
            for number in file.not_run:
                key = (file.name, file.code(number))
                reason = entries[key].pop(0) if entries[key] else None
                out.write(f"{file.name}:{number}: {file.code(number)}{SEPARATOR}{reason or 'not listed'}\n")
                if reason is None:
                    unlisted.append(f"{file.name}:{number}: {file.code(number)}")
    for line in unlisted:
        print(f"NOT LISTED {line}")
    unused = sorted(key for key, reasons in entries.items() for _ in reasons)
    for name, code in unused:
        print(f"LISTED, BUT IT RUNS {name}{SEPARATOR}{code}")
    lines = sum(file.lines for file in files)
    not_run = sum(len(file.not_run) for file in files)
    branches = sum(file.branches for file in files)
    branches_run = sum(file.branches_run for file in files)
    print(f"{share(lines - not_run, lines).strip()} of {lines} lines, {share(branches_run, branches).strip()} of "
          f"{branches} branches; {not_run} lines did not run, {len(unlisted)} of them not listed")
    return 1 if unlisted or unused or not lines else 0


if __name__ == "__main__":
    sys.exit(main())

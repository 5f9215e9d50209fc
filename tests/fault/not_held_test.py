#!/usr/bin/env python3
"""The document of what is not held names each function of the list that the campaigns go by, and no other.

usage: not_held_test.py DOCUMENT COMMAND_OF_FAULT_CAMPAIGN ...
"""

import pathlib
import re
import subprocess
import sys

NAME = re.compile(r"`(\w+)`")


def main():
    document, command = pathlib.Path(sys.argv[1]), sys.argv[2:]
    section = document.read_text(encoding="utf-8").split("## What is not held")[1].split("\n## ")[0]
    rows = [line.split("|")[1] for line in section.splitlines() if line.startswith("| ")]
    written = {name for row in rows for name in NAME.findall(row)}
    said = subprocess.run([*command, "--not-held"], capture_output=True, text=True, check=True).stdout
    listed = {line.split(":")[0] for line in said.splitlines()} - {"any function"}
    for name in sorted(listed - written):
        print(f"not in the document: {name}")
    for name in sorted(written - listed):
        print(f"not in the list: {name}")
    return 0 if listed and listed == written else 1


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Runs the tests of the release build with the library that counts.

usage: run_tests.py LABELS BUILD_FOLDER

The programs are copied, and the counting library takes the place of theirs. They run one after the other: each adds
its counts to the same files.
"""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import time

# Whole jobs of the library that ships, in processes that end as a host does. What else runs whole jobs ends its
# processes at once, and those tell no counts.
ALSO = ("memory_faults", "memory_faults_with_log")
# Looks at what the library imports, and the one that counts imports more.
NEVER = ("simulator_test",)
COUNTING = ("CorvelToolKit.dll", "toolkit_internals.dll")
LONGEST_SECONDS = 900


def tests_with(labels):
    """Name and command of each test of the release build that has such a label, and runs one of its programs."""
    listing = subprocess.run(["ctest", "--preset", "mingw-release", "--show-only=json-v1"], check=True,
                             capture_output=True, text=True)
    for test in json.loads(listing.stdout)["tests"]:
        of_test = [label for entry in test.get("properties", []) if entry["name"] == "LABELS"
                   for label in entry["value"]]
        is_chosen = test["name"] in ALSO or any(re.fullmatch(labels, label) for label in of_test)
        if "full" in of_test or not is_chosen or test["name"] in NEVER:
            continue
        if any(part.endswith(".exe") for part in test.get("command", [])):
            yield test["name"], test["command"]


def copy_programs(release, build):
    programs = build / "run"
    shutil.rmtree(programs, ignore_errors=True)
    shutil.copytree(release, programs)
    for library in COUNTING:
        shutil.copy2(build / "bin" / library, programs / library)
    return programs


def run(name, command, logs):
    with open(logs / f"{name}.log", "w", encoding="utf-8") as log:
        # The counts lie on the build machine's drive, wherever a program has its current folder.
        environment = dict(os.environ, GCOV_PREFIX="Z:")
        try:
            return subprocess.run(command, stdout=log, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                  timeout=LONGEST_SECONDS, env=environment, check=False).returncode == 0
        except subprocess.TimeoutExpired:
            return False


def main():
    labels, build = sys.argv[1], pathlib.Path(sys.argv[2]).resolve()
    release = build.parent / "mingw-release" / "bin"
    programs = copy_programs(release, build)
    failed = []
    count = 0
    for name, command in tests_with(labels):
        began = time.monotonic()
        passed = run(name, [part.replace(str(release), str(programs)) for part in command], build / "logs")
        count += 1
        print(f"{'ok     ' if passed else 'FAILED '} {name}  {time.monotonic() - began:.0f} s", flush=True)
        if not passed:
            failed.append(name)
    print(f"{count} tests, {len(failed)} failed")
    return 1 if failed or count == 0 else 0


if __name__ == "__main__":
    sys.exit(main())

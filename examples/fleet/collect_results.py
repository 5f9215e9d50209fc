#!/usr/bin/env python3
"""Turns the JSON documents of corvel_cmdline from many PCs into one table.

Each document is what "corvel_cmdline flash --json" or "corvel_cmdline check --json" printed on one PC, in a file that
has the PC's name: PC-0815.json. The worst outcome comes first. The time of a document is that of its file.

Exit status: 0 every PC is flashed or ready, 1 some are not, 2 wrong usage.
"""

import argparse
import collections
import csv
import datetime
import json
import pathlib
import sys

# Of the documents that this program reads, and of the one that it prints: it grows when a field goes or changes.
READS = 1
VERSION = 1
COLUMNS = ("pc", "outcome", "code", "result", "attempts", "seconds", "time", "message")
# From the worst to the best; the last two are what one wants to see.
OUTCOMES = ("unreadable", "failed", "missing", "old", "not ready", "flashed", "ready")
GOOD = OUTCOMES[-2:]


def outcome_of(document):
    """In one word; a document that is neither a flash's nor a check's is unreadable."""
    if document.get("version") != READS:
        return "unreadable"
    if document.get("flashed") is True:
        return "flashed"
    if document.get("ready") is True:
        return "ready"
    error = document.get("error")
    if not isinstance(error, dict):
        return "unreadable"
    # A flash that was refused says no more than why; one that began tells its result.
    began = "flashed" in document or error.get("code") in ("timed_out", "interrupted", "internal")
    return "failed" if began else "not ready"


def why_unreadable(document):
    version = document.get("version")
    if isinstance(version, int) and version != READS:
        return f"a document of version {version}; this program reads version {READS}"
    return "no document of corvel_cmdline"


def told(error, cause):
    """What went wrong, and why when the log of the flash tells."""
    texts = [part.get("message", "") for part in (error, cause) if isinstance(part, dict)]
    return " ".join(text for text in texts if isinstance(text, str) and text)


def time_of(path):
    """To the second, with the zone."""
    return datetime.datetime.fromtimestamp(int(path.stat().st_mtime)).astimezone()


def row_of(path):
    row = dict.fromkeys(COLUMNS, "") | {"pc": path.stem}
    try:
        row["time"] = time_of(path).isoformat()
        # What PowerShell writes begins with a mark, of UTF-8 or of UTF-16.
        data = path.read_bytes()
        document = json.loads(data.decode("utf-16" if data[:2] in (b"\xff\xfe", b"\xfe\xff") else "utf-8-sig"))
    except (OSError, ValueError) as error:
        return row | {"outcome": "unreadable", "message": str(error)}
    if not isinstance(document, dict):
        return row | {"outcome": "unreadable", "message": "no document of corvel_cmdline"}
    error = document.get("error")
    if not isinstance(error, dict):
        error = {}
    row |= {name: document.get(name, "") for name in ("result", "attempts", "seconds")}
    outcome = outcome_of(document)
    message = why_unreadable(document) if outcome == "unreadable" else told(error, document.get("cause"))
    return row | {"outcome": outcome, "code": error.get("code", ""), "message": message}


def aged(row, since):
    """What an earlier wave left in the folder says nothing of this one."""
    if not since or not row["time"] or datetime.datetime.fromisoformat(row["time"]) >= since:
        return row
    return row | {"outcome": "old", "code": "", "message": f"older than {since.isoformat()}: {row['outcome']}"}


def missing(expected, rows):
    """Of the names in a file, a line for each, those without a document; Windows compares names of PCs so."""
    found = {row["pc"].casefold() for row in rows}
    names = (line.strip() for line in expected.read_text(encoding="utf-8-sig").splitlines())
    wanted = {name.casefold(): name for name in names if name and not name.startswith("#")}
    for folded, name in wanted.items():
        if folded not in found:
            yield dict.fromkeys(COLUMNS, "") | {"pc": name, "outcome": "missing", "message": "there is no document of it"}


def moment(text):
    time = datetime.datetime.fromisoformat(text)
    return time if time.tzinfo else time.astimezone()


def files_of(places):
    for place in places:
        yield from sorted(place.glob("*.json")) if place.is_dir() else [place]


def counts_of(rows):
    counts = collections.Counter(row["outcome"] for row in rows)
    return {outcome: counts[outcome] for outcome in OUTCOMES if counts[outcome]}


def print_json(rows):
    """What a row does not tell is left out of it."""
    told = [{name: value for name, value in row.items() if value != ""} for row in rows]
    print(json.dumps({"version": VERSION, "outcomes": counts_of(rows), "pcs": told}, indent=2))


def print_text(rows):
    widths = {name: max([len(name)] + [len(str(row[name])) for row in rows]) for name in COLUMNS}
    for row in [dict(zip(COLUMNS, COLUMNS))] + rows:
        print("  ".join(str(row[name]).ljust(widths[name]) for name in COLUMNS).rstrip())
    print("\n" + ", ".join(f"{count} {outcome}" for outcome, count in counts_of(rows).items()))


def main():
    parser = argparse.ArgumentParser(description="One table of the JSON results of many PCs.")
    parser.add_argument("places", nargs="+", type=pathlib.Path, metavar="PLACE",
                        help="a file NAME-OF-PC.json, or a folder of such")
    parser.add_argument("--expected", type=pathlib.Path, metavar="FILE",
                        help="names of the PCs that a document is expected of, one in a line")
    parser.add_argument("--since", type=moment, metavar="TIME",
                        help="when the wave began (2026-11-22T18:00): documents from before do not count")
    form = parser.add_mutually_exclusive_group()
    form.add_argument("--csv", action="store_true", help="print comma-separated values")
    form.add_argument("--json", action="store_true", help="print one JSON document (docs/collected.schema.json)")
    options = parser.parse_args()
    rows = [aged(row_of(path), options.since) for path in files_of(options.places)]
    if options.expected:
        try:
            rows += missing(options.expected, rows)
        except (OSError, ValueError) as error:
            parser.error(str(error))
    if not rows:
        parser.error("there is no *.json in " + ", ".join(map(str, options.places)))
    rows.sort(key=lambda row: (OUTCOMES.index(row["outcome"]), row["pc"]))
    if options.json:
        print_json(rows)
    elif options.csv:
        writer = csv.DictWriter(sys.stdout, COLUMNS, lineterminator="\n")
        writer.writeheader()
        writer.writerows(rows)
    else:
        print_text(rows)
    return 0 if all(row["outcome"] in GOOD for row in rows) else 1


if __name__ == "__main__":
    sys.exit(main())

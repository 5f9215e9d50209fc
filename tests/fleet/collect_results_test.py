#!/usr/bin/env python3
"""The collector of results, run as the program that it is.

usage: collect_results_test.py COLLECTOR DOCUMENTS
"""

import csv
import datetime
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

import jsonschema

DOCUMENTS = pathlib.Path(sys.argv.pop())
COLLECTOR = sys.argv.pop()

MOMENT = 1763820000
TIME = datetime.datetime.fromtimestamp(MOMENT).astimezone()
FLASHED = {"version": 1, "flashed": True, "result": 4, "meaning": "succeeded", "progress": 100, "attempts": 1, "seconds": 57,
           "images_deleted": True, "log": "C:\\Corvel\\FlashCommandLineLogger_DLL.log"}
FAILED = {"version": 1, "error": {"code": "flash_failed", "message": "The flash failed.", "what_to_do": "Flash again."},
          "flashed": False, "result": 3, "meaning": "failed", "progress": 48, "attempts": 4, "seconds": 541,
          "images_deleted": True, "log": "",
          "cause": {"message": "Could not download file(|0|)", "meaning": "An item.", "what_to_do": "Copy the images again."}}
INTERRUPTED = {"version": 1, "error": {"code": "interrupted", "message": "Interrupted.", "what_to_do": "-"},
               "images_deleted": False}
REFUSED = {"version": 1,
           "error": {"code": "battery_low", "message": "Not ready, power: it is low.", "what_to_do": "Charge it."}}
FINDING = {"subject": "power", "verdict": "ok", "code": "", "message": "on the mains", "what_to_do": ""}
READY = {"version": 1, "ready": True, "findings": [FINDING]}
NOT_READY = {"version": 1, "error": {"code": "no_images", "message": "Not ready, folder: none.", "what_to_do": "Copy them."},
             "ready": False, "findings": [FINDING]}


def validate(document, name):
    schema = json.loads((DOCUMENTS / f"{name}.schema.json").read_text())
    jsonschema.validate(document, schema, cls=jsonschema.Draft7Validator)


class CollectorTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def put(self, pc, document, encoding="utf-8"):
        text = document if isinstance(document, str) else json.dumps(document)
        file = self.folder / (pc + ".json")
        file.write_bytes(text.encode(encoding))
        os.utime(file, (MOMENT, MOMENT))

    def collect(self, *arguments):
        return subprocess.run([sys.executable, COLLECTOR, str(self.folder), *arguments], capture_output=True,
                              text=True, check=False)

    def rows(self):
        return {row["pc"]: row for row in csv.DictReader(self.collect("--csv").stdout.splitlines())}

    def test_tells_each_outcome(self):
        self.put("PC-1", FLASHED)
        self.put("PC-2", FAILED)
        self.put("PC-3", REFUSED)
        self.put("PC-4", READY)
        self.put("PC-5", NOT_READY)
        self.put("PC-6", INTERRUPTED)
        rows = self.rows()
        self.assertEqual({pc: row["outcome"] for pc, row in rows.items()},
                         {"PC-1": "flashed", "PC-2": "failed", "PC-3": "not ready", "PC-4": "ready",
                          "PC-5": "not ready", "PC-6": "failed"})
        self.assertEqual(rows["PC-2"], {"pc": "PC-2", "outcome": "failed", "code": "flash_failed", "result": "3",
                                        "attempts": "4", "seconds": "541",
                                        "time": TIME.isoformat(), "message": "The flash failed. Could not download file(|0|)"})

    def test_puts_the_worst_first(self):
        self.put("A", FLASHED)
        self.put("B", NOT_READY)
        self.put("C", FAILED)
        self.put("D", "{")
        lines = self.collect().stdout.splitlines()
        self.assertEqual([line.split()[0] for line in lines[1:5]], ["D", "C", "B", "A"])
        self.assertEqual(lines[-1], "1 unreadable, 1 failed, 1 not ready, 1 flashed")

    def test_ends_with_0_only_when_all_are_well(self):
        self.put("A", FLASHED)
        self.put("B", READY)
        self.assertEqual(self.collect().returncode, 0)
        self.put("C", REFUSED)
        self.assertEqual(self.collect().returncode, 1)

    def test_takes_what_powershell_writes(self):
        self.put("A", FLASHED, "utf-8-sig")
        self.put("B", FLASHED, "utf-16")
        self.assertEqual(self.collect().returncode, 0)

    def test_takes_nothing_else_for_a_document(self):
        for name, text in {"empty": "", "list": "[]", "number": "4", "other": '{"a": 1}', "bytes": "\u00e4"}.items():
            self.put(name, text, "latin-1")
        self.assertEqual({row["outcome"] for row in self.rows().values()}, {"unreadable"})
        self.assertEqual(len(self.rows()), 5)

    def test_is_tried_on_documents_as_they_are(self):
        for document in (FLASHED, FAILED, INTERRUPTED, REFUSED, READY, NOT_READY):
            validate(document, "hosts")

    def test_takes_no_document_of_a_version_that_it_does_not_know(self):
        self.put("A", FLASHED | {"version": 2})
        row = self.rows()["A"]
        self.assertEqual((row["outcome"], row["message"]),
                         ("unreadable", "a document of version 2; this program reads version 1"))

    def test_tells_the_same_in_json(self):
        self.put("A", FLASHED)
        self.put("B", FAILED)
        self.put("C", "{")
        self.put("D", READY)
        document = json.loads(self.collect("--json").stdout)
        validate(document, "collected")
        self.assertEqual(document["outcomes"], {"unreadable": 1, "failed": 1, "flashed": 1, "ready": 1})
        self.assertEqual([row["pc"] for row in document["pcs"]], ["C", "B", "A", "D"])
        self.assertEqual(document["pcs"][2], {"pc": "A", "outcome": "flashed", "result": 4, "attempts": 1, "seconds": 57,
                                                "time": TIME.isoformat()})

    def expect(self, names):
        """In a file beside the folder of the documents."""
        file = tempfile.NamedTemporaryFile("w", suffix=".txt")
        self.addCleanup(file.close)
        file.write(names)
        file.flush()
        return "--expected", file.name

    def test_misses_each_expected_pc_without_a_document(self):
        self.put("PC-1", FLASHED)
        self.assertEqual(self.collect(*self.expect("pc-1\n")).returncode, 0)
        result = self.collect("--json", *self.expect("# the wave\nPC-2\n\nPC-1\n"))
        self.assertEqual(result.returncode, 1)
        document = json.loads(result.stdout)
        validate(document, "collected")
        self.assertEqual(document["outcomes"], {"missing": 1, "flashed": 1})
        self.assertEqual(document["pcs"][0], {"pc": "PC-2", "outcome": "missing", "message": "there is no document of it"})

    def test_misses_all_where_there_is_no_document(self):
        result = self.collect(*self.expect("PC-1\nPC-2\n"))
        self.assertEqual((result.returncode, result.stdout.splitlines()[-1]), (1, "2 missing"))
        self.assertEqual(self.collect("--expected", "/nowhere").returncode, 2)

    def test_takes_no_document_of_an_earlier_wave(self):
        self.put("PC-1", FLASHED)
        self.assertEqual(self.collect("--since", TIME.isoformat()).returncode, 0)
        self.assertEqual(self.collect("--since", TIME.replace(tzinfo=None).isoformat()).returncode, 0)
        later = TIME + datetime.timedelta(seconds=1)
        result = self.collect("--json", "--since", later.isoformat())
        self.assertEqual(result.returncode, 1)
        document = json.loads(result.stdout)
        validate(document, "collected")
        self.assertEqual((document["pcs"][0]["outcome"], document["pcs"][0]["message"]),
                         ("old", f"older than {later.isoformat()}: flashed"))
        self.assertEqual(self.collect("--since", "yesterday").returncode, 2)

    def test_refuses_a_folder_without_results(self):
        self.assertEqual(self.collect().returncode, 2)


if __name__ == "__main__":
    unittest.main()

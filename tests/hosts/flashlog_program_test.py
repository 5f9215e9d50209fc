#!/usr/bin/env python3
"""corvel_flashlog as its users meet it: its JSON is as the schema says, whatever the log; how it follows one; how
it ends.

usage: flashlog_program_test.py SCHEMA SAMPLE PROGRAM WORD ...
"""
import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

import jsonschema

SCHEMA, SAMPLE, *PROGRAM = sys.argv[1:]


def run(*words, log=None):
    return subprocess.run([*PROGRAM, *words], input=log, capture_output=True, timeout=60, check=False)


class ProgramTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.schema = json.loads(pathlib.Path(SCHEMA).read_text())
        jsonschema.Draft7Validator.check_schema(cls.schema)
        cls.sample = pathlib.Path(SAMPLE).read_bytes()

    def report(self, log, *words):
        done = run("--json", *words, log=log)
        self.assertEqual(done.returncode, 0, done.stderr)
        document = json.loads(done.stdout)
        jsonschema.validate(document, self.schema, cls=jsonschema.Draft7Validator)
        return document

    def test_a_log_of_three_flashes(self):
        jobs = self.report(self.sample)["logs"][0]["jobs"]
        self.assertEqual([job["state"] for job in jobs], ["succeeded", "succeeded", "failed"])
        self.assertEqual([job["result"] for job in jobs], [4, 4, 3])
        error = jobs[2]["first_error"]
        self.assertIn("Could not download file", error["message"])
        self.assertIn("Copy the images again", error["what_to_do"])
        self.assertTrue(self.sample[error["offset"]:].startswith(b"#2026-11-15\t" + error["time"][11:].encode()))

    def test_an_empty_log(self):
        log = self.report(b"")["logs"][0]
        self.assertEqual((log["records"], log["start"], log["jobs"]), (0, None, []))

    def test_a_log_of_anything(self):
        noise = bytes(range(256)) * 200 + self.sample[:5000] + b"\xff\xfe\r\n" + self.sample[5500:9000]
        flaws = self.report(noise)["logs"][0]["flaws"]
        self.assertGreater(flaws["foreign"], 0)

    def test_a_log_that_is_cut_anywhere(self):
        for end in range(1000, len(self.sample), len(self.sample) // 3):
            self.report(self.sample[:end])

    def test_several_logs_are_told_one_after_the_other(self):
        document = self.report(self.sample, SAMPLE, "-")
        self.assertEqual(len(document["logs"]), 2)
        self.assertEqual(document["logs"][1]["name"], "standard input")

    def test_a_missing_log_does_not_lose_the_others(self):
        done = run("--json", "there-is-none.log", SAMPLE)
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"there-is-none.log cannot be read", done.stderr)
        self.assertEqual(len(json.loads(done.stdout)["logs"]), 1)

    def test_names_with_stars_stand_for_files(self):
        with tempfile.TemporaryDirectory() as folder:
            for name in "ab":
                pathlib.Path(folder, name + ".log").write_bytes(self.sample)
            self.assertEqual(len(self.report(b"", folder + "/*.log")["logs"]), 2)

    def test_a_page_that_cannot_be_written(self):
        done = run("--html", "/no/such/folder/page.html", SAMPLE)
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"cannot be written", done.stderr)

    def test_a_growing_log_is_followed_also_when_it_begins_anew(self):
        half = self.sample.index(b"Could not download file")
        with tempfile.TemporaryDirectory() as folder:
            log, page = pathlib.Path(folder, "growing.log"), pathlib.Path(folder, "page.html")
            log.write_bytes(self.sample[:half])
            with subprocess.Popen([*PROGRAM, "--follow", "--html", page, log], stdout=subprocess.PIPE,
                                  stdin=subprocess.DEVNULL) as program:
                self.addCleanup(program.stdout.close)
                try:
                    self.await_line(program, b"writing, attempt 1")
                    self.await_line(program, b"flash 2 succeeded")
                    self.await_line(program, b"flash 3 begins")
                    with log.open("ab") as more:
                        more.write(self.sample[half:])
                    self.await_line(program, b"error: Could not download file")
                    self.await_line(program, b"flash 3 failed")
                    log.write_bytes(self.sample[:half])
                    self.await_line(program, b"flash 4 begins")
                    self.assertIn(b"</html>", page.read_bytes())
                finally:
                    program.kill()

    def await_line(self, program, text):
        for line in program.stdout:
            if text in line:
                return
        self.fail(f"it never said {text}")

    def test_wrong_usage(self):
        done = run("--nonsense")
        self.assertEqual(done.returncode, 2)
        self.assertIn(b"--help", done.stderr)


unittest.main(argv=[sys.argv[0]])

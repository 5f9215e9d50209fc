#!/usr/bin/env python3
"""What scripts/coverage makes of counted lines and of its list.

usage: coverage_judge_test.py CHECKOUT
"""

import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

CHECKOUT = pathlib.Path(sys.argv.pop(1))
SOURCE = "int main() {\n  run();\n  fail();\n  again();\n  fail();\n}\n"


def line(number, count, branches=(), noncode=False):
    return {"line_number": number, "count": count, "gcovr/noncode": noncode,
            "branches": [{"count": taken} for taken in branches]}


class Judge(unittest.TestCase):
    def judge(self, lines, listed):
        with tempfile.TemporaryDirectory() as folder:
            folder = pathlib.Path(folder)
            (folder / "source.cpp").write_text(SOURCE, encoding="utf-8")
            (folder / "list").write_text(listed, encoding="utf-8")
            coverage = {"files": [{"file": "source.cpp", "lines": lines}]}
            (folder / "coverage.json").write_text(json.dumps(coverage), encoding="utf-8")
            done = subprocess.run([sys.executable, CHECKOUT / "tests/coverage/judge.py", "coverage.json", "list",
                                   "report"], cwd=folder, capture_output=True, text=True, check=False)
            return done.returncode, done.stdout + done.stderr

    def test_all_lines_run(self):
        status, said = self.judge([line(2, 1), line(3, 5)], "")
        self.assertEqual(status, 0, said)
        self.assertIn("100.0 % of 2 lines", said)

    def test_a_line_that_did_not_run_is_told(self):
        status, said = self.judge([line(2, 1), line(3, 0)], "# nothing\n")
        self.assertEqual(status, 1)
        self.assertIn("NOT LISTED source.cpp:3: fail();", said)
        self.assertIn("50.0 % of 2 lines", said)

    def test_a_listed_line_need_not_run(self):
        status, said = self.judge([line(2, 1), line(3, 0)], "source.cpp :: fail(); :: nothing fails\n")
        self.assertEqual(status, 0, said)
        self.assertIn("1 lines did not run, 0 of them not listed", said)

    def test_an_entry_of_another_file_excuses_nothing(self):
        self.assertEqual(self.judge([line(3, 0)], "other.cpp :: fail(); :: nothing fails\n")[0], 1)

    def test_an_entry_without_a_reason_is_refused(self):
        self.assertEqual(self.judge([line(3, 0)], "source.cpp :: fail(); ::  \n")[0], 1)

    def test_an_entry_of_a_line_that_runs_is_refused(self):
        status, said = self.judge([line(2, 1)], "source.cpp :: run(); :: it cannot\n")
        self.assertEqual(status, 1)
        self.assertIn("LISTED, BUT IT RUNS source.cpp :: run();", said)

    def test_an_entry_stands_for_one_line(self):
        entry = "source.cpp :: fail(); :: nothing fails\n"
        twice = [line(3, 0), line(5, 0)]
        self.assertEqual(self.judge(twice, entry)[0], 1)
        self.assertEqual(self.judge(twice, 2 * entry)[0], 0)

    def test_copies_of_a_line_count_once(self):
        status, said = self.judge([line(2, 0), line(2, 1)], "")
        self.assertEqual(status, 0, said)
        self.assertIn("100.0 % of 1 lines", said)

    def test_branches_are_counted(self):
        self.assertIn("50.0 % of 2 branches", self.judge([line(2, 1, (1, 0))], "")[1])

    def test_nothing_counted_is_no_success(self):
        self.assertEqual(self.judge([], "")[0], 1)


unittest.main()

#!/usr/bin/env python3
"""The script that lets PowerShell complete: whole as far as can be told without a PowerShell, and true to the help.

usage: cmdline_completion_test.py WORD ...      what runs corvel_cmdline
"""
import re
import subprocess
import sys
import unittest

from powershell_script import Script
from powershell_test import COMMANDS

RUNNER = sys.argv[1:]


def printed(*words):
    return subprocess.run([*RUNNER, *words], stdout=subprocess.PIPE, text=True, check=True, timeout=60).stdout


def options_of(help_text):
    """Names of options with whether a value follows: "  -h,--help  ..." or "  --log FILE  ..."."""
    return {name: bool(value) for name, value in re.findall(r"^  (?:-\w,)?(--[\w-]+)(?: (\S+))?", help_text, re.M)}


class CompletionTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        text = printed("completion", "powershell")
        cls.script = Script(text)
        tables = re.findall(r"^    '([^']*)' = @\(\n((?:      ,.*\n)*)    \)$", text, re.M)
        cls.places = {name: re.findall(r"^      ,@\('([^']+)', '", rows, re.M) for name, rows in tables}
        cls.verbs = re.findall(r"^  (\w+) ", printed("help").partition("Verbs:")[2], re.M)

    def test_is_a_whole_script(self):
        self.assertEqual(self.script.unset_variables(), set())
        self.assertEqual(self.script.called() - COMMANDS, set())

    def test_knows_each_verb(self):
        self.assertGreater(len(self.verbs), 5)
        self.assertEqual(self.places["help"], self.verbs)
        self.assertEqual(self.places[""], [*self.verbs, "help", *options_of(printed("help"))])

    def test_knows_each_option_and_no_other(self):
        with_values = set()
        for verb in self.verbs:
            with self.subTest(verb):
                options = options_of(printed("help", verb))
                self.assertIn("--log", options)
                self.assertEqual([word for word in self.places[verb] if word.startswith("--")], list(options))
                with_values |= {f"{verb} {name}" for name, takes in options.items() if takes}
        self.assertEqual({place for place in self.places if " " in place}, with_values)

    def test_knows_values(self):
        self.assertEqual(self.places["flash --ipc"], ["usb", "pcie"])
        self.assertEqual(self.places["flash --expect"], [])
        self.assertEqual([word for word in self.places["completion"] if not word.startswith("-")], ["powershell"])


unittest.main(argv=sys.argv[:1])

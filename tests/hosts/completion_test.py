#!/usr/bin/env python3
"""The scripts that let PowerShell complete: whole as far as can be told without a PowerShell, and true to the help.

usage: completion_test.py FOLDER [WORD ...]     where the programs lie, and what runs them
"""
import pathlib
import re
import subprocess
import sys
import unittest

from powershell_script import Script
from powershell_test import COMMANDS

FOLDER, RUNNER = pathlib.Path(sys.argv[1]), sys.argv[2:]


def options_of(help_text):
    """Names of options with whether a value follows: "  -h,--help  ..." or "  --log FILE  ..."."""
    return {name: bool(value) for name, value in re.findall(r"^  (?:-\w,)?(--[\w-]+)(?: (\S+))?", help_text, re.M)}


def options_among(words):
    return [word for word in words if word.startswith("--")]


class Program:
    """What a program tells of itself, by its help and by its script."""

    def __init__(self, name, *completion):
        self.name = name
        text = self.printed(*completion)
        self.script = Script(text)
        self.completes = re.search(r"-CommandName '(\w+)', '(\w+)\.exe'", text).groups()
        tables = re.findall(r"^    '([^']*)' = @\(\n((?:      ,.*\n)*)    \)$", text, re.M)
        self.places = {place: re.findall(r"^      ,@\('([^']+)', '", rows, re.M) for place, rows in tables}
        self.help = self.printed("--help")
        self.verbs = re.findall(r"^  (\w+) ", self.help.partition("Verbs:")[2].partition("\n\n")[0], re.M)

    def printed(self, *words):
        command = [*RUNNER, str(FOLDER / f"{self.name}.exe"), *words]
        return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True, timeout=60).stdout


class CompletionTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.cmdline = Program("corvel_cmdline", "completion", "powershell")
        cls.service = Program("corvel_service", "completion", "powershell")
        cls.flashlog = Program("corvel_flashlog", "--completion", "powershell")
        cls.all = (cls.cmdline, cls.service, cls.flashlog)

    def test_is_a_whole_script_for_its_own_program(self):
        for program in self.all:
            with self.subTest(program.name):
                self.assertEqual(program.script.unset_variables(), set())
                self.assertEqual(program.script.called() - COMMANDS, set())
                self.assertEqual(program.completes, (program.name, program.name))

    def test_knows_each_verb(self):
        for program in (self.cmdline, self.service):
            with self.subTest(program.name):
                self.assertGreater(len(program.verbs), 5)
                self.assertEqual(program.places["help"], program.verbs)
                self.assertEqual(program.places[""], [*program.verbs, "help", *options_of(program.help)])

    def test_knows_each_option_and_no_other(self):
        for program in (self.cmdline, self.service):
            with_values = set()
            for verb in program.verbs:
                with self.subTest(program.name, verb=verb):
                    options = options_of(program.printed("help", verb))
                    self.assertIn("--help", options)
                    self.assertEqual(options_among(program.places[verb]), list(options))
                    with_values |= {f"{verb} {name}" for name, takes in options.items() if takes}
            self.assertEqual({place for place in program.places if " " in place}, with_values)

    def test_knows_the_options_of_a_program_without_verbs(self):
        options = options_of(self.flashlog.help)
        self.assertIn("--follow", options)
        self.assertEqual(self.flashlog.places[""], list(options))
        with_values = {f" {name}" for name, takes in options.items() if takes}
        self.assertEqual(set(self.flashlog.places), {""} | with_values)

    def test_knows_values(self):
        self.assertEqual(self.cmdline.places["flash --ipc"], ["usb", "pcie"])
        self.assertEqual(self.cmdline.places["flash --expect"], [])
        self.assertEqual(self.service.places["install --start"], ["auto", "demand"])
        self.assertEqual(self.flashlog.places[" --completion"], ["powershell"])
        for program in (self.cmdline, self.service):
            words = program.places["completion"]
            self.assertEqual([word for word in words if not word.startswith("-")], ["powershell"])


unittest.main(argv=sys.argv[:1])

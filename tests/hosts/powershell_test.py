#!/usr/bin/env python3
"""What can be told of the PowerShell scripts where no PowerShell is: that texts and brackets end, that variables are set
before they are read, and that the controlling program says and does what the ones in C++ and C# do.

usage: powershell_test.py EXAMPLES CONTROLLER_H
"""
import pathlib
import re
import sys
import unittest

from powershell_script import BadScript, Script

# Of the shell itself, as far as the scripts use them.
COMMANDS = {"Add-Type", "Copy-Item", "ForEach-Object", "Get-FileHash", "Get-ItemProperty", "Join-Path", "New-Item", "New-Object",
            "Out-Null", "Register-ArgumentCompleter", "Remove-Item", "Select-Object", "Set-Content", "Set-ItemProperty",
            "Test-Path", "Where-Object", "Write-Output", "Write-Verbose"}


class ScriptTest(unittest.TestCase):
    def test_mistakes_are_found(self):
        for text in ("if (1) { 'a'", "'it's'", '"a', "@('a'))", "(1]", "@'\na", "<# a", '"$(1"', "@' a\n'@"):
            with self.subTest(text), self.assertRaises(BadScript):
                Script(text)
        script = Script("param([int] $a)\n$b, $c = $a; \"$d $(Get-E $f)\" # $g\n@'\n$h\n'@\n'it''s'; \"`\"$b\"\nforeach ($i in $c) { $i; $env:J; \"`$k\" }")
        self.assertEqual(script.unset_variables(), {"d", "f"})
        self.assertEqual(script.called(), {"Get-E"})
        self.assertIn("it's", script.texts)

    def test_examples(self):
        scripts = sorted(EXAMPLES.rglob("*.ps1"))
        self.assertGreater(len(scripts), 2)
        for path in scripts:
            with self.subTest(path.name):
                script = Script(path.read_text())
                self.assertEqual(script.unset_variables(), set())
                self.assertEqual(script.called() - script.defined() - COMMANDS, set())


class ControllersTest(unittest.TestCase):
    def setUp(self):
        self.cpp, self.cs, self.ps = ((EXAMPLES / "controller" / f"controller.{kind}").read_text() for kind in ("cpp", "cs", "ps1"))

    @staticmethod
    def sentences(texts):
        """Without what each language has in place of a number, a line's end or the error's own words (in C++ its number)."""
        plain = (re.sub(r"%u|\{\d\}", "N", text.replace("%%", "%")).replace("\\n", "").removesuffix(" $_").strip() for text in texts)
        return {text for text in plain if " " in text and not text.startswith(("usage", "SECONDS", "Error %lu.")) and not text.endswith("is missing.")}

    @staticmethod
    def literals(source):
        return re.findall(r'"((?:[^"\\]|\\.)*)"', re.sub(r"^\s*//.*$", "", source, flags=re.M))

    def test_say_the_same(self):
        expected = self.sentences(self.literals(self.cpp))
        self.assertEqual(len(expected), 9)
        self.assertEqual(self.sentences(self.literals(self.cs)), expected)
        self.assertEqual(self.sentences(Script(self.ps).texts), expected)

    def test_end_with_the_same_statuses(self):
        known = {text: status for status, text in re.findall(r'return \{(\d), "([^"]*)"\}', self.cpp)}
        self.assertEqual(len(known), 8)
        for source, end in ((self.cs, r"(?:return|Exit\() ?(\d)"), (self.ps, r"exit (\d)")):
            for text, status in {**known, "usage: ": "2"}.items():
                # How it flashed is told and returned at the end, by the result; how PowerShell ends on Ctrl+C is its own.
                if status in "01" or (source is self.ps and text.startswith("Interrupted")):
                    continue
                said = source.index('"' + text) if '"' + text in source else source.index("'" + text)
                self.assertEqual(re.search(end, source[said:])[1], status, text)
        self.assertIn("return result == 4 ? 0 : 1;", self.cs)
        self.assertIn("if ($result -eq 4) { exit 0 } else { exit 1 }", self.ps)

    def test_use_the_same_values_and_numbers(self):
        names = set(re.findall(r"\b(?:Fls|Flash|Time)_\w+", " ".join(self.literals(HEADER)))) - {"Flash_OnGoing"}
        for source in (self.cs, self.ps):
            self.assertEqual(set(re.findall(r"\b(?:Fls|Flash|Time)_\w+", source)), names)
            self.assertEqual(set(re.findall(r"\bHK[A-Z]+\b", source)), {"HKLM", "HKCU", "HKU"})
            for number in ("10000", "153000", "900", "1000000"):
                self.assertRegex(source, rf"\b{number}\b")
                self.assertRegex(HEADER + self.cpp, rf"\b{number}\b")
        self.assertEqual(set(re.findall(r'== L"(HK[A-Z]+)"|!= L"(HK[A-Z]+)"', HEADER)), {("HKCU", ""), ("HKU", ""), ("", "HKLM")})

    def test_watch_the_same(self):
        watch = (EXAMPLES / "controller" / "key_watch.cs").read_text()
        self.assertRegex(HEADER, r"\(\s*m_Key\.get\(\), TRUE, REG_NOTIFY_CHANGE_NAME \| REG_NOTIFY_CHANGE_LAST_SET,")
        self.assertIn("(key.Handle, true, NameAndLastSet,", watch)
        self.assertRegex(watch, r"NameAndLastSet = 1 \| 4;")
        for source in (HEADER, watch):
            self.assertIn("QueryUnbiasedInterruptTime(", source)
        for source in (self.cs, self.ps):
            self.assertNotIn("Stopwatch", source)


if __name__ == "__main__":
    EXAMPLES, HEADER = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]).read_text()
    unittest.main(argv=sys.argv[:1])

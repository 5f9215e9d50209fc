#!/usr/bin/env python3
"""The controlling program in C#: compiled as it ships, and its logic run on a stand-in of the registry.

usage: controller_test.py EXAMPLES CASES

EXAMPLES is the folder with the sources, CASES what every controlling program does. Needs Mono's compiler and runtime;
Mono keeps registry keys in files.
"""
import fcntl
import json
import os
import pathlib
import pty
import subprocess
import sys
import tempfile
import termios
import unittest

HERE = pathlib.Path(__file__).resolve().parent
KEY = r"HKCU\Software\Corvel\Test"


class ControllerTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        cls.program = os.path.join(cls.folder.name, "controller.exe")
        cls.compile(cls.program, EXAMPLES / "controller.cs", HERE / "key_watch.cs")

    @staticmethod
    def compile(program, *sources):
        subprocess.run(["mcs", "-warn:4", "-warnaserror", f"-out:{program}", *map(str, sources)], check=True)

    def flash(self, seconds=60, service="", left_behind="", key=KEY):
        with tempfile.TemporaryDirectory() as home:
            environment = {**os.environ, "HOME": home, "MONO_REGISTRY_PATH": home,
                           "PLAYED_SERVICE": service, "LEFT_BEHIND": left_behind}
            return subprocess.run(["mono", self.program, key, str(seconds)], env=environment, text=True,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=60)

    def test_compiles_with_the_real_watch(self):
        self.compile(os.path.join(self.folder.name, "real.exe"), EXAMPLES / "controller.cs", EXAMPLES / "key_watch.cs")

    def test_does_what_every_controlling_program_does(self):
        self.assertGreater(len(CASES["cases"]), 10)
        for case in CASES["cases"]:
            with self.subTest(case["name"]):
                done = self.flash(seconds=case.get("seconds", 60), service=" ".join(case["steps"]),
                                  left_behind=" ".join(case.get("left_behind", [])))
                self.assertEqual(done.returncode, case["exit"], done)
                for text in case["says"]:
                    self.assertIn(text, done.stdout + done.stderr)
                if "prints" in case:
                    self.assertEqual(done.stdout.splitlines()[:len(case["prints"])], case["prints"])
                self.assertIn(f"Fls_Ready is left at {case['flag']}, ", done.stdout)
                if "ms" in case:
                    self.assertIn(f", {case['ms']} ms after the last change", done.stdout)

    def test_its_limit_counts_from_the_request_and_its_silence_from_the_last_change(self):
        done = self.flash(seconds=8, service="Flash_Result=1@5000")
        self.assertIn("The time limit passed", done.stderr)
        self.assertIn("3000 ms after the last change, 8000 ms after the first look", done.stdout)
        done = self.flash(seconds=60, service="Flash_Result=1@9000 Flash_Progress=1@400", left_behind="Time_Out=500")
        self.assertIn("fell silent", done.stderr)
        self.assertIn("500 ms after the last change, 9900 ms after the first look", done.stdout)

    def interrupt(self, service, waited_for):
        """Ctrl+C on a terminal, the only one that Mono hears. Returns what the program left in the registry."""
        terminal, programs_end = pty.openpty()
        with tempfile.TemporaryDirectory() as home:
            environment = {**os.environ, "HOME": home, "MONO_REGISTRY_PATH": home, "PLAYED_SERVICE": service,
                           "TERM": "xterm"}
            with subprocess.Popen(["mono", self.program, KEY, "60"], env=environment, start_new_session=True,
                                  stdin=programs_end, stdout=programs_end, stderr=programs_end,
                                  preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0)) as program:
                os.close(programs_end)
                shown = self.read_until(terminal, waited_for)
                os.write(terminal, b"\x03")
                shown += self.read_until(terminal, None)
                self.assertEqual(program.wait(60), 3, shown)
            os.close(terminal)
            self.assertIn("Interrupted", shown)
            stored = list(pathlib.Path(home).rglob("values.xml"))
            self.assertEqual(len(stored), 1)
            return stored[0].read_text()

    @staticmethod
    def read_until(terminal, text):
        """To the end of the program where there is no text to wait for."""
        shown = ""
        while text is None or text not in shown:
            try:
                shown += os.read(terminal, 4096).decode()
            except OSError:
                break
        return shown

    def test_takes_the_request_back_when_it_is_interrupted_before_anybody_took_it(self):
        self.assertRegex(self.interrupt("hangs", "Flash_Result 0"), 'name="Fls_Ready"[^>]*>0<')

    def test_leaves_a_flash_alone_when_it_is_interrupted(self):
        self.assertRegex(self.interrupt("Flash_Result=1 hangs", "Flash_Result 1"), 'name="Fls_Ready"[^>]*>1<')

    def test_refuses_bad_words_before_it_asks_for_anything(self):
        for seconds in CASES["refused_seconds"]:
            done = self.flash(seconds=seconds)
            self.assertEqual(done.returncode, 2, seconds)
            self.assertIn("usage: controller HKLM\\KEY [SECONDS]\nSECONDS: 1 to 1000000\n", done.stderr)
            self.assertNotIn("Fls_Ready", done.stdout)
        for key in CASES["refused_keys"]:
            self.assertEqual(self.flash(key=key).returncode, 2, key)

    def test_knows_the_roots_that_a_service_may_be_met_at(self):
        for root in ("HKCU", "HKU"):
            self.assertEqual(self.flash(key=root + r"\Software\Corvel\Test", service="Flash_Result=4 Fls_Ready=0").returncode, 0, root)


if __name__ == "__main__":
    CASES = json.loads(pathlib.Path(sys.argv.pop()).read_text())
    EXAMPLES = pathlib.Path(sys.argv.pop())
    unittest.main()

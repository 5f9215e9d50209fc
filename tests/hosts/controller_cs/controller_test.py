#!/usr/bin/env python3
"""The controlling program in C#: compiled as it ships, and its logic run on a stand-in of the registry.

usage: controller_test.py EXAMPLES

EXAMPLES is the folder with the sources. Needs Mono's compiler and runtime; Mono keeps registry keys in files.
"""
import fcntl
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

    def flash(self, seconds="60", service="", left_behind="", key=KEY):
        with tempfile.TemporaryDirectory() as home:
            environment = {**os.environ, "HOME": home, "MONO_REGISTRY_PATH": home,
                           "PLAYED_SERVICE": service, "LEFT_BEHIND": left_behind}
            return subprocess.run(["mono", self.program, key, seconds], env=environment, text=True,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=60)

    def expect(self, done, status, text, flag):
        self.assertEqual(done.returncode, status, done.stdout + done.stderr)
        self.assertIn(text, done.stdout + done.stderr)
        self.assertIn(f"Fls_Ready is left at {flag}", done.stdout)

    def test_compiles_with_the_real_watch(self):
        self.compile(os.path.join(self.folder.name, "real.exe"), EXAMPLES / "controller.cs", EXAMPLES / "key_watch.cs")

    def test_tells_of_success_after_a_retry(self):
        done = self.flash(service="Flash_Result=0 Flash_Result=1 Flash_Result=2 Flash_Progress=100 Flash_Result=4 Fls_Ready=0")
        self.expect(done, 0, "Flash_Result 4: flashed", 0)
        self.assertIn("Flash_Result 2, 100 %", done.stdout)

    def test_tells_of_a_failure(self):
        self.expect(self.flash(service="Flash_Result=1 Flash_Result=3 Fls_Ready=0"), 1, "failed", 0)

    def test_takes_no_old_success_for_its_own(self):
        self.expect(self.flash(left_behind="Flash_Result=4", service="Fls_Ready=0"), 1, "the request was taken back", 0)

    def test_takes_the_request_back_when_nobody_took_it_whatever_an_old_result_says(self):
        for old in (0, 1, 2, 4):
            done = self.flash(seconds="1", left_behind=f"Flash_Result={old}")
            self.expect(done, 3, "Nobody took the request", 0)

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
        self.assertRegex(self.interrupt("", "Flash_Result 0"), 'name="Fls_Ready"[^>]*>0<')

    def test_leaves_a_flash_alone_when_it_is_interrupted(self):
        self.assertNotRegex(self.interrupt("Flash_Result=1", "Flash_Result 1"), 'name="Fls_Ready"[^>]*>0<')

    def test_leaves_a_flash_alone_when_its_time_is_up(self):
        self.expect(self.flash(seconds="1", service="Flash_Result=1"), 3, "The time limit passed", 1)

    def test_leaves_the_request_of_a_service_that_died_in_a_flash(self):
        done = self.flash(service="Flash_Result=2", left_behind="Time_Out=50")
        self.expect(done, 3, "The service fell silent", 1)

    def test_takes_the_request_of_a_service_that_died_before_the_flash_back(self):
        done = self.flash(service="Flash_Result=0", left_behind="Time_Out=50")
        self.expect(done, 3, "The service fell silent", 0)

    def test_refuses_bad_words_before_it_asks_for_anything(self):
        for seconds in ("", "0", "-1", "+5", " 5", "5s", "1000001", "18446744073709551617"):
            done = self.flash(seconds=seconds)
            self.assertEqual(done.returncode, 2, seconds)
            self.assertNotIn("Fls_Ready", done.stdout)
        for key in ("", "HKLM", "HKLM\\", "HKCR\\A", "SOFTWARE"):
            self.assertEqual(self.flash(key=key).returncode, 2, key)


if __name__ == "__main__":
    EXAMPLES = pathlib.Path(sys.argv.pop(1))
    unittest.main()

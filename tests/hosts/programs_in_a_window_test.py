#!/usr/bin/python3
"""The programs as a window of 40, 80 and 120 columns shows them: no word is broken, and the texts are those kept.

A pseudo terminal is the window; what is written there is interpreted as a terminal would.

usage: programs_in_a_window_test.py FOLDER TEXTS SAMPLE_LOG [--keep] [WORD ...]
FOLDER is where the programs lie, TEXTS where the kept texts do, WORD what runs the programs; --keep writes the texts
anew instead of comparing them.
"""
import fcntl
import os
import pathlib
import pty
import struct
import subprocess
import sys
import termios
import unittest

import pyte

FOLDER, TEXTS, SAMPLE = (pathlib.Path(word).resolve() for word in sys.argv[1:4])
KEEP = sys.argv[4:5] == ["--keep"]
RUNNER = sys.argv[5:] if KEEP else sys.argv[4:]

LINES = 250
WIDTHS = 40, 80, 120
SHOWN = {
    "cmdline_help": ("corvel_cmdline", "--help"),
    "cmdline_help_flash": ("corvel_cmdline", "help", "flash"),
    "cmdline_wrong_word": ("corvel_cmdline", "flahs"),
    "cmdline_doctor_list": ("corvel_cmdline", "doctor", "--list"),
    "service_help": ("corvel_service", "--help"),
    "service_help_install": ("corvel_service", "install", "--help"),
    "flashlog_help": ("corvel_flashlog", "--help"),
    "flashlog_table": ("corvel_flashlog", SAMPLE.name),
}


def shown(command, columns):
    """The lines that a window of so many columns shows, as one text."""
    ours, its = pty.openpty()
    fcntl.ioctl(its, termios.TIOCSWINSZ, struct.pack("HHHH", LINES, columns, 0, 0))
    process = subprocess.Popen(command, stdin=its, stdout=its, stderr=its, start_new_session=True,
                               cwd=SAMPLE.parent, env=os.environ | {"TERM": "xterm"})
    os.close(its)
    screen = pyte.Screen(columns, LINES)
    stream = pyte.ByteStream(screen)
    while True:
        try:
            data = os.read(ours, 65536)
        except OSError:  # Nobody has the other end any more.
            break
        if not data:
            break
        stream.feed(data)
    os.close(ours)
    process.wait(timeout=30)
    return "\n".join(line.rstrip() for line in screen.display).strip("\n") + "\n"


def printed(command):
    """The same where there is no window."""
    process = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False, timeout=60,
                             cwd=SAMPLE.parent)
    return process.stdout.decode()


class WindowTest(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.texts = {}
        for name, (program, *words) in SHOWN.items():
            for columns in WIDTHS:
                text = shown([*RUNNER, str(FOLDER / f"{program}.exe"), *words], columns)
                cls.texts[name, columns] = text
                if KEEP:
                    (TEXTS / f"{name}_{columns}.txt").write_text(text)

    def test_shows_what_is_kept(self):
        for (name, columns), text in self.texts.items():
            with self.subTest(name, columns=columns):
                self.assertEqual(text, (TEXTS / f"{name}_{columns}.txt").read_text())

    def test_breaks_no_word(self):
        # The table's columns are cut to the window, by rules of their own.
        for name in SHOWN.keys() - {"flashlog_table"}:
            program, *words = SHOWN[name]
            expected = printed([*RUNNER, str(FOLDER / f"{program}.exe"), *words]).split()
            for columns in WIDTHS:
                with self.subTest(name, columns=columns):
                    self.assertEqual(self.texts[name, columns].split(), expected)

    def test_live_line_of_the_simulator_fills_no_window(self):
        for columns in WIDTHS:
            with self.subTest(columns=columns):
                text = printed([*RUNNER, str(FOLDER / "modem_simulator.exe"), "--speed", "60", "--terminal", "--width",
                                str(columns)])
                live = [line.removesuffix("\n") for line in text.partition("Flash by route")[0].split("\r")]
                self.assertTrue(any(line.startswith("writing ") for line in live), text)
                self.assertLess(max(map(len, live)), columns)
                # It is cut to the window, and no shorter than it has to be.
                self.assertEqual(max(map(len, live)) == columns - 1, columns < 80)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])

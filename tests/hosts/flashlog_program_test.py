#!/usr/bin/env python3
"""corvel_flashlog as its users meet it: its JSON is as the schema says, whatever the log; how it follows one; how
it ends.

usage: flashlog_program_test.py SCHEMA SAMPLE PROGRAM WORD ...
"""
import contextlib
import json
import os
import pathlib
import pty
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import jsonschema

SCHEMA, SAMPLE, *PROGRAM = sys.argv[1:]
LONGEST_WAIT_SECONDS = 60


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
        self.assertEqual([job["failed_by"] for job in jobs[:2]], [None, None])
        # Two attempts broke off; the third one wrote all, and the modem did not come back.
        for error, message, advice in (
                (jobs[2]["first_error"], "Could not download file", "Copy the images again"),
                (jobs[2]["failed_by"], "Wait Modem re-arrival timeout", "Ask for the flash again")):
            self.assertIn(message, error["message"])
            self.assertIn(advice, error["what_to_do"])
            self.assertTrue(self.sample[error["offset"]:].startswith(b"#2026-11-15\t" + error["time"][11:].encode()))
            self.assertTrue(self.sample[error["offset"]:].split(b"##")[0].strip().endswith(error["message"].encode()))

    def test_a_flash_that_no_error_ends_is_told_by_its_stages(self):
        causes = re.compile(rb"#[^#]*Wait Modem re-arrival timeout[^#]*##\r\n")
        self.assertEqual(len(causes.findall(self.sample)), 2)
        ending = self.report(causes.sub(b"", self.sample))["logs"][0]["jobs"][2]["failed_by"]
        self.assertIsNone(ending["function"])
        self.assertEqual(ending["message"], "awaiting the modem ended after 23.0 s of 23 s, and no error tells why")
        self.assertIn("the modem did not come back", ending["meaning"])

    def test_the_table_tells_what_ended_a_flash_before_what_it_began_with(self):
        told = run("--width", "100", SAMPLE).stdout.decode()
        failed = told[told.index("failed at 100 %"):]
        self.assertLess(failed.index("Failed at 06:28:36.872"), failed.index("Ask for the flash again"))
        self.assertLess(failed.index("Ask for the flash again"), failed.index("First error at 06:27:46.475"))
        self.assertNotIn("Copy the images", failed)

    def test_an_empty_log(self):
        log = self.report(b"")["logs"][0]
        self.assertEqual((log["records"], log["start"], log["jobs"]), (0, None, []))

    def test_a_log_of_anything(self):
        noise = bytes(range(256)) * 200 + self.sample[:5000] + b"\xff\xfe\r\n" + self.sample[5500:9000]
        flaws = self.report(noise)["logs"][0]["flaws"]
        self.assertGreater(flaws["foreign"], 0)

    def test_zeros_of_a_power_cut_lose_nothing_behind_them(self):
        place = self.sample.rindex(b"#2026", 0, self.sample.index(b"flash flag changed to 1"))
        whole = self.report(self.sample)["logs"][0]
        log = self.report(self.sample[:place] + bytes(70_000) + self.sample[place:])["logs"][0]
        self.assertEqual(log["flaws"], {"foreign": 1, "malformed": 0, "truncated": 0, "cut": 0})
        self.assertEqual((log["flawed_bytes"], log["first_flaw_offset"]), (70_000, place))
        self.assertEqual(log["records"], whole["records"])
        self.assertEqual([job["records"] for job in log["jobs"]], [job["records"] for job in whole["jobs"]])
        told = run("-", log=self.sample[:place] + bytes(70_000) + self.sample[place:]).stdout
        self.assertIn(b"Not in order: 1 foreign line; 70 kB, the first at byte %d" % place, b" ".join(told.split()))

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

    def test_a_copy_in_utf_16_is_told_and_loses_no_other_log(self):
        for mark, encoding in ((b"\xff\xfe", "utf-16-le"), (b"\xfe\xff", "utf-16-be")):
            copy = mark + self.sample.decode("latin-1").encode(encoding)
            done = run("--json", "-", SAMPLE, log=copy)
            self.assertEqual(done.returncode, 1)
            told = b" ".join(done.stderr.split())
            self.assertIn(b"standard input is a copy in UTF-16", told)
            self.assertIn(b"Get-Content COPY | Set-Content LOG", told)
            self.assertEqual([len(log["jobs"]) for log in json.loads(done.stdout)["logs"]], [3])
            done = run("--follow", "-", log=copy)
            self.assertEqual(done.returncode, 1)
            self.assertEqual(done.stderr.count(b"UTF-16"), 1)
            self.assertEqual(run(log=copy).stdout, b"")

    def test_names_with_stars_stand_for_files(self):
        with tempfile.TemporaryDirectory() as folder:
            for name in "ab":
                pathlib.Path(folder, name + ".log").write_bytes(self.sample)
            self.assertEqual(len(self.report(b"", folder + "/*.log")["logs"]), 2)

    def test_a_page_that_cannot_be_written(self):
        done = run("--html", "/no/such/folder/page.html", SAMPLE)
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"cannot be written", done.stderr)

    def test_a_page_that_cannot_be_written_leaves_no_draft(self):
        with tempfile.TemporaryDirectory() as folder:
            page = pathlib.Path(folder, "page.html")
            page.mkdir()
            done = run("--html", page, SAMPLE)
            self.assertEqual(done.returncode, 1)
            self.assertEqual(list(pathlib.Path(folder).iterdir()), [page])

    def refuses(self, *words, folder):
        """Wrong usage that is told with what to do, and that leaves all files as they are."""
        before = {path.name: path.read_bytes() for path in pathlib.Path(folder).iterdir()}
        done = subprocess.run([*PROGRAM, *words], input=self.sample, capture_output=True, timeout=60, check=False,
                              cwd=folder)
        self.assertEqual(done.returncode, 2, done.stderr)
        self.assertIn(b"Name the page directly behind --html", done.stderr)
        self.assertEqual({path.name: path.read_bytes() for path in pathlib.Path(folder).iterdir()}, before)
        return done.stderr

    def test_a_page_never_takes_the_place_of_a_log(self):
        with tempfile.TemporaryDirectory() as folder:
            for name in ("a.log", "b.log"):
                pathlib.Path(folder, name).write_bytes(self.sample)
            pathlib.Path(folder, "link.log").hardlink_to(pathlib.Path(folder, "a.log"))
            # The page's name forgotten.
            self.refuses("--html", "a.log", "b.log", folder=folder)
            self.assertIn(b"a.log is no page", self.refuses("--html", "a.log", folder=folder))
            for words in (("a.log",), ("A.LOG",), ("link.log",), ("./a.log",), ("*.log",)):
                told = self.refuses("--html", "a.log", *words, folder=folder)
                self.assertIn(b"a.log is to be the page and is a log to read, too", told)
            self.refuses("--follow", "--html", "later.log", "later.log", folder=folder)

    def test_a_page_takes_the_place_of_a_page_and_of_no_draft(self):
        with tempfile.TemporaryDirectory() as folder:
            page, draft = pathlib.Path(folder, "page.html"), pathlib.Path(folder, "page.html.new")
            draft.write_bytes(b"precious")
            self.assertEqual(run("--html", page, SAMPLE).returncode, 0)
            first = page.read_bytes()
            self.assertEqual(run("--html", page, SAMPLE, SAMPLE).returncode, 0)
            self.assertGreater(len(page.read_bytes()), len(first))
            self.assertEqual(draft.read_bytes(), b"precious")
            self.assertEqual(len(list(pathlib.Path(folder).iterdir())), 2)

    def test_a_log_that_breaks_off_is_shown_and_is_no_success(self):
        half = self.sample[:self.sample.index(b"Could not download file")]
        with tempfile.TemporaryDirectory() as folder:
            page = pathlib.Path(folder, "page.html")
            with self.broken_input(half) as log:
                done = subprocess.run([*PROGRAM, "--json", "--html", page], stdin=log, capture_output=True,
                                      timeout=LONGEST_WAIT_SECONDS, check=False)
            self.assertIn(b'"broke_off":"', page.read_bytes())
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"standard input cannot be read beyond byte %d" % len(half), done.stderr)
        document = json.loads(done.stdout)
        jsonschema.validate(document, self.schema, cls=jsonschema.Draft7Validator)
        self.assertTrue(document["logs"][0]["broke_off"])
        self.assertEqual(len(document["logs"][0]["jobs"]), 3)

    def test_a_log_that_breaks_off_while_it_is_followed_is_no_success(self):
        with self.broken_input(self.sample) as log:
            done = subprocess.run([*PROGRAM, "--follow"], stdin=log, capture_output=True,
                                  timeout=LONGEST_WAIT_SECONDS, check=False)
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"flash 3 failed", done.stdout)
        self.assertEqual(done.stderr.count(b"cannot be read beyond byte"), 1)

    @staticmethod
    def broken_input(text):
        """Something to read from that fails behind the text: its other end goes away with something unread."""
        reader, writer = socket.socketpair()
        writer.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 2 * len(text))
        writer.settimeout(LONGEST_WAIT_SECONDS)
        writer.sendall(text)
        reader.sendall(b"unread")
        writer.close()
        return reader

    def test_a_pipe_is_followed_while_it_is_open(self):
        half = self.sample.index(b"Could not download file")
        with tempfile.TemporaryDirectory() as folder:
            page = pathlib.Path(folder, "page.html")
            with self.follow("--html", page, "-", stdin=subprocess.PIPE) as program:
                program.stdin.write(self.sample[:half])
                program.stdin.flush()
                self.await_line(program, b"flash 3 begins")
                self.await_page(page, b'"state":"running"')
                program.stdin.write(self.sample[half:])
                program.stdin.close()
                self.await_line(program, b"flash 3 failed")
                self.assertEqual(program.wait(LONGEST_WAIT_SECONDS), 0)
            self.assertNotIn(b'"state":"running"', page.read_bytes())

    def test_a_log_that_is_not_there_is_told_once_and_followed_when_it_comes(self):
        with tempfile.TemporaryDirectory() as folder:
            log = pathlib.Path(folder, "later.log")
            with self.follow(log, SAMPLE, stderr=subprocess.PIPE) as program:
                self.assertIn(b"later.log cannot be opened: ", program.stderr.readline())
                self.assertIn(b"Look at the name", program.stderr.readline())
                self.await_line(program, b"flash 3 failed")
                log.write_bytes(self.sample)
                self.await_line(program, b"flash 3 failed")
                program.kill()
                self.assertEqual(program.stderr.read(), b"")

    def test_following_a_log_that_never_came_is_no_success(self):
        with self.follow("there-is-none.log", stderr=subprocess.PIPE, start_new_session=True) as program:
            self.assertIn(b"cannot be opened", program.stderr.readline())
            os.killpg(program.pid, signal.SIGINT)
            self.assertEqual(program.wait(LONGEST_WAIT_SECONDS), 1)

    def test_following_a_log_until_ctrl_c_is_a_success(self):
        with self.follow(SAMPLE, start_new_session=True) as program:
            self.await_line(program, b"flash 3 failed")
            os.killpg(program.pid, signal.SIGINT)
            self.assertEqual(program.wait(LONGEST_WAIT_SECONDS), 0)

    def test_without_words_on_a_console_it_says_what_it_reads(self):
        keyboard, terminal = pty.openpty()
        with tempfile.TemporaryFile() as told_there:
            with subprocess.Popen(PROGRAM, stdin=terminal, stdout=told_there, stderr=told_there,
                                  start_new_session=True) as program:
                end = time.monotonic() + LONGEST_WAIT_SECONDS
                told = b""
                while time.monotonic() < end and told.count(b"\n") < 2:
                    time.sleep(0.05)
                    told = os.pread(told_there.fileno(), 10_000, 0)
                # With the console that Wine gives it.
                os.killpg(program.pid, signal.SIGKILL)
        os.close(terminal)
        os.close(keyboard)
        self.assertIn(b"No log is named, so standard input is read", told)
        self.assertIn(b"corvel_flashlog FlashServiceDebugLogger_DLL.log", told)

    def test_without_words_at_a_pipe_it_says_nothing(self):
        self.assertEqual(run(log=self.sample).stderr, b"")

    def test_an_open_pipe_holds_no_other_log_up(self):
        with self.follow("-", SAMPLE, stdin=subprocess.PIPE) as program:
            self.await_line(program, b"flash 3 failed")

    def test_a_page_that_cannot_be_written_for_a_while_is_written_later(self):
        with tempfile.TemporaryDirectory() as folder:
            page = pathlib.Path(folder, "later", "page.html")
            with self.follow("--html", page, SAMPLE, stderr=subprocess.PIPE) as program:
                self.assertIn(b"The page ", program.stderr.readline())
                page.parent.mkdir()
                self.await_page(page, b"</html>")

    @staticmethod
    @contextlib.contextmanager
    def follow(*words, **how):
        """The program on its way; killed at the end, for nobody presses Ctrl+C, and when that does not come."""
        with subprocess.Popen([*PROGRAM, "--follow", *words], stdout=subprocess.PIPE,
                              **{"stdin": subprocess.DEVNULL, **how}) as program:
            late = threading.Timer(LONGEST_WAIT_SECONDS, program.kill)
            late.start()
            try:
                yield program
            finally:
                late.cancel()
                program.kill()

    def await_page(self, page, text):
        end = time.monotonic() + LONGEST_WAIT_SECONDS
        while time.monotonic() < end:
            if page.exists() and text in page.read_bytes():
                return
            time.sleep(0.05)
        self.fail(f"the page never had {text}")

    def test_a_growing_log_is_followed_also_when_it_begins_anew(self):
        half = self.sample.index(b"Could not download file")
        with tempfile.TemporaryDirectory() as folder:
            log, page = pathlib.Path(folder, "growing.log"), pathlib.Path(folder, "page.html")
            log.write_bytes(self.sample[:half])
            with self.follow("--html", page, log) as program:
                self.await_line(program, b"writing, attempt 1")
                self.await_line(program, b"flash 2 succeeded")
                self.await_line(program, b"flash 3 begins")
                with log.open("ab") as more:
                    more.write(self.sample[half:])
                self.await_line(program, b"error: Could not download file")
                self.await_line(program, b"flash 3 failed")
                self.await_line(program, b"failed by: Wait Modem re-arrival timeout")
                self.await_line(program, b"do: Ask for the flash again")
                log.write_bytes(self.sample[:half])
                self.await_line(program, b"flash 4 begins")
                self.assertIn(b"</html>", page.read_bytes())

    def await_line(self, program, text):
        for line in program.stdout:
            if text in line:
                return
        self.fail(f"it never said {text}")

    def test_help_says_what_may_be_left_out_and_what_comes_again(self):
        done = run("--help")
        self.assertEqual(done.returncode, 0)
        self.assertIn(b"Usage: corvel_flashlog [OPTIONS] [FILE...]", done.stdout)
        self.assertIn(b"--width COUNT ", done.stdout)

    def test_wrong_usage(self):
        for words, told in (
                (("--folow", SAMPLE), b'"--folow" is no option of corvel_flashlog. Did you mean "--follow"?'),
                (("--xyzzy",), b'"--xyzzy" is no option of corvel_flashlog. See "corvel_flashlog --help".'),
                (("--records", "-5"), b'--records: "-5" is no number from 0 to 1000000. See "corvel_flashlog --help".'),
                (("--width", "wide"), b'--width: "wide" is no number from 20 to 1000. See "corvel_flashlog --help".'),
                (("--html",), b'--html needs a value. See "corvel_flashlog --help".')):
            with self.subTest(words):
                done = run(*words)
                self.assertEqual(done.returncode, 2)
                self.assertIn(told, b" ".join(done.stderr.split()))


unittest.main(argv=[sys.argv[0]])

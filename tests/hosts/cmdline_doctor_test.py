#!/usr/bin/env python3
"""What "corvel_cmdline doctor" puts into its archive: what its list says and what the page says, and nothing else.

usage: cmdline_doctor_test.py PAGE SCHEMA FOLDER WORD ...
  PAGE     docs/doctor.md
  SCHEMA   docs/hosts.schema.json
  FOLDER   of the programs
  WORD     what runs a program
"""
import fnmatch
import json
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
import zipfile

import jsonschema

PAGE, SCHEMA, PROGRAMS, *RUNNER = sys.argv[1:]
SERVICE_LOG, COMMAND_LINE_LOG = "FlashServiceDebugLogger_DLL", "FlashCommandLineLogger_DLL"
# What lies beside the programs and goes in, and what lies there and must not.
LOGS = {f"{SERVICE_LOG}.log": b"the last one\r\n", f"{SERVICE_LOG}_2026-11-15_23-04-11.log": bytes(range(256)) * 300,
        f"{SERVICE_LOG}_failed_start.log": b"", f"{COMMAND_LINE_LOG}.log": "\u00e4".encode() * 70000}
OTHERS = {f"{SERVICE_LOG}_my notes.log": b"mine", "CorvelFlashHistory.txt": b"history", "notes.txt": b"mine"}
CONFIGURATION = b"Title\r\n[RegistryLocation]=HKCU\\Software\\Corvel\\Test\\Doctor\r\n"


class Installation:
    """The command line in a folder of its own, beside what goes in and what must not."""

    def __init__(self):
        # The runner knows what to do by the build folder.
        self.kept = tempfile.TemporaryDirectory(dir=pathlib.Path(PROGRAMS).parent)
        self.folder = pathlib.Path(self.kept.name)
        for name in ("corvel_cmdline.exe", "CorvelToolKit.dll", "Firmwareflashdownload.dll"):
            shutil.copy(pathlib.Path(PROGRAMS, name), self.folder)
        for name, content in {**LOGS, **OTHERS, "CorvelConfig.ini": CONFIGURATION}.items():
            (self.folder / name).write_bytes(content)

    def run_doctor(self, *words):
        return subprocess.run([*RUNNER, str(self.folder / "corvel_cmdline.exe"), "doctor", *words], cwd=self.folder,
                              capture_output=True, timeout=150, check=False)

    def document(self, *words):
        done = self.run_doctor("--json", *words)
        if (done.returncode, done.stderr) != (0, b""):
            raise AssertionError(done)
        return json.loads(done.stdout)

    def made_archive(self):
        (archive,) = self.folder.glob("corvel_doctor_*.zip")
        return zipfile.ZipFile(archive)


def document_in(archive, name):
    """A document of the archive, as the schema says that one of its kind is."""
    document = json.loads(archive.read(name))
    schema = json.loads(pathlib.Path(SCHEMA).read_text())
    kind = {"$ref": f"#/definitions/{pathlib.Path(name).stem}", "definitions": schema["definitions"]}
    jsonschema.validate(document, schema, cls=jsonschema.Draft7Validator)
    jsonschema.validate(document, kind, cls=jsonschema.Draft7Validator)
    return document


class ArchiveTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.installation = Installation()
        cls.addClassCleanup(cls.installation.kept.cleanup)
        cls.listed = cls.installation.document("--list")["contents"]
        cls.told = cls.installation.document()

    def test_the_page_says_what_the_program_says(self):
        rows = re.findall(r"^\| `([^`]+)` \| (.*) \|$", pathlib.Path(PAGE).read_text(), re.M)
        listed = [(row["name"], row["what"]) for row in self.listed]
        self.assertGreater(len(listed), 7)
        self.assertEqual(rows, listed)

    def test_the_archive_holds_what_the_list_says_and_nothing_else(self):
        patterns = [row["name"] for row in self.listed]
        with self.installation.made_archive() as archive:
            self.assertIsNone(archive.testzip())
            names = archive.namelist()
            for name in names:
                self.assertEqual(sum(fnmatch.fnmatchcase(name, pattern) for pattern in patterns), 1, name)
            for pattern in patterns:
                self.assertTrue(fnmatch.filter(names, pattern), pattern)
            self.assertEqual(self.told["files"], [{"name": each.filename, "bytes": each.file_size} for each in archive.infolist()])
            self.assertEqual(self.told["left_out"], [])

    def test_files_go_in_as_they_are(self):
        with self.installation.made_archive() as archive:
            for name, content in LOGS.items():
                self.assertEqual(archive.read("logs/" + name), content, name)
            self.assertEqual(archive.read("CorvelConfig.ini"), CONFIGURATION)
            logs = [name for name in archive.namelist() if name.startswith("logs/")]
            self.assertEqual(len(logs), len(LOGS))
            self.assertGreater(archive.getinfo("CorvelConfig.ini").date_time[0], 2000)

    def test_what_a_look_finds(self):
        with self.installation.made_archive() as archive:
            check = document_in(archive, "check.json")
            self.assertFalse(check["ready"])
            self.assertEqual(check["error"]["code"], "no_folder_configured")
            handshake = document_in(archive, "handshake.json")
            self.assertEqual(handshake["service"]["key"], "HKCU\\Software\\Corvel\\Test\\Doctor")
            self.assertEqual(len(handshake["command_line"]["values"]), 6)
            self.assertRegex(archive.read("versions.txt").decode(),
                             r"corvel_cmdline\.exe: version \d+\.\d+\.\d+\.0, \d{5,} bytes\r\n")
            self.assertIn(b"corvel_service.exe: ", archive.read("versions.txt"))
            self.assertIn(b"Modem: absent\r\n", archive.read("devices.txt"))


class OtherFoldersTest(unittest.TestCase):
    def setUp(self):
        self.installation = Installation()
        self.addCleanup(self.installation.kept.cleanup)

    def test_what_is_not_there_is_told_of(self):
        for name in [*LOGS, "CorvelConfig.ini"]:
            (self.installation.folder / name).unlink()
        told = self.installation.document()
        self.assertEqual({row["name"] for row in told["left_out"]},
                         {"CorvelConfig.ini", f"logs/{SERVICE_LOG}.log", f"logs/{COMMAND_LINE_LOG}.log"})
        with self.installation.made_archive() as archive:
            self.assertIn(b"Left out: CorvelConfig.ini: ", archive.read("contents.txt"))
            self.assertIsNone(document_in(archive, "handshake.json")["service"])

    def test_people_are_told_and_no_file_is_written_over(self):
        folder = self.installation.folder
        done = self.installation.run_doctor("--output", "for_support.zip")
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        self.assertIn(b"for_support.zip\r\n  check.json, ", done.stdout)
        made = (folder / "for_support.zip").read_bytes()
        self.assertTrue(zipfile.is_zipfile(folder / "for_support.zip"))

        done = self.installation.run_doctor("--json", "--output", "for_support.zip")
        self.assertEqual(done.returncode, 4)
        self.assertEqual(json.loads(done.stdout)["error"]["code"], "archive_unwritable")
        self.assertEqual((folder / "for_support.zip").read_bytes(), made)
        self.assertFalse((folder / "for_support.zip.new").exists())

    def test_a_large_log_goes_in_from_a_record_near_its_end(self):
        name, most = f"{SERVICE_LOG}.log", 64 * 1024 * 1024
        part, record = b"of a record that is cut ##\r\n", b"#2026-11-15\tthe next one, \r\nin two lines##\r\n"
        with open(self.installation.folder / name, "wb") as log:
            log.write(b"#the first one##\r\n")
            log.seek(1024 * 1024)
            log.write(part + record)
            log.truncate(most + 1024 * 1024)
        told = self.installation.document()
        out = 1024 * 1024 + len(part)
        self.assertEqual(told["left_out"], [{"name": "logs/" + name, "why": f"its first {out} bytes, because the file is larger than 64 MiB"}])
        with self.installation.made_archive() as archive:
            taken = archive.read("logs/" + name)
            self.assertEqual(len(taken), most - len(part))
            self.assertTrue(taken.startswith(record))
            self.assertIn(f"Left out: logs/{name}: its first {out} bytes".encode(), archive.read("contents.txt"))


unittest.main(argv=[sys.argv[0]])

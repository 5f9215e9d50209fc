#!/usr/bin/env python3
"""What scripts/package made: programs and libraries as they ship, with their symbols beside them.

usage: shipped_test.py SCRATCH_OF_REPRODUCIBLE_TEST ARTEFACT_TEST OBJCOPY OBJDUMP [EMULATOR]
  ARTEFACT_TEST  looks at the files beside itself
  EMULATOR       what runs it
"""
import os
import pathlib
import shutil
import struct
import subprocess
import sys
import unittest
import zipfile
import zlib

SCRATCH, ARTEFACT_TEST = (pathlib.Path(word).resolve() for word in sys.argv[1:3])
OBJCOPY, OBJDUMP, *EMULATOR = sys.argv[3:]
MADE = SCRATCH / "made"


def run(*command, **options):
    return subprocess.run([str(word) for word in command], check=True, capture_output=True, text=True, **options).stdout


def extracted(pattern, name):
    """The files of the one ZIP with such a name, without their common folder."""
    archive, = MADE.glob(pattern)
    with zipfile.ZipFile(archive) as file:
        file.extractall(SCRATCH / name)
    return SCRATCH / name / archive.stem


def sections_of(file):
    return {words[1] for line in run(OBJDUMP, "-h", file).splitlines() if len(words := line.split()) > 6}


class Shipped(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        for name in ("files", "symbols", "installer", "looked at"):
            shutil.rmtree(SCRATCH / name, ignore_errors=True)
        cls.files = extracted("*-x64.zip", "files")
        cls.symbols = extracted("*-symbols.zip", "symbols")
        cls.programs = sorted([*(cls.files / "bin").glob("*.exe"), *(cls.files / "bin").glob("*.dll")])

    def symbols_of(self, program):
        return self.symbols / "bin" / f"{program.name}.debug"

    def test_there_are_programs_and_the_library(self):
        self.assertEqual([program.name for program in self.programs],
                         ["CorvelToolKit.dll", "corvel_cmdline.exe", "corvel_flashlog.exe", "corvel_service.exe"])

    def test_symbols_lie_in_files_of_their_own(self):
        self.assertEqual(sorted(path.name for path in self.symbols.rglob("*") if path.is_file()),
                         sorted(f"{program.name}.debug" for program in self.programs))
        for program in self.programs:
            with self.subTest(program.name):
                self.assertIn(".debug_info", sections_of(self.symbols_of(program)))
                self.assertNotIn(".debug_info", sections_of(program))

    def test_programs_name_their_symbols(self):
        for program in self.programs:
            with self.subTest(program.name):
                link = SCRATCH / "link"
                link.unlink(missing_ok=True)
                run(OBJCOPY, "--dump-section", f".gnu_debuglink={link}", program, SCRATCH / "copied")
                name, _, rest = link.read_bytes().partition(b"\0")
                self.assertEqual(name.decode(), self.symbols_of(program).name)
                # The checksum begins at the next multiple of four.
                digest, = struct.unpack_from("<I", link.read_bytes(), (len(name) + 4) // 4 * 4)
                self.assertEqual(digest, zlib.crc32(self.symbols_of(program).read_bytes()))

    def test_nothing_says_where_it_was_built(self):
        for program in self.programs:
            for file in (program, self.symbols_of(program)):
                with self.subTest(file.name):
                    self.assertFalse(str(SCRATCH).encode() in file.read_bytes())

    def test_installer_brings_the_same_files(self):
        installer, = MADE.glob("*.msi")
        run("msiextract", "-C", SCRATCH / "installer", installer)
        held = {path.name: path for path in (SCRATCH / "installer").rglob("*")}
        for program in self.programs:
            self.assertTrue(held[program.name].read_bytes() == program.read_bytes(), program.name)

    def test_files_are_as_the_builds_for_tests_are(self):
        folder = SCRATCH / "looked at"
        shutil.copytree(self.files / "bin", folder)
        shutil.copytree(self.symbols / "bin", folder, dirs_exist_ok=True)
        shutil.copytree(ARTEFACT_TEST.parent / "artefact", folder / "artefact")
        shutil.copy(folder / "CorvelToolKit.dll", folder / "artefact/stripped.dll")
        shutil.copy(ARTEFACT_TEST, folder)
        # The others look at programs that do not ship.
        looked = subprocess.run([*EMULATOR, folder / ARTEFACT_TEST.name, "--gtest_filter=Artefact.*:EachOf/Shipped*"],
                                env={**os.environ, "WINEPREFIX": str(self.prefix())}, capture_output=True, text=True)
        self.assertEqual(looked.returncode, 0, looked.stdout)
        self.assertGreater(looked.stdout.count("[       OK ]"), 30)

    @staticmethod
    def prefix():
        """That of the build that ARTEFACT_TEST belongs to: copies have build folders of their own."""
        return next(folder for folder in ARTEFACT_TEST.parents if (folder / "CMakeCache.txt").exists()) / "wineprefix"


unittest.main(argv=sys.argv[:1])

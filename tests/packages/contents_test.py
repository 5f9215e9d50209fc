#!/usr/bin/env python3
"""What packaging/make-packages makes: contents, sums, list of contents, signatures; the same bytes in any folder.

usage: contents_test.py BUILD SCRATCH CHECKOUT
"""
import hashlib
import json
import pathlib
import shutil
import subprocess
import sys
import unittest
import zipfile

BUILD, SCRATCH, CHECKOUT = (pathlib.Path(word) for word in sys.argv[1:4])
TOOL = CHECKOUT / "packaging/make-packages"
BASE = "CorvelToolKit-3.4.5-x64"


def run(*command):
    return subprocess.run([str(word) for word in command], check=True, capture_output=True, text=True).stdout


def installation(name):
    folder = SCRATCH / name / "installed"
    for component in ("runtime", "development", "symbols"):
        (folder / component).mkdir(parents=True)
        run("cmake", "--install", BUILD, "--component", component, "--prefix", folder / component)
    (folder / "package.json").write_text(json.dumps(
        {"name": "CorvelToolKit", "library_version": "1.8.1", "package_version": "3.4.5", "compiler": "any"}))
    return folder


def packages(name, *options):
    folder = SCRATCH / name / "packages"
    run(TOOL, installation(name), folder, *options)
    return folder


def digests(folder):
    return {path.name: hashlib.sha256(path.read_bytes()).hexdigest() for path in folder.iterdir()}


class Contents(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        shutil.rmtree(SCRATCH, ignore_errors=True)
        cls.made = packages("one")

    def test_the_same_files_in_another_folder_give_the_same_bytes(self):
        self.assertEqual(digests(self.made), digests(packages("another place")))

    def test_sums_are_those_of_the_files(self):
        sums = dict(reversed(line.split("  ")) for line in (self.made / "SHA256SUMS").read_text().splitlines())
        found = digests(self.made)
        del found["SHA256SUMS"]
        self.assertEqual(sums, found)

    def test_zip_holds_what_a_user_and_an_integrator_need(self):
        with zipfile.ZipFile(self.made / f"{BASE}.zip") as archive:
            names = set(archive.namelist())
        for name in ("bin/CorvelToolKit.dll", "bin/corvel_service.exe", "include/corvel/toolkit/toolkit.h",
                     "lib/cmake/CorvelToolKit/CorvelToolKitConfig.cmake", "examples/CorvelConfig.ini",
                     "THIRD-PARTY-NOTICES.txt"):
            self.assertIn(f"{BASE}/{name}", names)

    def test_list_of_contents_names_each_file_and_all_that_is_linked_in(self):
        document = json.loads((self.made / f"{BASE}.spdx.json").read_text())
        self.assertEqual(document["spdxVersion"], "SPDX-2.3")
        root = SCRATCH / "one/installed/runtime"
        for file in document["files"]:
            data = (root / file["fileName"]).read_bytes()
            sums = {sum["algorithm"]: sum["checksumValue"] for sum in file["checksums"]}
            self.assertEqual(sums["SHA256"], hashlib.sha256(data).hexdigest())
        self.assertEqual(len(document["files"]), sum(1 for path in root.rglob("*") if path.is_file()))
        known = {package["name"].split(" ")[0] for package in document["packages"]}
        self.assertEqual(known, {"CorvelToolKit", "GCC", "mingw-w64", "CLI11", "JSON"})
        identities = [part["SPDXID"] for part in document["packages"] + document["files"]]
        self.assertEqual(len(identities), len(set(identities)))
        for relation in document["relationships"]:
            for end in ("spdxElementId", "relatedSpdxElement"):
                self.assertIn(relation[end], identities + ["SPDXRef-DOCUMENT"])

    def test_notices_hold_the_terms_of_all_that_is_linked_in(self):
        text = (self.made / "THIRD-PARTY-NOTICES.txt").read_text()
        for words in ("GCC RUNTIME LIBRARY EXCEPTION", "winpthreads", "Henry Schreiner", "Niels Lohmann"):
            self.assertIn(words.lower(), text.lower())

    def test_an_owners_command_signs_programs_and_installer(self):
        key, certificate = SCRATCH / "key.pem", SCRATCH / "certificate.pem"
        run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=Test", "-days", "2",
            "-addext", "extendedKeyUsage=codeSigning", "-keyout", key, "-out", certificate)
        command = SCRATCH / "sign"
        command.write_text('#!/bin/sh\nset -eu\n'
                           f'osslsigncode sign -certs "{certificate}" -key "{key}" -in "$1" -out "$1.signed"\n'
                           'mv "$1.signed" "$1"\n')
        command.chmod(0o755)
        made = packages("signed", "--sign", command)
        for file in [*(SCRATCH / "signed/installed/runtime/bin").iterdir(), made / f"{BASE}.msi"]:
            self.assertIn("Signature verification: ok", run("osslsigncode", "verify", "-CAfile", certificate, "-in", file))

    def test_a_command_that_fails_to_sign_fails_the_packages(self):
        with self.assertRaises(subprocess.CalledProcessError):
            packages("unsigned", "--sign", "false")


unittest.main(argv=sys.argv[:1])

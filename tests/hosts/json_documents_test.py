#!/usr/bin/env python3
"""What the hosts print with --json is as their schema says, and holds what it is asked for.

usage: json_documents_test.py SCHEMA BIN-FOLDER EMULATOR
"""
import copy
import json
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

import jsonschema

EMULATOR = sys.argv.pop()
BIN = pathlib.Path(sys.argv.pop())
SCHEMA = json.loads(pathlib.Path(sys.argv.pop()).read_text())
FILES = ("simulated/corvel_cmdline.exe", "simulated/corvel_service.exe", "virtual_pc_host.dll", "CorvelToolKit.dll",
         "Firmwareflashdownload.dll")


def windows_path(path):
    return "Z:" + str(path).replace("/", "\\")


def is_valid(document):
    return jsonschema.Draft7Validator(SCHEMA).is_valid(document)


class Installation:
    """The hosts with a virtual PC inside, in a folder of their own, with images."""

    def __init__(self, folder):
        self.folder = folder
        self.firmware = folder / "firmware"
        self.firmware.mkdir()
        for name in FILES:
            shutil.copy(BIN / name, folder)
        (folder / "VirtualPc.ini").write_text("speed=100\n")
        (folder / "CorvelConfig.ini").write_text(
            "Corvel flash service\n[TraceLevel]=1\n[RegistryLocation]=HKCU\\Software\\Corvel\\Test\\Documents\n"
            f"[ModemAndNVMFirmwareFolder]={windows_path(self.firmware)}\n[IPCTYPE]=USB\n")
        for name in ("modem.fls", "nvm.fls"):
            (self.firmware / name).write_bytes(b"of no modem")

    def command(self, host, *words):
        return [*filter(None, EMULATOR.split(";")), self.folder / f"corvel_{host}.exe", *words, "--json"]

    def run(self, host, *words):
        done = subprocess.run(self.command(host, *words), capture_output=True, check=False, timeout=120)
        return done.returncode, json.loads(done.stdout)


class DocumentsTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(dir=BIN)
        self.addCleanup(folder.cleanup)
        self.pc = Installation(pathlib.Path(folder.name))

    def document(self, host, *words, status=0):
        """The one document that a run prints."""
        code, document = self.pc.run(host, *words)
        jsonschema.validate(document, SCHEMA, cls=jsonschema.Draft7Validator)
        self.assertEqual(next(iter(document)), "version")
        self.assertEqual(code, status, document)
        return document

    def put_history(self):
        (self.pc.folder / "CorvelFlashHistory.txt").write_text(
            "2026-11-15 23:04:11\tservice\t4\t100\t57\tsucceeded\r\n2026-11-16 01:00:00\tcmdline\t3\t48\t541\tfailed\r\n")

    def test_a_check_of_a_pc_that_is_ready(self):
        self.assertTrue(self.document("cmdline", "check")["ready"])

    def test_a_check_of_a_pc_that_is_not(self):
        shutil.rmtree(self.pc.firmware)
        document = self.document("cmdline", "check", status=3)
        self.assertEqual((document["ready"], document["error"]["code"]), (False, "no_folder"))

    def test_the_status_of_the_command_line(self):
        document = self.document("cmdline", "status")
        self.assertEqual((document["modem"]["mode"], document["hindrances"]), ("mbim", []))

    def test_the_first_line_of_a_status_that_is_watched(self):
        with subprocess.Popen(self.pc.command("cmdline", "status", "--watch"), stdout=subprocess.PIPE) as watching:
            try:
                document = json.loads(watching.stdout.readline())
            finally:
                watching.kill()
        jsonschema.validate(document, SCHEMA, cls=jsonschema.Draft7Validator)
        self.assertIn("values", document)

    def test_the_images(self):
        images = self.document("cmdline", "images")["images"]
        self.assertEqual([len(image["sha256"]) for image in images], [64, 64])
        self.assertEqual(len(self.document("cmdline", "images", "--no-digests")["images"]), 2)

    def test_the_archive_for_support_and_its_list(self):
        archive = str(self.pc.folder / "support.zip")
        files = self.document("cmdline", "doctor", "--output", windows_path(archive))["files"]
        self.assertIn("check.json", [file["name"] for file in files])
        self.assertGreater(len(self.document("cmdline", "doctor", "--list")["contents"]), 5)

    def test_the_history_by_either_host(self):
        self.put_history()
        for host in ("cmdline", "service"):
            history = self.document(host, "status", "--history")["history"]
            self.assertEqual([past["flashed"] for past in history], [True, False])

    def test_the_state_of_a_service(self):
        self.assertFalse(self.document("service", "status")["installed"])

    def test_the_state_of_a_service_without_a_configuration(self):
        (self.pc.folder / "CorvelConfig.ini").unlink()
        self.assertEqual(self.document("service", "status", status=4)["error"]["code"], "no_configuration")

    def test_a_flash_that_is_refused(self):
        for image in self.pc.firmware.iterdir():
            image.unlink()
        self.assertEqual(self.document("cmdline", "flash", status=3)["error"]["code"], "no_images")

    def test_wrong_usage_of_either_host(self):
        for host in ("cmdline", "service"):
            self.assertEqual(self.document(host, "flahs", status=2)["error"]["code"], "wrong_usage")


class SchemaTest(unittest.TestCase):
    """It tells documents apart from what only looks like them."""

    def setUp(self):
        self.flashed = {"version": 1, "flashed": True, "result": 4, "meaning": "succeeded", "progress": 100, "attempts": 1,
                        "seconds": 57, "images_deleted": True, "log": ""}
        self.assertTrue(is_valid(self.flashed))

    def test_a_job_has_times_or_none(self):
        value = {"value": 1, "meaning": "flashing"}
        names = ("Fls_Ready", "Retry_Times", "Time_Out", "Flash_OnGoing", "Flash_Progress", "Flash_Result")
        times = {"since": "2026-11-15 23:04:11.042", "limit_seconds": None}
        job = {"stage": "write", "stage_name": "writing", "stage_times": times, "attempt": 1, "most_attempts": 4,
               "attempt_times": None, "percent": 42}
        status = {"version": 1, "key": "HKLM\\Key", "host_running": True, "values": dict.fromkeys(names, value), "job": job,
                  "modem": {"mode": "mbim", "at_port": True, "reset_driver": True},
                  "images": {"folder": "", "modem": "", "nvm": ""}, "hindrances": []}
        self.assertTrue(is_valid(status))
        self.assertTrue(is_valid(status | {"job": None}))
        self.assertFalse(is_valid(status | {"job": job | {"stage": "writing"}}))
        self.assertFalse(is_valid(status | {"job": job | {"stage_times": {"since": "now"}}}))

    def changed(self, **fields):
        return copy.deepcopy(self.flashed) | fields

    def test_needs_the_version(self):
        del self.flashed["version"]
        self.assertFalse(is_valid(self.flashed))

    def test_refuses_another_version(self):
        self.assertFalse(is_valid(self.changed(version=2)))

    def test_refuses_a_field_that_nobody_described(self):
        self.assertFalse(is_valid(self.changed(colour="blue")))

    def test_a_failure_has_an_error_and_a_success_none(self):
        error = {"code": "flash_failed", "message": "The flash failed.", "what_to_do": "Flash again."}
        cause = {"message": "Could not download file(|0|)", "meaning": "An item.", "what_to_do": "Copy."}
        self.assertTrue(is_valid(self.changed(flashed=False, error=error, cause=cause)))
        self.assertTrue(is_valid(self.changed(flashed=False, error=error, cause=None)))
        self.assertFalse(is_valid(self.changed(flashed=False, error=error)))
        self.assertFalse(is_valid(self.changed(flashed=False, cause=cause)))
        self.assertFalse(is_valid(self.changed(error=error)))
        self.assertFalse(is_valid(self.changed(cause=None)))


if __name__ == "__main__":
    unittest.main()

#!/usr/bin/env python3
"""The role's command lines, exactly as they stand there, on the programs with a virtual PC inside.

usage: role_test.py EXAMPLES BIN-FOLDER EMULATOR
"""

import hashlib
import json
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import jsonschema
import yaml

EMULATOR = sys.argv.pop()
BIN = pathlib.Path(sys.argv.pop())
EXAMPLES = pathlib.Path(sys.argv.pop())
ROLE = EXAMPLES / "ansible/roles/corvel_flash"


def windows_path(path):
    return "Z:" + str(path).replace("/", "\\")


def tasks_in(tasks):
    """All tasks in the order in which they run when none fails."""
    for task in tasks:
        yield from tasks_in(task.get("block", [])) if "block" in task else [task]
        yield from tasks_in(task.get("always", []))


def run(*command):
    """By hand of the emulator: the first word is a file of this system, the others are the program's own."""
    return subprocess.run([*filter(None, EMULATOR.split(";")), *command], capture_output=True, text=True, check=False)


class RoleTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(dir=BIN)
        self.addCleanup(folder.cleanup)
        self.programs = pathlib.Path(folder.name) / "Program Files" / "Corvel"
        self.firmware = pathlib.Path(folder.name) / "Firmware"
        self.programs.mkdir(parents=True)
        self.firmware.mkdir()
        for name in ("simulated/corvel_cmdline.exe", "simulated/corvel_service.exe", "virtual_pc_host.dll",
                     "CorvelToolKit.dll", "Firmwareflashdownload.dll"):
            shutil.copy(BIN / name, self.programs)
        (self.programs / "VirtualPc.ini").write_text("speed=100\n")
        (self.programs / "CorvelConfig.ini").write_text(
            "Corvel flash service\n[TraceLevel]=1\n[RegistryLocation]=HKCU\\Software\\Corvel\\Test\\Fleet\n"
            f"[ModemAndNVMFirmwareFolder]={windows_path(self.firmware)}\n[IPCTYPE]=USB\n")
        made = run(str(BIN / "modem_simulator.exe"), "--make-images", windows_path(self.firmware))
        self.assertEqual(made.returncode, 0, made.stderr)
        (self.firmware / "SHA256SUMS").write_text("".join(
            f"{hashlib.sha256(image.read_bytes()).hexdigest()}  {image.name}\n" for image in self.firmware.glob("*.fls")))
        service = str(self.programs / "corvel_service.exe")
        self.assertEqual(run(service, "install", "--start", "demand").returncode, 0)
        self.addCleanup(lambda: (run(service, "stop", "--force"), run(service, "uninstall")))

    def words(self, argv):
        """As the role's defaults fill them in, but for the places of this test."""
        values = yaml.safe_load((ROLE / "defaults/main.yml").read_text())
        values |= {"corvel_flash_programs": windows_path(self.programs),
                   "corvel_flash_firmware": windows_path(self.firmware)}
        return [re.sub(r"{{ (\w+) }}", lambda name: str(values[name[1]]), str(word)) for word in argv]

    def command_lines(self):
        tasks = yaml.safe_load((ROLE / "tasks/main.yml").read_text())
        found = (task.get("ansible.windows.win_command") for task in tasks_in(tasks))
        return [self.words(command["argv"]) for command in found if command]

    def result_of(self, words):
        program = self.programs / words[0].rpartition("\\")[2]
        self.assertEqual(words[0], windows_path(program))
        return run(str(program), *words[1:])

    def test_stops_the_service_flashes_and_starts_it(self):
        stop, flash, start = [self.result_of(words) for words in self.command_lines()]
        self.assertEqual((stop.returncode, stop.stdout.strip()), (0, "It is not running."), stop.stderr)
        self.assertEqual(flash.returncode, 0, flash.stdout + flash.stderr)
        schema = json.loads((EXAMPLES.parent.parent / "docs/hosts.schema.json").read_text())
        jsonschema.validate(json.loads(flash.stdout), schema, cls=jsonschema.Draft7Validator)
        self.assertEqual((start.returncode, start.stdout.strip()), (0, "Running."), start.stderr)
        result = pathlib.Path(self.programs / "PC-1.json")
        result.write_text(flash.stdout)
        table = subprocess.run([sys.executable, EXAMPLES / "collect_results.py", result], capture_output=True, text=True,
                               check=False)
        self.assertEqual(table.returncode, 0, table.stdout)
        self.assertIn("PC-1  flashed", table.stdout)

    def test_flashes_no_image_that_is_not_in_the_list(self):
        (self.firmware / "SHA256SUMS").write_text("0" * 64 + "  modem.fls\n")
        flash = self.result_of(self.command_lines()[1])
        self.assertEqual(flash.returncode, 4, flash.stdout)
        self.assertIn("image_", flash.stdout)


if __name__ == "__main__":
    unittest.main()

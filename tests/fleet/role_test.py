#!/usr/bin/env python3
"""The role's command lines, exactly as they stand there, on the programs with a virtual PC inside; and that the
remediation in PowerShell has the same.

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

import jinja2
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

    def run_role(self, instead_of_flash=None):
        """What the role's commands came to, by the name that each is registered under: those that are skipped are
        not in it."""
        expressions = jinja2.Environment()
        outcomes = {}
        for task in tasks_in(yaml.safe_load((ROLE / "tasks/main.yml").read_text())):
            command = task.get("ansible.windows.win_command")
            if not command or not expressions.compile_expression(task.get("when", "true"))(**outcomes):
                continue
            words = self.words(command["argv"])
            result = instead_of_flash if instead_of_flash and words[1] == "flash" else self.result_of(words)
            outcome = {"rc": result.returncode, "stdout": result.stdout.strip(), "stderr": result.stderr}
            name = task["register"]
            changed = expressions.compile_expression(task["changed_when"])
            outcomes[name] = outcome | {"changed": changed(**outcomes, **{name: outcome})}
        return outcomes

    def test_stops_the_service_flashes_and_starts_it(self):
        self.assertEqual(run(str(self.programs / "corvel_service.exe"), "start").returncode, 0)
        outcomes = self.run_role()
        stop, flash, start = (outcomes["corvel_flash_" + name] for name in ("stop", "outcome", "start"))
        self.assertEqual((stop["rc"], stop["stdout"]), (0, "Stopped."), stop["stderr"])
        self.assertEqual(flash["rc"], 0, flash["stdout"] + flash["stderr"])
        schema = json.loads((EXAMPLES.parent.parent / "docs/hosts.schema.json").read_text())
        jsonschema.validate(json.loads(flash["stdout"]), schema, cls=jsonschema.Draft7Validator)
        self.assertEqual((start["rc"], start["stdout"], start["changed"]), (0, "Running.", True), start["stderr"])
        result = pathlib.Path(self.programs / "PC-1.json")
        result.write_text(flash["stdout"])
        table = subprocess.run([sys.executable, EXAMPLES / "collect_results.py", result], capture_output=True, text=True,
                               check=False)
        self.assertEqual(table.returncode, 0, table.stdout)
        self.assertIn("PC-1  flashed", table.stdout)

    def test_starts_no_service_that_did_not_run(self):
        """Nor fails where there is none: a flashed PC would end the wave."""
        for found in ("It is not running.", "It is not installed."):
            with self.subTest(found):
                outcomes = self.run_role(instead_of_flash=subprocess.CompletedProcess([], 0, "{}", ""))
                self.assertEqual((outcomes["corvel_flash_stop"]["rc"], outcomes["corvel_flash_stop"]["stdout"]), (0, found))
                self.assertIn("corvel_flash_outcome", outcomes)
                self.assertNotIn("corvel_flash_start", outcomes)
            self.assertEqual(run(str(self.programs / "corvel_service.exe"), "uninstall").returncode, 0)

    def test_flashes_no_image_that_is_not_in_the_list(self):
        (self.firmware / "SHA256SUMS").write_text("0" * 64 + "  modem.fls\n")
        flash = self.result_of(self.command_lines()[1])
        self.assertEqual(flash.returncode, 4, flash.stdout)
        self.assertIn("image_", flash.stdout)


class RemediationTest(unittest.TestCase):
    """The scripts in PowerShell are not run here; this much of them is compared with what is."""

    text = (EXAMPLES / "detection/remediate.ps1").read_text()
    ROLE_NAMES = {"Programs": "corvel_flash_programs", "Firmware": "corvel_flash_firmware",
                  "MinBattery": "corvel_flash_min_battery", "TimeoutSeconds": "corvel_flash_timeout_seconds"}

    def test_has_the_command_lines_of_the_role(self):
        found = re.findall(r"Invoke-Program (\w+) @\(([^)]*)\)", self.text)
        commands = [[program, *(single or double for single, double in re.findall(r"'([^']*)'|\"([^\"]*)\"", words))]
                    for program, words in found]
        in_words_of_role = [[re.sub(r"\$(\w+)", lambda name: "{{ " + self.ROLE_NAMES[name[1]] + " }}", word)
                             for word in command] for command in commands]
        tasks = yaml.safe_load((ROLE / "tasks/main.yml").read_text())
        of_role = [task["ansible.windows.win_command"]["argv"] for task in tasks_in(tasks)
                   if "ansible.windows.win_command" in task]
        self.assertEqual(in_words_of_role, [[re.search(r"\\(\w+)\.exe$", program)[1], *map(str, words)]
                                            for program, *words in of_role])

    def test_has_the_defaults_of_the_role(self):
        of_role = yaml.safe_load((ROLE / "defaults/main.yml").read_text())
        places = {"$env:ProgramFiles": r"C:\Program Files", "$env:ProgramData": r"C:\ProgramData"}
        for name, name_in_role in self.ROLE_NAMES.items():
            with self.subTest(name):
                default = re.search(rf"\${name} = \"?([^\",\n]+)\"?", self.text)[1]
                for variable, place in places.items():
                    default = default.replace(variable, place)
                self.assertEqual(default, str(of_role[name_in_role]))

    def test_starts_the_service_only_where_it_was_stopped(self):
        stop = re.search(r"(\$\w+) = Invoke-Program corvel_service @\('stop'\)", self.text)
        self.assertIn(f"$isToStart = {stop[1]} -contains 'Stopped.'", self.text)
        self.assertRegex(self.text, r"if \(\$isToStart\) \{\s+Invoke-Program corvel_service @\('start'\)")


if __name__ == "__main__":
    unittest.main()

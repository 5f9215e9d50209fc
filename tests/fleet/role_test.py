#!/usr/bin/env python3
"""The role's command lines, exactly as they stand there, on the programs with a virtual PC inside; and that the
remediation in PowerShell has the same.

usage: role_test.py EXAMPLES BIN-FOLDER EMULATOR
"""

import hashlib
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree

import jinja2
import jsonschema
import yaml

EMULATOR = sys.argv.pop()
BIN = pathlib.Path(sys.argv.pop())
EXAMPLES = pathlib.Path(sys.argv.pop())
ROLE = EXAMPLES / "ansible/roles/corvel_flash"
# Where the service is asked for a flash.
KEY = r"HKCU\Software\Corvel\Test\Fleet"


def windows_path(path):
    return "Z:" + str(path).replace("/", "\\")


def tasks_in(tasks):
    """All tasks in the order in which they run when none fails."""
    for task in tasks:
        yield from tasks_in(task.get("block", [])) if "block" in task else [task]
        yield from tasks_in(task.get("always", []))


def run(*command):
    """By hand of the emulator: the first word is a file of this system, the others are the program's own."""
    return subprocess.run([*filter(None, EMULATOR.split(";")), *command], capture_output=True, text=True, check=False,
                          env={"WINEPREFIX": str(BIN.parent / "wineprefix"), **os.environ})


class RoleTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(dir=BIN)
        self.addCleanup(folder.cleanup)
        self.programs = pathlib.Path(folder.name) / "Program Files" / "Corvel"
        self.firmware = pathlib.Path(folder.name) / "Firmware"
        self.staging = pathlib.Path(folder.name) / "Wave 7"
        self.programs.mkdir(parents=True)
        self.firmware.mkdir()
        self.staging.mkdir()
        for name in ("simulated/corvel_cmdline.exe", "simulated/corvel_service.exe", "virtual_pc_host.dll",
                     "CorvelToolKit.dll", "Firmwareflashdownload.dll"):
            shutil.copy(BIN / name, self.programs)
        (self.programs / "VirtualPc.ini").write_text("speed=100\n")
        (self.programs / "CorvelConfig.ini").write_text(
            "Corvel flash service\n[TraceLevel]=1\n[RegistryLocation]=" + KEY + "\n"
            f"[ModemAndNVMFirmwareFolder]={windows_path(self.firmware)}\n[IPCTYPE]=USB\n")
        made = run(str(BIN / "modem_simulator.exe"), "--make-images", windows_path(self.staging))
        self.assertEqual(made.returncode, 0, made.stderr)
        (self.staging / "SHA256SUMS").write_text("".join(
            f"{hashlib.sha256(image.read_bytes()).hexdigest()}  {image.name}\n" for image in self.staging.glob("*.fls")))
        service = str(self.programs / "corvel_service.exe")
        self.assertEqual(run(service, "install", "--start", "demand").returncode, 0)
        self.addCleanup(lambda: (run(service, "stop", "--force"), run(service, "uninstall"),
                                 run("reg", "delete", KEY, "/f")))

    def words(self, argv):
        """As the role's defaults fill them in, but for the places of this test."""
        values = yaml.safe_load((ROLE / "defaults/main.yml").read_text())
        values |= {"corvel_flash_programs": windows_path(self.programs),
                   "corvel_flash_firmware": windows_path(self.firmware),
                   "corvel_flash_staging": windows_path(self.staging)}
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
        (self.staging / "SHA256SUMS").write_text("0" * 64 + "  modem.fls\n")
        flash = self.result_of(self.command_lines()[1])
        self.assertEqual(flash.returncode, 4, flash.stdout)
        self.assertIn("image_", flash.stdout)
        # The service would flash them at its next request, whatever the list says.
        self.assertEqual(list(self.firmware.iterdir()), [])

    def test_ends_the_wave_at_a_flash_that_failed_and_at_no_other(self):
        tasks = list(tasks_in(yaml.safe_load((ROLE / "tasks/main.yml").read_text())))
        expressions = jinja2.Environment()
        judge, = (task["ansible.builtin.assert"]["that"] for task in tasks if "ansible.builtin.assert" in task)
        goes_on = {status for status in range(6)
                   if expressions.compile_expression(judge)(corvel_flash_outcome={"rc": status})}
        # What was not begun, and what the documents call "nothing was touched".
        self.assertEqual(goes_on, {0, 3, 4})
        failure = next(task["failed_when"] for task in tasks if task.get("register") == "corvel_flash_stop")
        fails = {status for status in range(6)
                 if expressions.compile_expression(failure)(corvel_flash_stop={"rc": status})}
        self.assertEqual(fails, {1, 2, 4, 5})

    def test_ends_the_wave_at_a_pc_that_is_lost_when_its_batch_is_through(self):
        """A limit of failures would count none that cannot be reached."""
        play, = yaml.safe_load((EXAMPLES / "ansible/flash.yml").read_text())
        self.assertIs(play["any_errors_fatal"], True)
        self.assertNotIn("max_fail_percentage", play)
        tasks = yaml.safe_load((ROLE / "tasks/main.yml").read_text())
        self.assertEqual([task["any_errors_fatal"] for task in tasks if "block" in task], [False])
        judge = jinja2.Environment().compile_expression(play["pre_tasks"][0]["ansible.builtin.assert"]["that"])
        self.assertTrue(judge(ansible_play_hosts=["a", "b"], ansible_play_hosts_all=["a", "b"]))
        self.assertFalse(judge(ansible_play_hosts=["b"], ansible_play_hosts_all=["a", "b"]))

    def test_says_in_its_document_why_a_pc_is_left_whose_service_flashes(self):
        """The role asks the command line then, which refuses."""
        service = str(self.programs / "corvel_service.exe")
        (self.programs / "VirtualPc.ini").write_text("speed=1\n")
        self.assertEqual(run(service, "start").returncode, 0)
        shutil.copytree(self.staging, self.firmware, dirs_exist_ok=True)
        self.assertEqual(run("reg", "add", KEY, "/v", "Fls_Ready", "/t", "REG_DWORD", "/d", "1", "/f").returncode, 0)
        outcomes = self.run_role()
        self.assertEqual(outcomes["corvel_flash_stop"]["rc"], 3, outcomes)
        self.assertEqual(outcomes["corvel_flash_outcome"]["rc"], 4, outcomes)
        self.assertIn('"service_', outcomes["corvel_flash_outcome"]["stdout"])
        self.assertNotIn("corvel_flash_start", outcomes)


class RemediationTest(unittest.TestCase):
    """The scripts in PowerShell are not run here; this much of them is compared with what is."""

    text = (EXAMPLES / "detection/remediate.ps1").read_text()
    ROLE_NAMES = {"Programs": "corvel_flash_programs", "Package": "corvel_flash_staging", "Firmware": "corvel_flash_firmware",
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
            # Of a package the scripts are a part, the role brings it.
            if name == "Package":
                continue
            with self.subTest(name):
                default = re.search(rf"\${name} = \"?([^\",\n]+)\"?", self.text)[1]
                for variable, place in places.items():
                    default = default.replace(variable, place)
                self.assertEqual(default, str(of_role[name_in_role]))

    def test_remembers_a_flash_where_the_role_looks_for_it(self):
        state = yaml.safe_load((ROLE / "vars/main.yml").read_text())["corvel_flash_state_key"]
        tasks = list(tasks_in(yaml.safe_load((ROLE / "tasks/main.yml").read_text())))
        names = {task["ansible.windows.win_regedit"]["name"] for task in tasks if "ansible.windows.win_regedit" in task}
        self.assertEqual(names, {"Flashed"})
        for script in ("detect.ps1", "remediate.ps1"):
            self.assertIn(f"$state = '{state}'", (EXAMPLES / "detection" / script).read_text())
        self.assertIn("Set-State Flashed $digest String", self.text)

    def test_is_run_by_a_task_that_ends_no_flash(self):
        task = xml.etree.ElementTree.parse(EXAMPLES / "detection/flash_once.xml")
        told = {element.tag.rpartition("}")[2]: (element.text or "").strip() for element in task.iter()}
        self.assertEqual((told["UserId"], told["DisallowStartIfOnBatteries"], told["StopIfGoingOnBatteries"],
                          told["AllowHardTerminate"]), ("S-1-5-18", "true", "false", "false"))
        longest = re.search(r"\$TimeoutSeconds = (\d+)", self.text)[1]
        self.assertGreater(int(re.fullmatch(r"PT(\d+)H", told["ExecutionTimeLimit"])[1]) * 3600, 2 * int(longest))
        self.assertTrue(told["Command"].endswith("flash_once.cmd"))

    def test_is_run_by_a_wrapper_when_the_detection_says_so(self):
        wrapper = (EXAMPLES / "detection/flash_once.cmd").read_text()
        self.assertRegex(wrapper, r'detect\.ps1"\nif not "%errorlevel%" == "1" exit /b %errorlevel%\n.*remediate\.ps1" %\*\nexit')
        for script in ("detect.ps1", "remediate.ps1"):
            self.assertIn(f'"%~dp0{script}"', wrapper)
            self.assertTrue((EXAMPLES / "detection" / script).exists())

    def test_leaves_the_copying_of_images_to_the_command_line(self):
        """Which takes them back when it refuses; the service would flash what lies there, whatever the list says."""
        self.assertNotIn("Copy-Item", self.text)

    def test_starts_the_service_only_where_it_was_stopped(self):
        stop = re.search(r"(\$\w+) = Invoke-Program corvel_service @\('stop'\)", self.text)
        self.assertIn(f"$isToStart = {stop[1]} -contains 'Stopped.'", self.text)
        self.assertRegex(self.text, r"if \(\$isToStart\) \{\s+Invoke-Program corvel_service @\('start'\)")


if __name__ == "__main__":
    unittest.main()

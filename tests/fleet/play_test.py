#!/usr/bin/env python3
"""The play, run by Ansible itself on PCs that this test plays: who is flashed, when a wave ends, what it leaves.

usage: play_test.py EXAMPLES
"""

import hashlib
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

EXAMPLES = pathlib.Path(sys.argv.pop()).resolve()

MODULES = ("win_command", "win_copy", "win_file", "win_find", "win_reg_stat", "win_regedit")
# What a PC does that a module is run on. Its folder holds what it is like: the service's state, the status that its flash
# ends with, the values of its registry; and what was done to it.
MODULE = '''
import json
import os
import pathlib
from ansible.module_utils.basic import AnsibleModule

PC = pathlib.Path(os.environ["PC_FOLDER"])


def told(name, otherwise):
    return (PC / name).read_text() if (PC / name).exists() else otherwise


def command(words):
    program, verb = words[0].rpartition("\\\\")[2], words[1]
    service = told("service", "none")
    with (PC / "done").open("a") as done:
        done.write(verb + "\\n")
    if verb == "stop" and service == "flashing":
        return 3, "A flash is running."
    if verb == "stop" and service == "running":
        (PC / "service").write_text("stopped")
        return 0, "Stopped."
    if verb == "start":
        (PC / "service").write_text("running")
        return 0, "Running."
    if verb == "flash":
        status = int(told("status", "0"))
        if (PC / "loses").exists():
            (PC / "lost").touch()
        error = {"code": "battery_low" if status == 4 else "flash_failed", "message": "M.", "what_to_do": "W."}
        end = {"flashed": True} if status == 0 else {"error": error}
        return status, json.dumps({"version": 1, **end, **({"flashed": False} if status == 1 else {})})
    return 0, ""


def result_of(name, words):
    registry = json.loads(told("registry", "{}"))
    if name == "win_command":
        status, text = command(words["argv"])
        return {"rc": status, "stdout": text, "failed": status != 0}
    if name == "win_reg_stat":
        return {"exists": True, "properties": {key: {"value": value} for key, value in registry.items()}}
    if name == "win_regedit":
        (PC / "registry").write_text(json.dumps({**registry, words["name"]: words["data"]}))
    if name == "win_copy":
        (PC / "staged").touch()
    if name == "win_file" and words["state"] == "absent":
        (PC / "staged").unlink(missing_ok=True)
    return {"files": []}


NAMES = ("argv", "path", "paths", "patterns", "state", "src", "dest", "name", "data", "type")
module = AnsibleModule(argument_spec={name: {"type": "raw"} for name in NAMES})
module.exit_json(**result_of(MODULE, module.params))
'''
CONNECTION = '''
import os
import pathlib
from ansible.errors import AnsibleConnectionFailure
from ansible.plugins.connection.local import Connection as Local

DOCUMENTATION = """
name: pc
short_description: a PC of the test
description: a PC of the test
author: the test
"""


class Connection(Local):
    transport = "pc"

    def exec_command(self, cmd, in_data=None, sudoable=True):
        folder = pathlib.Path(os.environ["PCS"]) / self._play_context.remote_addr
        if (folder / "lost").exists():
            raise AnsibleConnectionFailure("the PC does not answer")
        return super().exec_command(f"PC_FOLDER={folder} {cmd}", in_data, sudoable)
'''


class PlayTest(unittest.TestCase):
    PCS = ("pc1", "pc2", "pc3", "pc4", "pc5")

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        modules = self.folder / "collections/ansible_collections/ansible/windows/plugins/modules"
        modules.mkdir(parents=True)
        for name in MODULES:
            (modules / f"{name}.py").write_text(f"#!/usr/bin/python3\nMODULE = {name!r}\n{MODULE}")
        (self.folder / "ansible.cfg").write_text("[defaults]\n")
        (self.folder / "connections").mkdir()
        (self.folder / "connections/pc.py").write_text(CONNECTION)
        shutil.copytree(EXAMPLES / "ansible", self.folder / "play")
        self.put_images("the first images")
        (self.folder / "inventory").write_text(
            "[modems]\n" + "\n".join(self.PCS) +
            f"\n[modems:vars]\nansible_connection=pc\nansible_python_interpreter={sys.executable}\n")
        for pc in self.PCS:
            (self.folder / "pcs" / pc).mkdir(parents=True)
            self.put(pc, service="running")

    def put_images(self, sums):
        (self.folder / "play/images").mkdir(exist_ok=True)
        (self.folder / "play/images/SHA256SUMS").write_text(sums + "\n")

    def put(self, pc, **facts):
        for name, text in facts.items():
            (self.folder / "pcs" / pc / name).write_text(text)

    def told(self, pc, name):
        file = self.folder / "pcs" / pc / name
        return file.read_text() if file.exists() else ""

    def play(self):
        environment = {**os.environ, "PCS": str(self.folder / "pcs"), "LC_ALL": "C.UTF-8", "ANSIBLE_FORKS": "5",
                       "ANSIBLE_HOME": str(self.folder / "home"), "ANSIBLE_PIPELINING": "1",
                       "ANSIBLE_CONFIG": str(self.folder / "ansible.cfg"),
                       "ANSIBLE_LOCAL_TEMP": str(self.folder / "home"), "ANSIBLE_REMOTE_TMP": str(self.folder / "home"),
                       "ANSIBLE_COLLECTIONS_PATH": str(self.folder / "collections"),
                       "ANSIBLE_CONNECTION_PLUGINS": str(self.folder / "connections")}
        return subprocess.run(["ansible-playbook", "-i", "../inventory", "flash.yml"], cwd=self.folder / "play",
                              env=environment, capture_output=True, text=True, check=False)

    def flashes(self):
        return {pc: self.told(pc, "done").split().count("flash") for pc in self.PCS}

    def outcomes(self):
        table = subprocess.run([sys.executable, EXAMPLES / "collect_results.py", "--json", self.folder / "play/results"],
                               capture_output=True, text=True, check=False)
        return {row["pc"]: row["outcome"] for row in json.loads(table.stdout)["pcs"]}

    def test_flashes_each_pc_once(self):
        first = self.play()
        self.assertEqual(first.returncode, 0, first.stdout + first.stderr)
        self.assertEqual(self.outcomes(), dict.fromkeys(self.PCS, "flashed"))
        sums = (self.folder / "play/images/SHA256SUMS").read_bytes()
        for pc in self.PCS:
            self.assertEqual(self.told(pc, "service"), "running")
            self.assertEqual(json.loads(self.told(pc, "registry")), {"Flashed": hashlib.sha256(sums).hexdigest().upper()})
            self.assertFalse((self.folder / "pcs" / pc / "staged").exists())
        self.put("pc5", registry="{}")
        second = self.play()
        self.assertEqual(second.returncode, 0, second.stdout + second.stderr)
        self.assertEqual(self.flashes(), {**dict.fromkeys(self.PCS, 1), "pc5": 2})
        self.put_images("others")
        self.put("pc4", registry='{"Hold": 1}')
        self.assertEqual(self.play().returncode, 0)
        self.assertEqual(self.flashes(), {**dict.fromkeys(self.PCS, 2), "pc4": 1, "pc5": 3})

    def test_goes_on_behind_a_pc_that_is_left_as_it_was(self):
        self.put("pc1", status="4")
        self.put("pc2", status="3")
        self.put("pc3", status="4", service="flashing")
        played = self.play()
        self.assertEqual(played.returncode, 0, played.stdout + played.stderr)
        self.assertEqual(self.outcomes(), {"pc1": "not ready", "pc2": "not ready", "pc3": "not ready", "pc4": "flashed",
                                           "pc5": "flashed"})
        self.assertIn("battery_low", played.stdout)
        self.assertEqual([self.told(pc, "service") for pc in self.PCS[:3]], ["running", "running", "flashing"])
        self.assertEqual(self.told("pc1", "registry"), "")

    def test_ends_at_a_flash_that_fails(self):
        self.put("pc2", status="1")
        self.assertNotEqual(self.play().returncode, 0)
        self.assertEqual(self.outcomes(), {"pc1": "flashed", "pc2": "failed"})
        self.assertEqual([self.told(pc, "done") for pc in self.PCS[2:]], ["", "", ""])
        self.assertEqual(self.told("pc2", "service"), "running")

    def test_ends_at_a_pc_that_cannot_be_reached(self):
        self.put("pc2", lost="")
        self.assertNotEqual(self.play().returncode, 0)
        self.assertEqual(self.outcomes(), {"pc1": "flashed"})
        self.assertEqual([self.told(pc, "done") for pc in self.PCS[1:]], ["", "", "", ""])

    def test_lets_a_batch_come_to_its_end_when_one_of_it_is_lost_or_fails(self):
        play = self.folder / "play/flash.yml"
        play.write_text(play.read_text().replace("10%", "2"))
        for name, text in (("loses", ""), ("status", "1")):
            with self.subTest(name):
                self.put("pc2", **{name: text})
                played = self.play()
                self.assertNotEqual(played.returncode, 0)
                self.assertIn("The wave ended with pc2.", played.stdout)
                self.assertEqual((self.told("pc3", "service"), self.outcomes()["pc3"]), ("running", "flashed"))
                self.assertFalse((self.folder / "pcs/pc3/staged").exists())
                self.assertEqual([self.told(pc, "done") for pc in self.PCS[3:]], ["", ""])
                for fact in ("loses", "lost"):
                    (self.folder / "pcs/pc2" / fact).unlink(missing_ok=True)


if __name__ == "__main__":
    unittest.main()

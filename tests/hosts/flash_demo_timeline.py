#!/usr/bin/env python3
"""scripts/flash-demo --timeline leaves a page of the flash that it has shown, and tells its path.

usage: flash_demo_timeline.py SCRIPT
"""
import json
import pathlib
import re
import subprocess
import sys
import unittest

SCRIPT, = sys.argv[1:]
LONGEST_DEMO_SECONDS = 240


def demo(*options):
    return subprocess.run([SCRIPT, "--speed", "60", "--timeline", *options], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=LONGEST_DEMO_SECONDS, check=False)


class TimelineTest(unittest.TestCase):
    def page(self, text):
        """Where the demo says that the page is; the page shows one flash that succeeded."""
        said = re.search(r"timeline:?\s+(/\S+)", text)
        self.assertTrue(said, text)
        page = pathlib.Path(said[1])
        content = page.read_text()
        self.assertTrue(content.rstrip().endswith("</html>"))
        self.assertEqual(re.findall('"state":"([a-z_]+)"', content), ["succeeded"])
        return page

    def test_behind_the_demo_of_the_service(self):
        done = demo()
        self.assertEqual(done.returncode, 0, done.stderr)
        self.page(done.stdout)

    def test_with_json_standard_output_is_the_documents_alone(self):
        done = demo("--json")
        self.assertEqual(done.returncode, 0, done.stderr)
        json.loads(done.stdout)
        self.page(done.stderr)

    def test_behind_the_demo_of_the_command_line(self):
        done = demo("--cmdline")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn("cmdline", str(self.page(done.stdout).parent))

    def test_the_page_is_that_of_the_flash_just_run(self):
        first = self.page(demo().stdout)
        begin = re.search('"begin":([0-9]+)', first.read_text())[1]
        second = self.page(demo().stdout)
        self.assertEqual(second, first)
        self.assertNotEqual(re.search('"begin":([0-9]+)', second.read_text())[1], begin)


unittest.main(argv=[sys.argv[0]], verbosity=2)

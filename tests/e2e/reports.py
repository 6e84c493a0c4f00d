#!/usr/bin/env python3
"""What diagtap prints of the captures in captures/ is, byte for byte, what stands beside them.

usage: reports.py DIAGTAP [unittest arguments]

Each has .show and .txt, some have other formats. REPORTS_WRITE=1 writes the files anew: read the difference.
"""
import json
import os
import re
import subprocess
import sys
import unittest
import xml.etree.ElementTree

from expected import HERE

DIAGTAP = [*os.environ.get("E2E_EMULATOR", "").split(), os.path.abspath(sys.argv[1])]
CAPTURES = os.path.join(HERE, "captures")
COMMANDS = {"show": ["show"], "txt": ["report"], "json": ["report", "--format", "json"],
            "xml": ["report", "--format", "junit"], "csv": ["report", "--format", "csv"],
            "html": ["report", "--format", "html"]}


class Reports(unittest.TestCase):
    maxDiff = None

    def readable(self, suffix, report):
        """What is compared of a report, which its readers must understand: all but a style sheet."""
        if suffix == "json":
            json.loads(report)
        if suffix == "xml":
            xml.etree.ElementTree.fromstring(report)
        if suffix != "html":
            return report
        self.assertEqual(re.findall(r"https?:|src=|@import", report), [])
        return re.sub(r"<style>.*?</style>", "", report, flags=re.S)

    def check(self, capture, suffix, command):
        path = os.path.join(CAPTURES, capture[:-len("pcapng")] + suffix)
        if suffix not in ("show", "txt") and not os.path.exists(path):
            return
        done = subprocess.run([*DIAGTAP, *command, capture], cwd=CAPTURES, env={**os.environ, "TZ": "UTC0"},
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        printed = f"{self.readable(suffix, done.stdout)}{done.stderr}status {done.returncode}\n"
        if os.environ.get("REPORTS_WRITE"):
            with open(path, "w") as file:
                file.write(printed)
        with open(path) as file, self.subTest(file=path):
            self.assertEqual(printed.splitlines(), file.read().splitlines())

    def test_captures_read_as_they_did(self):
        captures = [name for name in sorted(os.listdir(CAPTURES)) if name.endswith(".pcapng")]
        self.assertGreater(len(captures), 30)
        for capture in captures:
            for suffix, command in COMMANDS.items():
                self.check(capture, suffix, command)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]])

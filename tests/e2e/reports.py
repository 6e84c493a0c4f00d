#!/usr/bin/env python3
"""Reports on the captures in captures/ are, byte for byte, the ones that stand beside them.

usage: reports.py DIAGTAP [unittest arguments]

REPORTS_WRITE=1 writes them anew; read the difference before you commit it.
"""
import os
import subprocess
import sys
import unittest

from expected import HERE

DIAGTAP = [*os.environ.get("E2E_EMULATOR", "").split(), os.path.abspath(sys.argv[1])]
CAPTURES = os.path.join(HERE, "captures")
FORMATS = {"txt": [], "json": ["--format", "json"], "xml": ["--format", "junit"], "csv": ["--format", "csv"],
           "html": ["--format", "html"]}


class Reports(unittest.TestCase):
    maxDiff = None

    def check(self, path, command):
        done = subprocess.run(command, cwd=CAPTURES, env={**os.environ, "TZ": "UTC0"}, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        report = f"{done.stdout}status {done.returncode}\n"
        if os.environ.get("REPORTS_WRITE"):
            with open(path, "w") as file:
                file.write(report)
        with open(path) as file, self.subTest(report=path):
            self.assertEqual(report.splitlines(), file.read().splitlines())

    def test_reports_are_as_they_were(self):
        captures = [name for name in sorted(os.listdir(CAPTURES)) if name.endswith(".pcapng")]
        self.assertGreater(len(captures), 5)
        for name in captures:
            base = os.path.join(CAPTURES, name[:-len("pcapng")])
            self.check(base + "show", [*DIAGTAP, "show", name])
            for suffix, options in FORMATS.items():
                self.check(base + suffix, [*DIAGTAP, "report", name, *options])


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]])

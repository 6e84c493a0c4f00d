#!/usr/bin/env python3
"""What diagtap prints of the captures in captures/ is, byte for byte, what stands beside them.

usage: reports.py DIAGTAP [unittest arguments]

Every capture has its messages (.show) and its report (.txt), some have the other formats. REPORTS_WRITE=1 writes
the files anew; read the difference before you commit it.
"""
import os
import subprocess
import sys
import unittest

from expected import HERE

DIAGTAP = [*os.environ.get("E2E_EMULATOR", "").split(), os.path.abspath(sys.argv[1])]
CAPTURES = os.path.join(HERE, "captures")
COMMANDS = {"show": ["show"], "txt": ["report"], "json": ["report", "--format", "json"],
            "xml": ["report", "--format", "junit"], "csv": ["report", "--format", "csv"],
            "html": ["report", "--format", "html"]}


class Reports(unittest.TestCase):
    maxDiff = None

    def check(self, capture, path, command):
        done = subprocess.run([*DIAGTAP, *command, capture], cwd=CAPTURES, env={**os.environ, "TZ": "UTC0"},
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        printed = f"{done.stdout}status {done.returncode}\n"
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
                path = os.path.join(CAPTURES, capture[:-len("pcapng")] + suffix)
                if suffix in ("show", "txt") or os.path.exists(path):
                    self.check(capture, path, command)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]])

#!/usr/bin/env python3
"""Lets tshark read captures of the gallery with the dissector of wireshark/.

usage: dissector.py CHECKER LIBDIAGSIM DIAGTAP
"""
import os
import subprocess
import tempfile
import unittest

from capture import Run
from gallery import FOLDER, ROOT

SCRIPT = os.path.join(ROOT, "wireshark", "tavrik-diag.lua")
# How often a filter finds something.
FOUND = {"start-refused.json": {"tavrikdiag.refused": 1, "tavrikdiag.unanswered": 0, "tavrikdiag.response_time": 8},
         "adsp-down.json": {"tavrikdiag.unanswered": 1, "tavrikdiag.response_time": 4},
         "adsp-slow.json": {"tavrikdiag.response_time > 0.3": 1, "tavrikdiag.log_code == 0x1645": 2,
                            "tavrikdiag.clock == 576000": 2},
         "stray-answers.json": {"tavrikdiag.stray": 0, "tavrikdiag.unanswered": 0, "tavrikdiag.command == 0x79": 1},
         "busy.json": {"tavrikdiag.failed && tavrikdiag.errno == 16": 1}}


def tshark(capture, *arguments):
    done = subprocess.run(["tshark", "-2", "-X", "lua_script:" + SCRIPT, "-r", capture, *arguments],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=60, check=True)
    assert "Lua" not in done.stderr, done.stderr
    return done.stdout.splitlines()


class Dissector(unittest.TestCase):
    def test_captures_of_the_gallery(self):
        for name in os.listdir(FOLDER):
            with self.subTest(scenario=name), tempfile.TemporaryDirectory() as folder:
                capture = Run(os.path.join(FOLDER, name), folder).capture
                protocols = set(tshark(capture, "-T", "fields", "-e", "frame.protocols"))
                self.assertEqual(protocols, {"tavrikdiag"})
                self.assertEqual(tshark(capture, "-Y", "_ws.malformed || _ws.lua.error"), [])
                for search, count in FOUND.get(name, {}).items():
                    self.assertEqual(len(tshark(capture, "-Y", search)), count, search)


if __name__ == "__main__":
    unittest.main(argv=["dissector.py"])

#!/usr/bin/env python3
"""Holds docs/gallery.md against what the devices of scenarios/ do: the checker's lines and the report's words.

usage: gallery.py CHECKER LIBDIAGSIM DIAGTAP [unittest arguments]
"""
import concurrent.futures
import os
import re
import tempfile
import unittest

from capture import Run, diagtap
from expected import HERE, LINE

ROOT = os.path.join(HERE, "..", "..")
FOLDER = os.path.join(ROOT, "scenarios")


def block(name):
    """What the page shows of a device, without numbers that differ from run to run."""
    with tempfile.TemporaryDirectory() as folder:
        run = Run(os.path.join(FOLDER, name), folder)
        lines = [f"[{found[1]}]: {found[2]} {found[3]}" for found in map(LINE.match, run.output.splitlines())]
        report = diagtap("report", run.capture).stdout.splitlines()
    told = [line for line in report if line.startswith(("Remark: ", "First cause: ", "Every step"))
            and not line.startswith(("Remark: gap", "Remark: slow"))]  # of this machine
    return "\n".join([*lines, f"exit status {run.status}", "", *told])


def numberless(text):
    return re.sub(r"\d+(\.\d+)?", "N", text)


class Gallery(unittest.TestCase):
    def test_the_page_is_true(self):
        with open(os.path.join(ROOT, "docs", "gallery.md")) as file:
            page = dict(re.findall(r"^## .*?\n\n`script/run scenarios/(.*?)`.*?\n```\n(.*?)\n```", file.read(), re.M | re.S))
        self.assertEqual(sorted(page), sorted(os.listdir(FOLDER)))
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            for name, shown in zip(page, pool.map(block, page)):
                with self.subTest(scenario=name):
                    self.assertEqual(numberless(page[name]), numberless(shown))


if __name__ == "__main__":
    unittest.main(argv=["gallery.py"])

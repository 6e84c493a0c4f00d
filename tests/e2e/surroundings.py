#!/usr/bin/env python3
"""Runs the checker in surroundings that must not change its exit status.

usage: surroundings.py CHECKER LIBDIAGSIM [unittest arguments]
"""
import os
import resource
import shutil
import subprocess
import sys
import tempfile
import unittest

from expected import scenario_file
from preload import simulated

CHECKER = os.path.abspath(sys.argv[1])
REFUSED = {"requests": {"loopback": {"refuse": True}}}  # one line is printed, and the run passes
FAILING = {"requests": {"start": {"refuse": True}}}


class Surroundings(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        # The loader divides by blanks and colons.
        self.preload = shutil.copy(sys.argv[2], self.folder)
        self.trace = os.path.join(self.folder, "trace")

    def start(self, scenario, **more):
        environment = simulated(self.preload, scenario_file(scenario, self.folder), self.trace)
        return subprocess.Popen([CHECKER], env=environment, **more)

    def status(self, scenario, **more):
        return self.start(scenario, **more).wait(30)

    def test_nobody_reads_what_is_printed(self):
        for scenario, expected in ((REFUSED, 0), (FAILING, 1)):
            reader, writer = os.pipe()
            os.close(reader)
            self.assertEqual(self.status(scenario, stdout=writer, stderr=writer), expected, "reader gone")
            os.close(writer)
            with open("/dev/full", "w") as full:
                self.assertEqual(self.status(scenario, stdout=full), expected, "disk full")
            with open(os.path.join(self.folder, "out"), "w") as out:
                # A limit of 0 would also concern the trace.
                limit = 4096
                out.truncate(limit)
                out.seek(0, os.SEEK_END)
                self.trace = "/dev/null"
                status = self.status(scenario, stdout=out, preexec_fn=lambda: resource.setrlimit(
                    resource.RLIMIT_FSIZE, (limit, limit)))
                self.assertEqual(status, expected, "file too large")

    def test_closed_standard_streams(self):
        os.mkfifo(self.trace)
        for closed in ((0,), (1,), (2,), (0, 1, 2)):
            def close(streams=closed):
                for stream in streams:
                    os.close(stream)
            pipe, calls = subprocess.PIPE, []
            with self.start(REFUSED, stdin=pipe, stdout=pipe, stderr=pipe, preexec_fn=close) as checker:
                with open(self.trace) as lines:
                    for line in lines:
                        calls += [line] if "  host  " in line else []
                        if "start response" in line:
                            self.assertEqual(self.null_descriptors(checker.pid), set(closed))
                self.assertEqual(checker.wait(30), 0, closed)
            self.assertEqual(len(calls), 15, (closed, calls))
            self.assertEqual([call for call in calls if "refused:" in call], [], closed)

    @staticmethod
    def null_descriptors(pid):
        folder = f"/proc/{pid}/fd"
        return {int(name) for name in os.listdir(folder) if os.readlink(f"{folder}/{name}") == "/dev/null"}

    def test_what_is_printed_is_not_read_before_the_end(self):
        os.mkfifo(self.trace)
        # Each log packet prints a line; together they are more than a pipe holds.
        storm = {"adsp": {"period_us": 100, "ignore_log_mask": True, "claimed_length": 60000}}
        checker = self.start(storm, stdout=subprocess.PIPE)
        with open(self.trace) as lines:
            packets = 0
            for line in lines:
                packets += "log packet" in line
                if "host    close" in line:
                    break
        self.assertGreater(len(checker.communicate(timeout=30)[0]), 100000)
        self.assertGreater(packets, 1000)
        self.assertEqual(checker.returncode, 0)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]])

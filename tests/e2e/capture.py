#!/usr/bin/env python3
"""Captures of every scenario: what diagtap shows is what the device traced, and a replay gives the report again.

usage: capture.py CHECKER LIBDIAGSIM DIAGTAP [unittest arguments]
"""
import concurrent.futures
import json
import os
import re
import subprocess
import sys
import tempfile
import threading
import unittest

from expected import HERE, driver_cases, fault_cases, scenario_file
from preload import preload, simulated

CHECKER, DIAGTAP = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[3])
PRELOAD, FOLDER = preload(CHECKER, sys.argv[2])
REMARK = re.compile(r"(=> -?\w+(?: E\w+)?) \(.*\)$")  # of the device on its result
TRIES = 3  # more, each alone: this machine may be busy
SLOW = bool(os.environ.get("CAPTURE_SLOW"))  # a replay may come too late for its recorded distances in time
UNSEEN = re.compile(r"=> (dropped|lost)|write waits|the device is gone")


def diagtap(*arguments):
    return subprocess.run([DIAGTAP, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


class Run:
    def __init__(self, scenario, folder, **environment):
        self.capture, self.trace = os.path.join(folder, "capture"), os.path.join(folder, "trace")
        environment = simulated(PRELOAD, scenario_file(scenario, folder), self.trace,
                                **{"TAVRIK_CAPTURE": self.capture, **environment})
        done = subprocess.run([CHECKER], env=environment, cwd=FOLDER, stdin=subprocess.DEVNULL, timeout=30,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.status, self.output = done.returncode, done.stdout

    def traced(self):
        with open(self.trace) as lines:
            return [REMARK.sub(r"\1", text(line)) for line in lines if not UNSEEN.search(line)]

    def shown(self):
        done = diagtap("show", self.capture)
        assert (done.returncode, done.stderr) == (0, ""), done
        # Who ends a reader interrupts it; the device does not see that.
        return [text(line) for line in done.stdout.splitlines() if "read => -1 EINTR" not in line]

    def report(self):
        report = json.loads(diagtap("report", self.capture, "--format", "json").stdout)
        return self.status, report["sessions"]

    def masks_took(self):
        """The longest time in milliseconds; the client waits for 21."""
        return max((session["steps"][1].get("duration_us", 0) for session in self.report()[1]), default=0) / 1000


def text(line):
    return line.split(" ms  ", 1)[1].rstrip("\n")


def of(lines, host):
    """The lines of one side, but for reads of nothing: a device that is gone returns them for ever."""
    return [line for line in lines if line.startswith("host") == host and "empty buffer" not in line]


def timeless(report):
    """Without what differs from run to run."""
    status, sessions = report
    for session in sessions:
        if session["steps"][-1]["state"] == "not reached":  # the process ended while packets came
            session["log_packets"] = session["steps"][10] = {}
        session.pop("loopback", None)
        session["log_packets"].pop("period_us", None)
        session["remarks"] = [re.sub(r"\d+", "N", remark) for remark in session.get("remarks", ())
                              if not remark.startswith(("slow", "gap"))]
        session["cause"] = re.sub(r"\d+ ms", "N ms", session["cause"])
        for step in session["steps"]:
            step.pop("time_us", None), step.pop("duration_us", None)
    return status, sessions


class Captures(unittest.TestCase):
    maxDiff = None
    alone = threading.RLock()

    def check(self, case, recordings=TRIES):
        with tempfile.TemporaryDirectory() as folder, tempfile.TemporaryDirectory() as other:
            first = Run(case.scenario, folder)
            self.assertIn(first.status, (0, 1) if case.status is None else (case.status,))
            shown, traced = first.shown(), first.traced()
            self.assertEqual(of(shown, True), of(traced, True))
            # What the client did not read any more is missing at the end, as is what the device sent while the
            # process ended.
            read, sent = of(shown, False), of(traced, False)
            both = min(len(read), len(sent))
            self.assertEqual(read[:both], sent[:both])
            # Where a stray answer races with the next request, each run ends as it may.
            if case.status is None:
                return
            expected = timeless(first.report())
            replayed = timeless(Run({"replay": first.capture}, other).report())
            for _ in range(TRIES):
                if replayed != expected:
                    with self.alone:
                        replayed = timeless(Run({"replay": first.capture}, other).report())
            if replayed != expected and recordings > 0 and first.masks_took() > 10:
                # They came just in time, which a replay cannot repeat.
                with self.alone:
                    return self.check(case, recordings - 1)
            if not SLOW:
                self.assertEqual(replayed, expected)

    def test_every_scenario(self):
        with concurrent.futures.ThreadPoolExecutor(8) as pool:
            for case, done in [(case, pool.submit(self.check, case)) for case in (*fault_cases(), *driver_cases())]:
                with self.subTest(scenario=case.scenario):
                    done.result()

    def test_a_capture_that_fails_costs_one_warning(self):
        with tempfile.TemporaryDirectory() as folder:
            for name, more, warning in (("/dev/full", {}, "capture ended: No space left on device"),
                                        (folder + "/no/file", {}, "no capture: .*: No such file or directory"),
                                        (folder + "/cut", {"TAVRIK_CAPTURE_LIMIT": "2000"}, "capture ended: limit of 2000 bytes")):
                run = Run({}, folder, TAVRIK_CAPTURE=name, **more)
                self.assertEqual(run.status, 0)
                self.assertRegex(run.output, rf"^[^\n]*\[DIAG\]: WARN {warning}\n$")
            self.assertLessEqual(os.path.getsize(folder + "/cut"), 2000)
            self.assertEqual(diagtap("show", folder + "/cut").returncode, 0)
            self.assertEqual(Run({}, folder, TAVRIK_CAPTURE="").output, "")

    def test_what_can_be_read_of_a_broken_file_is_shown(self):
        with tempfile.TemporaryDirectory() as folder:
            whole = Run({}, folder).capture
            lines = diagtap("show", whole).stdout
            with open(whole, "rb") as file:
                content = file.read()
            self.assertIn(b"/dev/diag", content, "the interface's name")
            broken = os.path.join(folder, "broken")
            at, ends = 0, []
            while at < len(content):
                at += int.from_bytes(content[at + 4:at + 8], "little")
                ends.append(at)
            for cut in range(1, len(content), 37):
                with open(broken, "wb") as file:
                    file.write(content[:cut])
                done = diagtap("show", broken)
                last = max([end for end in ends if end <= cut], default=0)
                self.assertTrue(lines.startswith(done.stdout))
                self.assertEqual(done.returncode, int(cut != last))
                if cut > 12 and cut != last:
                    self.assertEqual(done.stderr, f"diagtap: {broken}: offset {last}: block cut off\n")
            for name in (DIAGTAP, folder, folder + "/missing"):
                done = diagtap("report", name)
                self.assertEqual((done.returncode, done.stderr.count("\n")), (1, 1), done)

    def test_run_ends_as_its_program(self):
        with tempfile.TemporaryDirectory() as folder:
            kept = os.path.join(folder, "kept")
            done = diagtap("run", "-o", kept, "--", "sh", "-c", "echo $TAVRIK_CAPTURE; exit 3")
            self.assertEqual((done.returncode, done.stdout, done.stderr),
                             (3, kept + "\n", "diagtap: sh made no call on the node, or no capture\n"))
            self.assertEqual(diagtap("run", "--", "sh", "-c", "kill -9 $$").returncode, 137)
            self.assertEqual(diagtap("run", "--", "sh", "-c", "kill -INT $PPID; exit 3").returncode, 3, "Ctrl-C")
            for program, status, reason in ((folder + "/missing", 127, "No such file or directory"),
                                            (folder, 126, "Permission denied")):
                done = diagtap("run", "--", program)
                self.assertEqual((done.returncode, done.stderr.splitlines()[0]),
                                 (status, f"diagtap: cannot run {program}: {reason}"))


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[4:]])

#!/usr/bin/env python3
"""Runs the checker as a process against the simulated device: exit status, log lines, traffic, time.

usage: e2e.py CHECKER LIBDIAGSIM [unittest arguments]

E2E_MARGIN_MS is the time that a run may take beyond its time-outs (default 100). E2E_EMULATOR is the
command that runs a checker of another machine: qemu-arm and its options, separated by blanks.
"""
import concurrent.futures
import os
import re
import subprocess
import sys
import tempfile
import threading
import time
import unittest

from expected import FAILED_INIT, HERE, PAUSE, REQUESTS, Outcome, driver_cases, fault_cases, scenario_file
from preload import preload, simulated

CHECKER = os.path.abspath(sys.argv[1])
MARGIN = int(os.environ.get("E2E_MARGIN_MS", "100"))
EMULATOR = os.environ.get("E2E_EMULATOR", "").split()
PRELOAD, FOLDER = preload(CHECKER, sys.argv[2], EMULATOR)
SLOW = MARGIN > 100  # instrumented or emulated


class Run(Outcome):
    """One run of the checker; `scenario` is an object, or the name of a file in scenarios/."""

    def __init__(self, scenario=None, preload=True, program=CHECKER):
        with tempfile.TemporaryDirectory() as folder:
            trace = os.path.join(folder, "trace")
            environment = simulated(PRELOAD, scenario_file(scenario or {}, folder), trace)
            command = [*EMULATOR, program]
            if not preload or EMULATOR:
                environment.pop("LD_PRELOAD")
            if preload and EMULATOR:  # into the checker, not into the emulator
                command[-1:] = ["-E", "LD_PRELOAD=" + PRELOAD, program]
            begin = time.monotonic()
            done = subprocess.run(command, env=environment, cwd=FOLDER, timeout=30,
                                  stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE, text=True)
            super().__init__(done.returncode, done.stdout, done.stderr,
                             (time.monotonic() - begin) * 1000, trace)


def share_of_a_processor():
    """The part of a processor that this process gets when it wants all of it."""
    begin, used = time.monotonic(), time.process_time()
    while time.monotonic() < begin + 0.5:
        pass
    return (time.process_time() - used) / (time.monotonic() - begin)


class Checker(unittest.TestCase):
    alone = threading.Lock()

    def check(self, run, status, messages):
        self.assertEqual(run.messages(), messages, run)
        self.assertEqual(run.errors, "", run)
        self.assertEqual(run.status, status, run)

    def run_within(self, milliseconds, scenario, preload=True):
        """A run. Repeats one that took too long alone, since this machine may have been busy."""
        run = Run(scenario, preload)
        for _ in range(2):
            if run.milliseconds <= milliseconds:
                break
            with self.alone:
                run = Run(scenario, preload)
        self.assertLessEqual(run.milliseconds, milliseconds, run)
        return run

    def each(self, cases, check):
        """Runs check(case) for all cases, four at a time, each as a subtest."""
        def caught(case):
            try:
                check(case)
            except Exception as error:  # noqa: BLE001 - whatever it is, it belongs to this case
                return error
            return None
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            for case, error in zip(cases, pool.map(caught, cases)):
                with self.subTest(case=case):
                    if error:
                        raise error

    def test_exact_traffic_of_a_good_run(self):
        run = Run("quiet.json")
        self.check(run, 0, [])
        self.assertEqual(run.output, "")
        # The loopback response contains the time.
        found = [re.sub(r"(4B 12 2A 00)( [0-9A-F]{2}){8}$", r"\1 (time)", line) for line in run.trace]
        with open(os.path.join(HERE, "good.trace")) as lines:
            self.assertEqual(found, lines.read().splitlines())
        pauses = []  # on a busy machine a pause is longer
        for run in (run, *(Run("quiet.json") for _ in range(2))):
            pauses.append(run.time_of("stop request") - run.time_of("start response"))
        self.assertGreaterEqual(min(pauses), PAUSE - 1)
        self.assertLess(min(pauses), PAUSE + 250)

    def test_no_device(self):
        scenarios = [{"open": {"errno": name}} for name in ("ENOENT", "EACCES", "EBUSY", "ENODEV")]
        for scenario in scenarios:
            run = self.run_within(MARGIN, scenario)
            self.check(run, 1, FAILED_INIT)
        if not os.path.exists("/dev/diag"):
            run = self.run_within(MARGIN, None, preload=False)
            self.check(run, 1, FAILED_INIT)

    def check_case(self, case):
        run = self.run_within(case.milliseconds + MARGIN, case.scenario)
        try:
            case.check(run)
        except AssertionError as error:
            self.fail(f"{error}\n{run}")
        return run

    def test_every_fault_on_every_request(self):
        self.each(fault_cases(), self.check_case)

    def test_the_driver_and_the_stream(self):
        def check(case):
            run = self.check_case(case)
            if case.status is not None:
                self.assertEqual(run.status == 0, run.acknowledged(), run)

        self.each(driver_cases(), check)

    def test_a_misspelt_scenario_is_no_verdict(self):
        run = Run({"requests": {"strat": {}}})
        self.assertEqual(run.status, 2, run)
        known = re.search(r'^diagsim: .*unknown key "strat" in requests \(known: (.*), any\)$', run.errors, re.M)
        self.assertEqual(set(known[1].split(", ")), set(REQUESTS), run)

    @unittest.skipIf(EMULATOR, "the wrapper runs one program")
    def test_the_example_prints_ten_values(self):
        example = os.path.join(os.path.dirname(CHECKER), "..", "examples", "clock-watch")
        for scenario, status in (({}, 0), ({"requests": {"stop": {"refuse": True}}}, 1)):
            run = Run(scenario, program=example)
            self.assertEqual(run.status, status, run)
            values = re.findall(r"^\d+\.\d{3} s  576\.0 MHz$", run.output, re.M)
            self.assertEqual(len(values), 10, run)
            self.assertEqual(run.errors, "clock-watch: collection did not stop\n" if status else "")

    @unittest.skipIf(EMULATOR, "the wrapper runs one program")
    def test_the_embedding_example_gets_its_line_and_its_message(self):
        example = os.path.join(os.path.dirname(CHECKER), "..", "examples", "embed")
        for config, status in (("embed.json", 0), ("missing.json", 1)):
            path = os.path.join(HERE, "..", "..", "examples", config)
            run = subprocess.run([example, path], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            self.assertEqual(run.returncode, status, run)
            refusal = "Cannot add event PMU_5 to ADSP PMU, the event limit has been reached."
            adapter = "adapter: ADSPPM WARN ADSPPM::registerListener: " + refusal
            self.assertEqual(run.stdout.splitlines().count(adapter), 1 - status, run)
            self.assertRegex(run.stdout, rf"(?m)^channel serverMessages: .* UTC {refusal}$")
            self.assertEqual(run.stderr, status * f"JSOM::fromFile(): could not open file '{path}'\n"
                                                  f"Could not load file `{path}'.\n")

    @unittest.skipIf(SLOW, "time is no measure here")
    def test_no_wait_costs_more_than_its_answer_took(self):
        # From the first open to the last close: starting a process is the machine's matter. A wait
        # that costs too much does so in every run, a busy machine only in most.
        beyond = []
        while len(beyond) < 60:
            beyond.append(Run().times[-1] - PAUSE)
            if sum(time <= 5 for time in beyond) == 5:
                return
        if share_of_a_processor() < 0.8:
            self.skipTest("the machine is too busy to measure milliseconds")
        self.fail(f"milliseconds beyond the pause: {sorted(beyond)}")

    @unittest.skipIf(SLOW and not EMULATOR, "sanitizers bring their own libraries")
    def test_links_nothing_but_the_standard_libraries(self):
        dump = subprocess.run(["readelf", "-d", CHECKER], stdout=subprocess.PIPE, text=True, check=True)
        needed = re.findall(r"\(NEEDED\).*\[(.*?)\.so", dump.stdout)
        self.assertLessEqual(set(needed), {"libstdc++", "libm", "libgcc_s", "libc", "libpthread",
                                           "ld-linux-x86-64", "ld-linux-armhf", "ld-linux-aarch64"})


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]])

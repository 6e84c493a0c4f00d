#!/usr/bin/env python3
"""Runs the checker as a process against the simulated device: exit status, log lines, traffic, time.

usage: e2e.py CHECKER LIBDIAGSIM [unittest arguments]

E2E_MARGIN_MS says how much longer than its time-outs a run may take (default 100). E2E_EMULATOR is
the command, words divided by blanks, that runs a checker of another machine (qemu-arm and options).
"""
import concurrent.futures
import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
CHECKER, PRELOAD = sys.argv[1:3]
MARGIN = int(os.environ.get("E2E_MARGIN_MS", "100"))
EMULATOR = os.environ.get("E2E_EMULATOR", "").split()
SLOW = MARGIN > 100  # instrumented or emulated
PAUSE = 250  # between start and stop
WAIT = 250  # for one response

LINE = re.compile(r"^[A-Z][a-z]{2} [0-3]\d [0-2]\d:[0-5]\d:[0-5]\d\.\d{3} "
                  r"\[(DIAG|ADSPPM)\]: (ERROR|WARN) (.+)$")
DROPPED = re.compile(r"(dropped|unsolicited)")

SETUP = {"message_masks": "extendedMsgCfgSetAllMasksReq", "event_report": "eventReportCtrlReq",
         "log_disable": "loggingCfgDisableReq", "log_ranges": "loggingCfgRetrieveRangesReq"}
REQUESTS = [*SETUP, "loopback", "log_mask", "start", "stop", "log_mask_clear"]

IN_ERROR = "DIAG::connect() => false [already in error]"
LOOPBACK = "ADSPPM::startMetricCollection() ADSPLoopbackReq "
CONFIG = "ADSPPM::startMetricCollection() ADSPPMConfigReq "
MASK_TIMEOUT = "loggingCfgSetReq response timeout"
NEVER_CONNECTED = [LOOPBACK + "send failed", IN_ERROR, IN_ERROR, CONFIG + "send failed", IN_ERROR]


def expectation(request, kind):
    """Exit status, messages and number of full time-outs, when this goes wrong with this request."""
    if kind == "fine":
        return 0, [], 0
    if request in SETUP:
        if request == "event_report" and kind == "unsent":
            return 0, ["eventReportCtrlReq send failed"], 0
        text = "send failed" if kind == "unsent" else "response timeout"
        return 1, [f"{SETUP[request]} {text}", *NEVER_CONNECTED], kind in ("silent", "late")
    text = "send failed" if kind == "unsent" else "timeout"
    mask = ["loggingCfgSetReq send failed"] if kind == "unsent" else [MASK_TIMEOUT]
    # What is never answered stays in front of everything behind it.
    blocked = kind == "silent"
    if request == "loopback":
        rest = [MASK_TIMEOUT, CONFIG + "timeout", MASK_TIMEOUT] if blocked else []
        return int(blocked), [LOOPBACK + text, *rest], 4 * blocked + 2 * (kind == "late")
    if request == "log_mask":
        rest = [CONFIG + "timeout", MASK_TIMEOUT] if blocked else []
        return int(blocked), [*mask, *rest], 3 * blocked + 2 * (kind == "late")
    if request == "start":
        rest = [MASK_TIMEOUT] if blocked else []
        return 1, [CONFIG + text, *rest], 2 * blocked + 2 * (kind == "late")
    if request == "stop":
        return 1, [MASK_TIMEOUT] if blocked else [], 2 * blocked + 2 * (kind == "late")
    return 0, mask, kind in ("silent", "late")


class Run:
    """One run of the checker; `scenario` is an object, or the name of a file in scenarios/."""

    def __init__(self, scenario=None, preload=True, program=CHECKER):
        with tempfile.TemporaryDirectory() as folder:
            trace = os.path.join(folder, "trace")
            environment = {key: value for key, value in os.environ.items()
                           if not key.startswith("DIAGSIM")}
            # A connection that failed leaves the reader behind, on purpose.
            environment["TSAN_OPTIONS"] = "report_thread_leaks=0"
            command = [*EMULATOR, program]
            if preload:
                environment["DIAGSIM_TRACE"] = trace
                environment["DIAGSIM_SCENARIO"] = self.file(scenario or {}, folder)
                if EMULATOR:  # for the checker, not for the emulator
                    command[-1:] = ["-E", "LD_PRELOAD=" + PRELOAD, program]
                else:
                    environment["LD_PRELOAD"] = PRELOAD
            begin = time.monotonic()
            done = subprocess.run(command, env=environment, timeout=30, stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            self.milliseconds = (time.monotonic() - begin) * 1000
            self.status, self.output, self.errors = done.returncode, done.stdout, done.stderr
            self.trace = []
            if os.path.exists(trace):
                with open(trace) as lines:
                    self.trace = [line.split("ms  ", 1)[1].rstrip("\n") for line in lines]

    @staticmethod
    def file(scenario, folder):
        if isinstance(scenario, str):
            return os.path.join(HERE, "scenarios", scenario)
        name = os.path.join(folder, "scenario.json")
        with open(name, "w") as out:
            json.dump(scenario, out)
        return name

    def messages(self):
        lines = [LINE.match(line) for line in self.output.splitlines()]
        assert all(lines), "not in the form of a log line:\n" + self.output
        for logger, level, text in (line.groups() for line in lines):
            warning = text == "eventReportCtrlReq send failed" or DROPPED.search(text)
            assert level == ("WARN" if warning else "ERROR"), self.output
            assert logger == ("ADSPPM" if text.startswith("ADSPPM::") else "DIAG"), self.output
        return [line.group(3) for line in lines]

    def acknowledged(self):
        accepted = [line for line in self.trace if "(accepted)" in line]
        return all(any(f"{name} response" in line for line in accepted) for name in ("start", "stop"))

    def __str__(self):
        return "\n".join([f"status {self.status}, {self.milliseconds:.0f} ms", self.output,
                          self.errors, *self.trace])


class Checker(unittest.TestCase):
    alone = threading.Lock()

    def check(self, run, status, messages, tolerated=False):
        found = run.messages()
        if tolerated:
            found = [text for text in found if not DROPPED.search(text)]
        self.assertEqual(found, messages, run)
        self.assertEqual(run.errors, "", run)
        self.assertEqual(run.status, status, run)

    def run_within(self, milliseconds, scenario, preload=True):
        """A run that took too long is tried again alone: this machine may have been busy."""
        run = Run(scenario, preload)
        for _ in range(2):
            if run.milliseconds <= milliseconds:
                break
            with self.alone:
                run = Run(scenario, preload)
        self.assertLessEqual(run.milliseconds, milliseconds, run)
        return run

    def each(self, cases, check):
        """Runs check(case) for all, some at a time, each as a subtest."""
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
        # The loopback's answer holds the time.
        found = [re.sub(r"(4B 12 2A 00)( [0-9A-F]{2}){8}$", r"\1 (time)", line) for line in run.trace]
        with open(os.path.join(HERE, "good.trace")) as lines:
            self.assertEqual(found, lines.read().splitlines())
        self.assertGreaterEqual(run.milliseconds, PAUSE)

    def test_no_device(self):
        scenarios = [{"open": {"errno": name}} for name in ("ENOENT", "EACCES", "EBUSY", "ENODEV")]
        for scenario in scenarios:
            run = self.run_within(MARGIN, scenario)
            self.check(run, 1, ["DIAG::connect() => false [Diag_LSM_Init failed]", *NEVER_CONNECTED])
        if not os.path.exists("/dev/diag"):
            run = self.run_within(MARGIN, None, preload=False)
            self.check(run, 1, ["DIAG::connect() => false [Diag_LSM_Init failed]", *NEVER_CONNECTED])

    def test_every_fault_on_every_request(self):
        with open(os.path.join(HERE, "faults.json")) as file:
            kinds = json.load(file)
        cases = [(request, kind, name) for kind in kinds for name in kinds[kind]
                 for request in REQUESTS]

        def check(case):
            request, kind, name = case
            scenario = {"requests": {request: kinds[kind][name]}}
            if kind == "unpredictable":
                # A stray frame answers whatever request is in front, so nearly anything may be
                # refused; but nothing hangs, and no success is reported that there was not.
                run = self.run_within(6 * WAIT + PAUSE + MARGIN, scenario)
                self.assertIn(run.status, (0, 1), run)
                self.assertEqual(run.errors, "", run)
                self.assertTrue(run.status == 1 or run.acknowledged(), run)
                return
            status, messages, waits = expectation(request, kind)
            # Whether a mask was set has no bearing on the time; whether there was a pause has.
            extra = kinds[kind][name].get("delay_ms", 0) if kind == "fine" else 0
            run = self.run_within(waits * WAIT + extra + PAUSE + MARGIN, scenario)
            self.check(run, status, messages, tolerated=True)
            self.assertTrue(run.status == 1 or run.acknowledged(), run)

        self.each(cases, check)

    def test_the_driver_and_the_stream(self):
        failed_init = ["DIAG::connect() => false [Diag_LSM_Init failed]", *NEVER_CONNECTED]
        allocation = "loggingCfgSetReq failed to allocate message buffer"
        cases = [
            ({"masks": {"message": False}}, 1, failed_init, 0),
            ({"masks": {"log": False}}, 1, failed_init, 0),
            ({"masks": {"event": False}}, 1, failed_init, 0),
            ({"masks": {"delay_ms": 10}}, 0, [], 0),
            ({"mode_switch": {"accepts": "value"}}, 0, [], 0),
            ({"mode_switch": {"accepts": "both"}}, 0, [], 0),
            ({"mode_switch": {"accepts": "none"}}, 1,
             ["extendedMsgCfgSetAllMasksReq send failed", *NEVER_CONNECTED], 0),
            ({"withdraw": {"result": 0}}, 0, [], 0),
            ({"deinit": {"result": 0, "announce": False}}, 0, [], 0),
            ({"deinit": {"result": -1, "announce": True}}, 0, [], 0),
            ({"deinit": {"result": 1, "announce": False}}, 0, [], 4),  # a second of grace
            ({"empty_reads": 3}, 0, [], 0),
            ({"at_open": ["10", "1000", "20000000", "20000000 FFFFFFFF", "08000000 4B",
                          "40000000 01", "00010000", "FFFFFFFF 00"]}, 0, [], 0),
            ({"ranges": {"1": 4294967295}}, 0, [allocation] * 2, 0),
            ({"ranges": {"1": 4294967288}}, 0, [allocation] * 2, 0),
            ({"ranges": {"1": 0}}, 0, [], 0),
            ({"ranges": {"1": 1600}}, 0, [], 0),
            ({"adsp": {"collecting": True, "period_us": 1000, "ignore_log_mask": True}}, 0, [], 0),
            ({"adsp": {"period_us": 100}}, 0, [], 0),
            ({"adsp": {"period_us": 5000, "record_length": 40}}, 0, [], 0),
            ({"adsp": {"period_us": 5000, "claimed_length": 0}}, 0, [], 0),
            ({"adsp": {"period_us": 5000, "claimed_length": 65535}}, 0, [], 0),
            ({"adsp": {"period_us": 5000, "version": 2}}, 0, [], 0),
            ("soak.json", 0, [], 0),
        ]

        def check(case):
            scenario, status, messages, waits = case
            run = self.run_within(waits * WAIT + PAUSE + MARGIN, scenario)
            self.check(run, status, messages, tolerated=True)
            self.assertEqual(run.status == 0, run.acknowledged(), run)

        self.each(cases, check)

    def test_a_misspelt_scenario_is_no_verdict(self):
        run = Run({"requests": {"start": {"dorp": True}}})
        self.assertEqual(run.status, 2, run)
        self.assertRegex(run.errors, r'^diagsim: .*unknown key "dorp" in requests\.start')

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
        for attempt in range(3):
            median = statistics.median(Run().milliseconds - PAUSE for _ in range(15))
            if median <= 5:
                return
        self.fail(f"median of {median:.1f} ms beyond the pause")

    @unittest.skipIf(SLOW and not EMULATOR, "sanitizers bring their own libraries")
    def test_links_nothing_but_the_standard_libraries(self):
        dump = subprocess.run(["readelf", "-d", CHECKER], stdout=subprocess.PIPE, text=True, check=True)
        needed = re.findall(r"\(NEEDED\).*\[(.*?)\.so", dump.stdout)
        self.assertLessEqual(set(needed), {"libstdc++", "libm", "libgcc_s", "libc", "libpthread",
                                           "ld-linux-x86-64", "ld-linux-armhf", "ld-linux-aarch64"})


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]])

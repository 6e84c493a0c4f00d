"""The runs and the report of script/soak."""
import argparse
import collections
import concurrent.futures
import contextlib
import json
import math
import os
import random
import re
import select
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time

from e2e.expected import WAIT, Outcome, driver_cases, fault_cases, scenario_file
from e2e.preload import preload, simulated

BUILD = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "build", "release")
CHECKER = os.path.join(BUILD, "app", "adsppm-check")
LIBRARY = os.path.join(BUILD, "sim", "libdiagsim.so")
GRACE = 20  # seconds beyond a run's time-outs before it counts as hanging
WARM_UP = 60  # seconds before samples of the cycles count
ENOUGH = 20  # samples that allow a statement about growth
TOLERANCE = 256  # kilobytes of resident memory
BUSY = 5  # percent of the time in which a task waits for a processor
OVERDUE = 0.9 * WAIT  # milliseconds; the checker needs the rest to take its response
MOST_DOUBTFUL = 0.02  # of the runs

stop = threading.Event()

Usage = collections.namedtuple("Usage", "memory descriptors threads")
Exchange = collections.namedtuple("Exchange", "request answered went_on")


def usage(pid):
    """Resident kilobytes, descriptors and threads of a process."""
    try:
        with open(f"/proc/{pid}/status") as file:
            status = dict(line.split(":", 1) for line in file)
        return Usage(int(status["VmRSS"].split()[0]), len(os.listdir(f"/proc/{pid}/fd")), int(status["Threads"]))
    except (OSError, KeyError):
        return Usage(0, 0, 0)


def exchanges(trace):
    """The requests sent, each with the milliseconds to its response and to the client's next action.

    A time is infinite if nothing came.
    """
    lines = []
    if os.path.exists(trace):
        with open(trace) as file:
            lines = re.findall(r"^ *([\d.]+) ms  (\w+) +(.*)$", file.read(), re.M)
    for at, (begin, who, text) in enumerate(lines):
        request = re.match(r"(.+?) request\b.* => 0$", text)
        if who == "host" and request:
            rest = [(float(time) - float(begin), who, text) for time, who, text in lines[at + 1:]]
            yield Exchange(
                request[1],
                next((ms for ms, _, text in rest if f"{request[1]} response" in text), math.inf),
                next((ms for ms, who, _ in rest if who == "host"), math.inf))


def overdue(case, found):
    """Whether the device delivered a response late that the scenario does not delay."""
    requests = case.scenario.get("requests", {}) if isinstance(case.scenario, dict) else {}
    delayed = {name.rstrip("s") for name, fault in requests.items() if "delay_ms" in fault}
    all_answered = case.status == 0 and not case.messages
    return any(one.answered >= OVERDUE and (
                   all_answered or one.answered < math.inf and
                   one.request.replace(" ", "_").rstrip("s") not in delayed)
               for one in found)


class Run:
    """One run of the checker."""

    def __init__(self, case, preloaded):
        library, home = preloaded
        with tempfile.TemporaryDirectory() as folder:
            trace = os.path.join(folder, "trace")
            # Half of the runs: a capture must change no verdict.
            self.captured = random.random() < 0.5
            environment = simulated(library, scenario_file(case.scenario, folder), trace,
                                    TAVRIK_CAPTURE=os.path.join(folder, "capture") if self.captured else "")
            begin = time.monotonic()
            # A session of its own keeps the terminal's Ctrl-C away.
            process = subprocess.Popen(CHECKER, env=environment, cwd=home, stdin=subprocess.DEVNULL,
                                       stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                       errors="replace", start_new_session=True)
            try:
                output, errors = process.communicate(timeout=case.milliseconds / 1000 + GRACE)
            except subprocess.TimeoutExpired:
                process.kill()
                output, errors = process.communicate()
            self.outcome = Outcome(process.returncode, output, errors,
                                   (time.monotonic() - begin) * 1000, trace)
            self.exchanges = list(exchanges(trace))
        self.case, self.mistake = case, None
        try:
            case.check(self.outcome)
        except AssertionError as error:
            self.mistake = str(error)

    def late(self):
        return self.outcome.status in (0, 1) and overdue(self.case, self.exchanges)

    def timed_out(self):
        # A stop without a response leaves no log line.
        return self.outcome.status in (0, 1) and (
            re.search("timeout|Diag_LSM_Init failed", self.outcome.output) or
            any(one.request == "stop" and one.went_on >= OVERDUE for one in self.exchanges))


def processors_are_short():
    try:
        with open("/proc/pressure/cpu") as file:
            waits = map(float, re.findall(r"avg[16]0=([\d.]+)", file.readline()))
    except OSError:
        return False
    return max(waits) >= BUSY


class Checkers:
    """Runs the checker, two at a time, with the cases that `choose` returns until it returns None.

    Passes the case of each run that is no evidence to `excused`.
    """

    preloaded = None  # the result of preload()

    def __init__(self, choose, excused):
        self.choose, self.excused, self.lock = choose, excused, threading.Lock()
        self.runs = self.captured = self.exits_of_0 = self.wrong = self.late = self.doubtful = 0
        pool = concurrent.futures.ThreadPoolExecutor(2)
        self.slots = [pool.submit(self.work) for _ in range(2)]

    def work(self):
        while True:
            with self.lock:
                case = self.choose()
            if not case:
                return
            run = Run(case, self.preloaded)
            if not run.mistake or not self.excuse(run):
                self.count(run)

    def excuse(self, run):
        """Whether the machine, not the checker, caused the mistake."""
        late = run.late() and self.late < self.runs + 10  # the soak must end on a hopeless machine
        doubtful = not late and run.timed_out() and processors_are_short() and not all(
            Run(run.case, self.preloaded).mistake for _ in range(2))
        with self.lock:
            self.late += late
            self.doubtful += doubtful
            if late or doubtful:
                self.excused(run.case)
                self.show(run, "late" if late else "doubtful")
        return late or doubtful

    def count(self, run):
        with self.lock:
            self.runs += 1
            self.captured += run.captured
            self.exits_of_0 += run.outcome.status == 0
            self.wrong += run.mistake is not None
            if run.mistake:
                self.show(run, f"run {self.runs}")

    @staticmethod
    def show(run, title):
        print(f"{title}: {run.mistake}\n{json.dumps(run.case.scenario)}\n{run.outcome}", flush=True)

    def good(self):
        return not self.wrong and self.doubtful <= max(1, self.runs * MOST_DOUBTFUL)

    def counts(self):
        return f"{self.captured:,} captured, {self.wrong} wrong, {self.late} late, {self.doubtful} doubtful"

    def join(self):
        for slot in self.slots:
            slot.result()


class Cycles:
    """A process that starts and stops collection all the time, with scenarios that succeed."""

    def __init__(self, chance, cases):
        self.chance, self.count, self.failed, self.samples = chance, 0, False, []
        self.scenarios = [case.scenario for case in cases
                          if case.status == 0 and not case.messages and case.scenario != "soak.json"
                          and not {"adsp", "ranges"} & case.scenario.keys()]  # these give values
        self.process = subprocess.Popen(os.path.join(BUILD, "tests", "soak", "Soak"),
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, start_new_session=True)
        self.work = concurrent.futures.ThreadPoolExecutor(1).submit(self.run)

    def run(self):
        begin = time.monotonic()
        while not stop.is_set() and not self.failed:
            adsp = {"period_us": self.chance.choice([0, 100, 1000, 5000]),
                    "ignore_log_mask": self.chance.choice([False, True])}
            self.cycle({**self.chance.choice(self.scenarios), "adsp": adsp,
                        "remote_mask": self.chance.choice([0, 7])})
            elapsed = time.monotonic() - begin
            if elapsed >= len(self.samples):
                self.samples.append((elapsed, self.usage_at_rest()))
        try:
            self.process.communicate(timeout=GRACE)
        except subprocess.TimeoutExpired:
            self.process.kill()
        self.failed = self.failed or self.process.wait() != 0

    def usage_at_rest(self):
        """The usage between two cycles: a thread that was joined stays listed for a moment, a leaked one for good."""
        end = time.monotonic() + 1
        while (used := usage(self.process.pid)).threads > 1 and time.monotonic() < end:
            time.sleep(0.001)
        return used

    def cycle(self, scenario):
        with contextlib.suppress(BrokenPipeError):  # the missing answer is the failure
            self.process.stdin.write(json.dumps(scenario).encode() + b"\n")
            self.process.stdin.flush()
        output, part, pipe = b"", b"?", self.process.stdout.fileno()
        while part and not output.endswith(b"done\n"):
            part = os.read(pipe, 65536) if select.select([pipe], [], [], GRACE)[0] else b""
            output += part
        self.failed = not output.endswith(b"done\n")
        self.count += not self.failed
        if self.failed:
            print(f"cycle {self.count + 1}: {output.decode(errors='replace')}\n{json.dumps(scenario)}",
                  flush=True)

    def verdict(self):
        """Whether nothing grew, and a phrase about it."""
        used = [sample for seconds, sample in self.samples if seconds >= WARM_UP]
        if len(used) < ENOUGH:
            return True, "too few samples for a statement about memory, descriptors and threads"
        quarter = len(used) // 4
        first, last = (statistics.median(sample.memory for sample in part)
                       for part in (used[:quarter], used[-quarter:]))
        level = last - first <= TOLERANCE
        text = f"memory {'level' if level else 'grows'} ({first:,.0f} kB -> {last:,.0f} kB)"
        for name in ("descriptors", "threads"):
            counts = {getattr(sample, name) for sample in used}
            level = level and len(counts) == 1
            text += f", {name} {'level' if len(counts) == 1 else f'not level (up to {max(counts)})'}"
        return level, text


def soak_for(seconds, seed):
    print(f"seed {seed}", flush=True)
    cases, chance, begin = fault_cases() + driver_cases(), random.Random(seed), time.monotonic()
    cycles = Cycles(random.Random(seed), cases)
    checkers = Checkers(lambda: None if stop.is_set() else chance.choice(cases), lambda case: None)
    while not stop.is_set() and time.monotonic() < begin + seconds:
        stop.wait(min(60, max(0, begin + seconds - time.monotonic())))
        print(f"{(time.monotonic() - begin) / 60:6.1f} min: {checkers.runs:,} runs, {checkers.counts()}; "
              f"{cycles.count:,} cycles", flush=True)
    stop.set()
    checkers.join()
    cycles.work.result()
    level, text = cycles.verdict()
    good = level and checkers.good() and not cycles.failed
    print(f"verdict: {'good' if good else 'bad'}: {checkers.runs:,} runs, {checkers.counts()}, "
          f"{cycles.count:,} cycles{' and one that failed' * cycles.failed}, {text}")
    return good


def soak(count):
    left = [case for case in driver_cases() if case.scenario == "soak.json"] * count
    checkers = Checkers(lambda: left.pop() if left and not stop.is_set() else None, left.append)
    checkers.join()
    print(f"{checkers.exits_of_0} of {count} exit 0, {checkers.counts()}")
    return checkers.exits_of_0 == count and checkers.good()


def main():
    parser = argparse.ArgumentParser(prog="script/soak")
    parser.add_argument("count", nargs="?", type=int, default=1000)
    parser.add_argument("--hours", type=float, default=0)
    parser.add_argument("--minutes", type=float, default=0)
    parser.add_argument("--seed", type=int, default=random.randrange(10 ** 6))
    wanted = parser.parse_args()
    seconds = wanted.hours * 3600 + wanted.minutes * 60
    if wanted.count < 1 or not 0 <= seconds < float("inf"):
        parser.error("these numbers are positive")
    Checkers.preloaded = preload(CHECKER, LIBRARY)
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: stop.set())
    return 0 if (soak_for(seconds, wanted.seed) if seconds else soak(wanted.count)) else 1


if __name__ == "__main__":
    sys.exit(main())

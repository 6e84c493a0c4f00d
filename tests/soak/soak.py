"""What script/soak runs, and says."""
import argparse
import collections
import concurrent.futures
import contextlib
import json
import math
import operator
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
from e2e.preload import preload

BUILD = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "build", "release")
CHECKER = os.path.join(BUILD, "app", "adsppm-check")
LIBRARY = os.path.join(BUILD, "sim", "libdiagsim.so")
GRACE = 20  # seconds beyond what a run may take, until it counts as one that hangs
LOOK = 0.05  # seconds between two looks at a checker
WARM_UP = 60  # seconds, without a say in what is level
ENOUGH = 20  # samples for a statement
TOLERANCE = 256  # kilobytes of resident memory
BUSY = 5  # percent of the time in which a task waits for a processor
OVERDUE = 0.9 * WAIT  # milliseconds; the rest is for the checker to take its answer
MOST_DOUBTFUL = 0.02  # of the runs

stop = threading.Event()


class Usage(collections.namedtuple("Usage", "memory descriptors threads")):
    def __str__(self):
        return f"{self.memory:,} kB, {self.descriptors} descriptors, {self.threads} threads"

    def or_more(self, other):
        return Usage(*map(max, self, other))

    def excessive(self):
        return any(map(operator.gt, self, ALLOWED))


NOTHING = Usage(0, 0, 0)
# Of a checker: twice the memory that it takes; the standard streams, the trace, three of the device and
# its client, and a file that the C library reads; its own thread, the reader and the device's.
ALLOWED = Usage(6144, 8, 3)


def usage(pid, memory):
    """What a process uses, VmRSS or VmHWM (the most so far) of memory; NOTHING when it has ended."""
    try:
        with open(f"/proc/{pid}/status") as file:
            status = dict(line.split(":", 1) for line in file)
        return Usage(int(status[memory].split()[0]), len(os.listdir(f"/proc/{pid}/fd")),
                     int(status["Threads"]))
    except (OSError, KeyError):
        return NOTHING


def start(program, **options):
    # In a session of its own, where the terminal's Ctrl-C does not reach it.
    return subprocess.Popen(program, stdout=subprocess.PIPE, start_new_session=True, **options)


def watch(process, seconds):
    """Its output, errors, and what it used at most; ends a process that takes longer."""
    # Not the kernel's own account of its peak, which includes what was forked for it.
    used, end = NOTHING, time.monotonic() + seconds
    while True:
        try:
            return *process.communicate(timeout=LOOK), used
        except subprocess.TimeoutExpired:
            used = used.or_more(usage(process.pid, "VmHWM"))
            if time.monotonic() > end:
                process.kill()


class Run:
    """One run of the checker."""

    def __init__(self, case, preloaded):
        library, home = preloaded
        with tempfile.TemporaryDirectory() as folder:
            trace = os.path.join(folder, "trace")
            environment = {**os.environ, "LD_PRELOAD": library, "DIAGSIM_TRACE": trace,
                           "DIAGSIM_SCENARIO": scenario_file(case.scenario, folder)}
            begin = time.monotonic()
            process = start(CHECKER, env=environment, cwd=home, stdin=subprocess.DEVNULL,
                            stderr=subprocess.PIPE, text=True, errors="replace")
            output, errors, self.used = watch(process, case.milliseconds / 1000 + GRACE)
            self.outcome = Outcome(process.returncode, output, errors,
                                   (time.monotonic() - begin) * 1000, trace)
            self.exchanges = list(exchanges(trace))
        self.case, self.mistake = case, None
        try:
            case.check(self.outcome)
            assert not self.used.excessive(), f"it used {self.used}; allowed {ALLOWED}"
        except AssertionError as error:
            self.mistake = str(error)

    def may_be_excused(self):
        return self.outcome.status in (0, 1) and not self.used.excessive()

    def late(self):
        """Whether the device was late by its own trace, so that a time-out was due."""
        return self.may_be_excused() and overdue(self.case, self.exchanges)

    def timed_out(self):
        # A stop that is not acknowledged leaves no log line.
        return self.may_be_excused() and (
            re.search("timeout|Diag_LSM_Init failed", self.outcome.output) or
            any(one.request == "stop" and one.went_on >= OVERDUE for one in self.exchanges))


class Exchange(collections.namedtuple("Exchange", "request answered went_on")):
    """A request, and the milliseconds until its answer, and until the client's next action."""


def exchanges(trace):
    """The requests of a trace file that were sent; what never came took for ever."""
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
    """Whether an answer that the scenario gives in time came too late, or not at all."""
    requests = case.scenario.get("requests", {}) if isinstance(case.scenario, dict) else {}
    delayed = {name.rstrip("s") for name, fault in requests.items() if "delay_ms" in fault}
    all_answered = case.status == 0 and not case.messages
    return any(one.answered >= OVERDUE and (
                   all_answered or one.answered < math.inf and
                   one.request.replace(" ", "_").rstrip("s") not in delayed)
               for one in found)


def processors_are_short():
    try:
        with open("/proc/pressure/cpu") as file:
            waits = map(float, re.findall(r"avg[16]0=([\d.]+)", file.readline()))
    except OSError:
        return False
    return max(waits) >= BUSY


class Checkers:
    """Runs of the checker, two at a time, of the cases that `choose` gives until it gives None.

    `excused` gets the case of each run that says nothing about the checker.
    """

    preloaded = None  # what preload() gives, for all

    def __init__(self, choose, excused):
        self.choose, self.excused, self.lock = choose, excused, threading.Lock()
        self.runs = self.exits_of_0 = self.wrong = self.late = self.doubtful = 0
        self.used = NOTHING  # at most, since it was last told
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
        """Whether the run says nothing about the checker."""
        late = run.late() and self.late < self.runs + 10  # on a hopeless machine there is an end
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
            self.exits_of_0 += run.outcome.status == 0
            self.wrong += run.mistake is not None
            self.used = self.used.or_more(run.used)
            if run.mistake:
                self.show(run, f"run {self.runs}")

    @staticmethod
    def show(run, title):
        print(f"{title}: {run.mistake}\n{json.dumps(run.case.scenario)}\n{run.outcome}", flush=True)

    def good(self):
        return not self.wrong and self.doubtful <= max(1, self.runs * MOST_DOUBTFUL)

    def counts(self):
        return f"{self.wrong} wrong, {self.late} late, {self.doubtful} doubtful"

    def join(self):
        for slot in self.slots:
            slot.result()


class Cycles:
    """The process that starts and stops collection all the while, with scenarios that succeed."""

    def __init__(self, chance, cases):
        self.chance, self.count, self.failed = chance, 0, False
        self.scenarios = [case.scenario for case in cases
                          if case.status == 0 and not case.messages and case.scenario != "soak.json"
                          and not {"adsp", "ranges"} & case.scenario.keys()]  # there are values then
        self.samples = []  # (seconds, Usage)
        self.process = start(os.path.join(BUILD, "tests", "soak", "Soak"), stdin=subprocess.PIPE,
                             stderr=subprocess.STDOUT)
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
                # A thread that ended may stay listed for a moment.
                used = [usage(self.process.pid, "VmRSS") for _ in range(5)]
                self.samples.append((elapsed, min(used, key=lambda one: one.threads)))
        try:
            self.process.communicate(timeout=GRACE)
        except subprocess.TimeoutExpired:
            self.process.kill()
        self.failed = self.failed or self.process.wait() != 0

    def cycle(self, scenario):
        with contextlib.suppress(BrokenPipeError):  # there is no answer either
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


def tell(checkers, cycles, begin):
    with checkers.lock:
        most, checkers.used = checkers.used, NOTHING
    now = cycles.samples[-1][1] if cycles.samples else NOTHING
    print(f"{(time.monotonic() - begin) / 60:6.1f} min: {checkers.runs:,} runs, {checkers.counts()}, "
          f"at most {most}; {cycles.count:,} cycles, now {now}", flush=True)


def soak_for(seconds, seed):
    print(f"seed {seed}", flush=True)
    cases, chance, begin = fault_cases() + driver_cases(), random.Random(seed), time.monotonic()
    cycles = Cycles(random.Random(seed), cases)
    checkers = Checkers(lambda: None if stop.is_set() else chance.choice(cases), lambda case: None)
    while not stop.is_set() and time.monotonic() < begin + seconds:
        if not stop.wait(min(60, max(0, begin + seconds - time.monotonic()))):
            tell(checkers, cycles, begin)
    if stop.is_set():
        tell(checkers, cycles, begin)
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

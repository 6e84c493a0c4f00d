"""Compares the checker's runs on the emulated device with those of the host's checker against the
preloaded library, for script/test-device.

usage, in tests/: python3 -m device.device scenarios ROOT
                  python3 -m device.device judge CONSOLE GUEST_CHECKER CHECKER LIBDIAGSIM DIAGTAP

The first writes the scenarios into the device's root folder. The second reads what init wrote to the
console; GUEST_CHECKER is the device's program, the others are the host's.
"""
import base64
import concurrent.futures
import json
import os
import re
import subprocess
import sys
import tempfile

from e2e.preload import preload, simulated

HERE = os.path.dirname(os.path.abspath(__file__))
with open(os.path.join(HERE, "scenarios.json")) as file:
    SCENARIOS = json.load(file)  # the expected exit status and the device's scenario

# A message of unknown type and maximum length.
DEVICE = {"remote_mask": 5, "at_open": ["4D000000" + "00" * (100000 - 4)],
          "write": {"blocks_until_read": True}}


class Outcome:
    """One run: exit status, lines without their time, messages over the device, seconds."""

    def __init__(self):
        self.status, self.seconds, self.lines, self.trace = None, None, [], []
        self.due = None

    def take_line(self, line):
        self.lines.append(re.sub(r"^\w{3} \d\d [\d:.]+ ", "", line))

    def take_trace(self, line):
        # The kernel does not pass O_CLOEXEC on. The loopback response contains the time.
        message = line.split("ms  ", 1)[-1].replace("|O_CLOEXEC", "")
        self.trace.append(re.sub(r"(4B 12 2A 00)( [0-9A-F]{2}){8}$", r"\1 (time)", message))


def on_host(case, checker, preloaded):
    library, home = preloaded
    outcome = Outcome()
    with tempfile.TemporaryDirectory() as folder:
        paths = {name: os.path.join(folder, name) for name in ("scenario", "trace")}
        write_json(paths["scenario"], case["device"])
        run = subprocess.run([checker], env=simulated(library, paths["scenario"], paths["trace"]), cwd=home, stdin=subprocess.DEVNULL, text=True,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60)
        outcome.status = run.returncode
        for line in run.stdout.splitlines():
            outcome.take_line(line)
        with open(paths["trace"]) as trace:
            for line in trace.read().splitlines():
                outcome.take_trace(line)
    return outcome


def write_json(path, value):
    with open(path, "w") as file:
        json.dump(value, file)


def write_scenarios(root):
    os.mkdir(os.path.join(root, "scenarios"))
    for name, case in SCENARIOS.items():
        write_json(os.path.join(root, "scenarios", name + ".json"), case["device"])
    write_json(os.path.join(root, "good.json"), {})
    write_json(os.path.join(root, "slow-stop.json"), {"requests": {"stop": {"delay_ms": 200}}})
    write_json(os.path.join(root, "device.json"), DEVICE)


class Console:
    """The output of the guest's init, by section."""

    def __init__(self, lines):
        self.runs, self.unit_tests, self.memory, self.trouble, self.capture = {}, [], None, [], []
        run = None
        take = str  # ignores the kernel's lines
        for line in lines:
            word = line.split()[1] if line.startswith("@@ ") else None
            if word == "run":
                run = self.runs.setdefault(line[len("@@ run "):], Outcome())
                take = run.take_line
            elif word == "status":
                fields = line.split()
                run.status, run.seconds = int(fields[2]), float(fields[6]) - float(fields[4])
                take = self.trouble.append
            elif word == "trace":
                take = run.take_trace
            elif word == "memory":
                take = self.take_memory
            elif word == "capture":
                take = self.capture.append
            elif word == "unit":
                take = self.unit_tests.append
            elif word == "end":
                break
            elif word == "no":
                self.trouble.append(line)
            else:
                take(line)

    def take_memory(self, line):
        self.memory = int(line.split()[1])


class Results:
    def __init__(self):
        self.passed = self.failed = 0

    def add(self, name, problem=None):
        self.passed += not problem
        self.failed += bool(problem)
        print(f"FAIL {name}: {problem}" if problem else f"ok   {name}")


def difference(guest, host, what):
    return "" if guest == host else "\n".join(
        [f"another {what}", "  device:", *map("    {}".format, guest), "  host:", *map("    {}".format, host)])


def compare(name, guest, host):
    if guest is None or guest.status is None:
        return "it did not run"
    if not guest.status == host.status == host.due:
        return difference([guest.status, *guest.lines], [host.status, *host.lines],
                          f"exit status than {host.due}")
    return (difference(guest.lines, host.lines, "log") or
            (difference(guest.trace, host.trace, "traffic") if name == "a good device" else ""))


def report(diagtap, capture):
    """The steps of a capture with their states."""
    text = subprocess.run([diagtap, "report", capture, "--format", "json"], stdout=subprocess.PIPE, check=True).stdout
    return [f"{step['name']}: {step['state']}" for session in json.loads(text)["sessions"] for step in session["steps"]]


def replay(lines, checker, preloaded, diagtap):
    """Replays the device's capture on the host. Why verdict or report differ; empty: they do not."""
    with tempfile.TemporaryDirectory() as folder:
        recorded, again = (os.path.join(folder, name) for name in ("recorded", "again"))
        with open(recorded, "wb") as file:
            file.write(base64.b64decode("".join(lines)))
        os.environ["TAVRIK_CAPTURE"] = again
        host = on_host({"device": {"replay": recorded}}, checker, preloaded)
        del os.environ["TAVRIK_CAPTURE"]
        if host.status != 0:
            return "\n".join([f"exit status {host.status}", *host.lines, *host.trace])
        return difference(report(diagtap, recorded), report(diagtap, again), "report")


def judge(console, hosts, size, replayed):
    results = Results()
    results.add("a capture of the device, replayed on the host", replayed)
    for name, host in hosts.items():
        results.add(name, compare(name, console.runs.get(name), host))
    for name, status, most, line in (("recorded", 0, 1, None), ("replayed", 0, 1, None),
                                     ("first of two", 0, 1, None), ("second of two", 0, 1, None),
                                     ("another server", 1, 1, "diagsimd: /dev/diag is there already"),
                                     ("a name in use", 1, 1, "diagsimd: the kernel refuses to make /dev/diag"),
                                     ("server ended", 1, 3, None), ("server killed", 1, 3, None)):
        run = console.runs.get(name, Outcome())
        good = run.status == status and run.seconds < most and (not line or run.lines == [line])
        results.add(name, None if good else
                    "\n".join([f"status {run.status} after {run.seconds} s", *run.lines]))
    all_passed = "[  PASSED  ] 4 tests." in console.unit_tests
    results.add("4 unit tests", None if all_passed else "\n".join(["failed", *console.unit_tests]))
    results.add(f"resident memory {console.memory} kB of 4096",
                None if console.memory and console.memory < 4096 else "too much")
    results.add(f"size of the checker {size} bytes of 1500000", None if size < 1500000 else "too much")
    if console.trouble:
        results.add("the console", "\n".join(console.trouble))
    return results


def main(console, guest_checker, checker, library, diagtap):
    with open(console, errors="replace") as file:
        lines = file.read().replace("\r", "").splitlines()
    if "@@ end" not in lines:
        print("\n".join(lines[-40:]))
        sys.exit("device.py: the emulated device did not reach its end")
    checker, preloaded = os.path.abspath(checker), preload(checker, library)
    cases = dict(SCENARIOS, **{"no node": {"status": 1, "device": {"open": {"errno": "ENOENT"}}}})

    def run(case):
        host = on_host(case, checker, preloaded)
        host.due = case["status"]
        return host
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        hosts = dict(zip(cases, pool.map(run, cases.values())))
    for name, case in cases.items():
        # Time is real here: on a busy machine a run may fail. Repeat it alone.
        if hosts[name].status != case["status"]:
            hosts[name] = run(case)
    console = Console(lines)
    replayed = replay(console.capture, checker, preloaded, os.path.abspath(diagtap))
    results = judge(console, hosts, os.path.getsize(guest_checker), replayed)
    print(f"{results.passed} passed, {results.failed} failed")
    return 1 if results.failed else 0


if __name__ == "__main__":
    if sys.argv[1] == "scenarios":
        write_scenarios(sys.argv[2])
    else:
        sys.exit(main(*sys.argv[2:]))

#!/usr/bin/env python3
"""Boots a 32-bit ARM kernel under emulation, where diagsimd serves a true /dev/diag, and runs the
checker there; compares each run with one of the host's checker against the preloaded library.

usage: device.py FILES GUEST CHECKER LIBDIAGSIM

FILES is where the armhf packages were unpacked, GUEST the build tree of the armhf preset; CHECKER and
LIBDIAGSIM are the host's own.
"""
import concurrent.futures
import glob
import json
import lzma
import os
import re
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
FILES, GUEST, CHECKER, PRELOAD = sys.argv[1:5]

GOOD = "a good device"
# The exit status that is due, and how the device behaves.
SCENARIOS = {
    GOOD: (0, {"adsp": {"period_us": 10000000}}),
    "open refused": (1, {"open": {"errno": "EACCES"}}),
    "busy": (1, {"open": {"errno": "EBUSY"}}),
    "no log masks": (1, {"masks": {"log": False}}),
    "mode switch refused": (1, {"mode_switch": {"accepts": "none"}}),
    "mode by value": (0, {"mode_switch": {"accepts": "value"}}),
    "withdrawal refused": (0, {"withdraw": {"result": 0}}),
    "end not announced": (0, {"deinit": {"announce": False}}),
    "end refused, not announced": (0, {"deinit": {"result": -1, "announce": False}}),
    "empty reads": (0, {"empty_reads": 3}),
    "hostile buffers": (0, {"at_open": ["10", "1000", "20000000", "08000000 4B", "40000000 01",
                                        "00010000", "FFFFFFFF 00"],
                            "requests": {"loopback": {"buffer_in_front": "20000000 FFFFFFFF"}}}),
    "hostile range": (0, {"ranges": {"1": 4294967295}}),
    "log storm": (0, {"adsp": {"period_us": 1000, "ignore_log_mask": True},
                      "requests": {"any": {"log_in_front": "same_buffer"}}}),
    "log disable unanswered": (1, {"requests": {"log_disable": {"drop": True}}}),
    "loopback unanswered": (1, {"requests": {"loopback": {"drop": True}}}),
    "loopback refused": (0, {"requests": {"loopback": {"refuse": True}}}),
    "mask not written": (0, {"requests": {"log_mask": {"write_result": -1}}}),
    "start partly written": (1, {"requests": {"start": {"write_result": 5}}}),
    "start refused": (1, {"requests": {"start": {"refuse": True}}}),
    "start too short": (1, {"requests": {"start": {"short": 2}}}),
    "start garbled": (1, {"requests": {"start": {"chunk_length": 4294967295}}}),
    "start late": (1, {"requests": {"start": {"delay_ms": 400}}}),
    "read fails at start": (1, {"requests": {"start": {"fail_read": True}}}),
    "gone at start": (1, {"requests": {"start": {"hang_up": True}}}),
    "gone at stop": (1, {"requests": {"stop": {"hang_up": True}}}),
    "stop refused": (1, {"requests": {"stop": {"refuse": True}}}),
    "stop of another subsystem": (1, {"requests": {"stop": {"wrong_subsystem": True}}}),
    "stop unanswered": (1, {"requests": {"stop": {"drop": True}}}),
}
# Data that no client understands, as long as the longest message.
DEVICE = {"remote_mask": 5, "at_open": ["4D000000" + "00" * (100000 - 4)]}


class Outcome:
    """One run: exit status, lines without their time, messages over the device, seconds."""

    def __init__(self):
        self.status, self.seconds, self.lines, self.trace = None, None, [], []
        self.due = None

    def take_line(self, line):
        self.lines.append(re.sub(r"^\w{3} \d\d [\d:.]+ ", "", line))

    def take_trace(self, line):
        # The loopback's answer holds the time.
        message = line.split("ms  ", 1)[-1]
        self.trace.append(re.sub(r"(4B 12 2A 00)( [0-9A-F]{2}){8}$", r"\1 (time)", message))


def on_host(scenario):
    outcome = Outcome()
    with tempfile.TemporaryDirectory() as folder:
        paths = {name: os.path.join(folder, name) for name in ("scenario", "trace")}
        write_json(paths["scenario"], scenario)
        environment = dict(os.environ, LD_PRELOAD=PRELOAD, DIAGSIM_TRACE=paths["trace"],
                           DIAGSIM_SCENARIO=paths["scenario"])
        run = subprocess.run([CHECKER], env=environment, stdin=subprocess.DEVNULL, text=True,
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


def only(pattern):
    # Newer releases have everything in usr/.
    found = [path for root in (FILES, os.path.join(FILES, "usr"))
             for path in glob.glob(os.path.join(root, pattern))]
    if len(found) != 1:
        sys.exit(f"device.py: expected one {pattern} in {FILES}, found {len(found)}")
    return found[0]


def make_initramfs(path):
    with tempfile.TemporaryDirectory() as root:
        for folder in ("bin", "dev", "proc", "sys", "scenarios"):
            os.mkdir(os.path.join(root, folder))
        programs = [os.path.join(GUEST, *name) for name in
                    (("tests", "device", "DeviceTest"), ("sim", "diagsimd"))]
        for program in programs:
            subprocess.run(["arm-linux-gnueabihf-strip", "-o",
                            os.path.join(root, "bin", os.path.basename(program)), program], check=True)
        shutil.copy(stripped_checker(root), os.path.join(root, "bin", "adsppm-check"))
        shutil.copy(only("bin/busybox"), os.path.join(root, "bin"))
        shutil.copy(os.path.join(HERE, "init"), root)
        for name in ("fuse", "cuse"):
            module = only(f"lib/modules/*/kernel/fs/fuse/{name}.ko*")
            with (lzma.open if module.endswith(".xz") else open)(module, "rb") as source, \
                    open(os.path.join(root, name + ".ko"), "wb") as target:
                shutil.copyfileobj(source, target)
        for name, (_, scenario) in SCENARIOS.items():
            write_json(os.path.join(root, "scenarios", name + ".json"), scenario)
        write_json(os.path.join(root, "good.json"), {})
        write_json(os.path.join(root, "slow-stop.json"), {"requests": {"stop": {"delay_ms": 200}}})
        write_json(os.path.join(root, "device.json"), DEVICE)
        with open(path, "wb") as archive:
            names = subprocess.run(["find", "."], cwd=root, stdout=subprocess.PIPE, check=True)
            subprocess.run(["cpio", "--create", "--format=newc", "--quiet"], cwd=root,
                           input=names.stdout, stdout=archive, check=True)


def stripped_checker(folder):
    path = os.path.join(folder, "adsppm-check")
    subprocess.run(["arm-linux-gnueabihf-strip", "-o", path,
                    os.path.join(GUEST, "app", "adsppm-check-static")], check=True)
    return path


def boot(initramfs):
    """The console's lines. Time there is counted in instructions: how busy this machine is has no
    bearing on any time-out, and waits cost nothing."""
    command = ["timeout", "-k", "5", "300", "qemu-system-arm", "-M", "virt", "-cpu", "cortex-a15", "-smp", "1", "-m", "512",
               "-icount", "shift=1,sleep=off", "-rtc", "clock=vm", "-display", "none", "-nodefaults",
               "-serial", "stdio", "-no-reboot", "-kernel", only("boot/vmlinuz-*"), "-initrd",
               initramfs, "-append", "console=ttyAMA0 quiet loglevel=1 panic=-1 rdinit=/init"]
    console = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    lines = console.stdout.decode(errors="replace").replace("\r", "").splitlines()
    if "@@ end" not in lines:
        print("\n".join(lines[-40:]))
        sys.exit(f"device.py: the emulated device did not reach its end, status {console.returncode}")
    return lines


class Console:
    """What the guest's init wrote, sorted."""

    def __init__(self, lines):
        self.runs, self.unit_tests, self.memory, self.trouble = {}, [], None, []
        run = None
        take = str  # what the kernel says before
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
            (difference(guest.trace, host.trace, "traffic") if name == GOOD else ""))


def judge(console, hosts, size):
    results = Results()
    for name, host in hosts.items():
        results.add(name, compare(name, console.runs.get(name), host))
    for name, status, most, line in (("first of two", 0, 1, None), ("second of two", 0, 1, None),
                                     ("another server", 1, 1, "diagsimd: /dev/diag is there already"),
                                     ("a name in use", 1, 1, "diagsimd: the kernel refuses to make /dev/diag"),
                                     ("server ended", 1, 3, None), ("server killed", 1, 3, None)):
        run = console.runs.get(name, Outcome())
        good = run.status == status and run.seconds < most and (not line or run.lines == [line])
        results.add(name, None if good else
                    "\n".join([f"status {run.status} after {run.seconds} s", *run.lines]))
    for line in console.unit_tests:
        done = re.match(r"\[ +(OK|FAILED) +\] (\w+\.\w+) ", line)
        if done:
            results.add(done[2], None if done[1] == "OK" else "\n".join(console.unit_tests))
    if not any("[  PASSED  ] 6 tests." in line for line in console.unit_tests):
        results.add("unit tests", "\n".join(["they did not all pass", *console.unit_tests]))
    results.add(f"resident memory {console.memory} kB of 4096",
                None if console.memory and console.memory < 4096 else "too much")
    results.add(f"size of the checker {size} bytes of 1500000", None if size < 1500000 else "too much")
    if console.trouble:
        results.add("the console", "\n".join(console.trouble))
    return results


def main():
    with tempfile.TemporaryDirectory() as folder:
        size = os.path.getsize(stripped_checker(folder))
        initramfs = os.path.join(folder, "initrd.cpio")
        make_initramfs(initramfs)
        console = Console(boot(initramfs))
    scenarios = dict(SCENARIOS, **{"no node": (1, {"open": {"errno": "ENOENT"}})})
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        hosts = dict(zip(scenarios, pool.map(on_host, (scenario for _, scenario in scenarios.values()))))
    for name, (status, scenario) in scenarios.items():
        # Time is real here: a run that failed because this machine was busy is tried again alone.
        if hosts[name].status != status:
            hosts[name] = on_host(scenario)
        hosts[name].due = status
    results = judge(console, hosts, size)
    print(f"{results.passed} passed, {results.failed} failed")
    return 1 if results.failed else 0


if __name__ == "__main__":
    sys.exit(main())

"""The expected exit status, log lines and time of the checker for each scenario."""
import collections
import json
import os
import re

HERE = os.path.dirname(os.path.abspath(__file__))
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
FAILED_INIT = ["DIAG::connect() => false [Diag_LSM_Init failed]", *NEVER_CONNECTED]


def expectation(request, kind):
    """Exit status, messages and number of full time-outs if this request has this kind of fault."""
    if kind == "fine":
        return 0, [], 0
    if request in SETUP:
        if request == "event_report" and kind == "unsent":
            return 0, ["eventReportCtrlReq send failed"], 0
        text = "send failed" if kind == "unsent" else "response timeout"
        return 1, [f"{SETUP[request]} {text}", *NEVER_CONNECTED], kind in ("silent", "late")
    text = "send failed" if kind == "unsent" else "timeout"
    mask = ["loggingCfgSetReq send failed"] if kind == "unsent" else [MASK_TIMEOUT]
    # A request without a response blocks all requests behind it.
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


class Outcome:
    """The result of one run of the checker."""

    def __init__(self, status, output, errors, milliseconds, trace):
        self.status, self.output, self.errors = status, output, errors
        self.milliseconds, self.times, self.trace = milliseconds, [], []
        if os.path.exists(trace):
            with open(trace) as lines:
                for line in lines:
                    time, text = line.rstrip("\n").split(" ms  ", 1)
                    self.times.append(float(time))
                    self.trace.append(text)

    def messages(self):
        lines = [LINE.match(line) for line in self.output.splitlines()]
        assert all(lines), "not in the form of a log line:\n" + self.output
        for logger, level, text in (line.groups() for line in lines):
            warning = text == "eventReportCtrlReq send failed" or DROPPED.search(text)
            assert level == ("WARN" if warning else "ERROR"), self.output
            assert logger == ("ADSPPM" if text.startswith("ADSPPM::") else "DIAG"), self.output
        return [line.group(3) for line in lines]

    def time_of(self, text):
        """The milliseconds since the first open at which the trace shows this."""
        return next(time for time, line in zip(self.times, self.trace) if text in line)

    def acknowledged(self):
        accepted = [line for line in self.trace if "(accepted)" in line and "=> lost" not in line]
        return all(any(f"{name} response" in line for line in accepted) for name in ("start", "stop"))

    def __str__(self):
        return "\n".join([f"status {self.status}, {self.milliseconds:.0f} ms", self.output,
                          self.errors, *self.trace])


class Case(collections.namedtuple("Case", "scenario status messages milliseconds")):
    """A scenario and its expected result. A status of None allows 0 and 1 with any messages."""

    def check(self, run):
        assert run.errors == "", "errors"
        assert run.status == 1 or run.acknowledged(), "exit status 0 without acknowledgement"
        if self.status is None:
            assert run.status in (0, 1), f"status {run.status}"
            return
        assert run.status == self.status, f"status {run.status}, expected {self.status}"
        found = [text for text in run.messages() if not DROPPED.search(text)]
        assert found == self.messages, f"messages {found}, expected {self.messages}"


def scenario_file(scenario, folder):
    """The file of a scenario, which is an object, or the name of a file in scenarios/."""
    if isinstance(scenario, str):
        return os.path.join(HERE, "scenarios", scenario)
    name = os.path.join(folder, "scenario.json")
    with open(name, "w") as out:
        json.dump(scenario, out)
    return name


def fault_cases():
    """Every fault on every request."""
    with open(os.path.join(HERE, "faults.json")) as file:
        kinds = json.load(file)
    return [fault_case(request, kind, fault) for kind, faults in kinds.items()
            for fault in faults.values() for request in REQUESTS]


def fault_case(request, kind, fault):
    scenario = {"requests": {request: fault}}
    if kind == "unpredictable":
        # A stray frame answers the oldest request, so nearly any request may be refused. But nothing
        # hangs, and the checker reports no success without acknowledgement.
        return Case(scenario, None, None, 6 * WAIT + PAUSE)
    status, messages, waits = expectation(request, kind)
    # Every run has the pause; a delay counts only if the run waits for it.
    extra = fault.get("delay_ms", 0) if kind == "fine" else 0
    return Case(scenario, status, messages, waits * WAIT + extra + PAUSE)


def driver_cases():
    """Faults of the driver and the stream, apart from requests."""
    allocation = "loggingCfgSetReq failed to allocate message buffer"
    expected = {
        "fine": (0, [], 0),
        "unsent but answered": (0, ["eventReportCtrlReq send failed"], 0),
        "unpredictable": (None, None, 6),
        "masks missing": (1, FAILED_INIT, 0),
        "never in callback mode": (1, ["extendedMsgCfgSetAllMasksReq send failed", *NEVER_CONNECTED], 0),
        "range too large": (0, [allocation] * 2, 0),
        "end never told": (0, [], 4),  # a second of grace
    }
    with open(os.path.join(HERE, "driver.json")) as file:
        kinds = json.load(file)
    return [Case(scenario, status, messages, waits * WAIT + PAUSE)
            for kind, (status, messages, waits) in expected.items() for scenario in kinds[kind]]

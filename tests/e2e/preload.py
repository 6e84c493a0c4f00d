"""Puts the simulated device before a program."""
import os
import re
import subprocess
import sys


def preload(program, library, emulator=()):
    """LD_PRELOAD for `program`, and the folder to start it in: the loader splits LD_PRELOAD at blanks
    and colons, which the path to the library may have.

    Ends this process with a message when the loader would leave the library out. Does not start the
    program to find out: without the library it opens the true node.
    """
    folder, name = os.path.split(os.path.abspath(library))
    value = os.path.join(".", name)
    headers = output_of(["readelf", "-l", program])
    loader = re.search(r"program interpreter: (.*)\]", headers)
    if loader:
        listing = [loader[1], "--list", os.path.abspath(program)]
        if emulator:
            listing[0] = emulator[emulator.index("-L") + 1] + loader[1]
            listing = [*emulator, "-E", "LD_PRELOAD=" + value, *listing]
            environment = os.environ
        else:
            environment = {**os.environ, "LD_PRELOAD": value}
        if value in output_of(listing, cwd=folder, env=environment):
            return value, folder
    sys.exit(f"{program} was not started: its loader leaves out {library}")


def simulated(library, scenario, trace, **more):
    """The environment of a program on the simulated device, without this process's own settings of one."""
    others = {key: value for key, value in os.environ.items() if not key.startswith("DIAGSIM")}
    # A failed connection leaves the reader running on purpose.
    return {**others, "LD_PRELOAD": library, "DIAGSIM_SCENARIO": scenario, "DIAGSIM_TRACE": trace,
            "TSAN_OPTIONS": "report_thread_leaks=0", **more}


def output_of(command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                          check=False, **options).stdout

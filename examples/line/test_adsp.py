"""The checker as a pytest case: the report's first cause is the failure's message.

CHECK is the command that runs the checker, by default adsppm-check, for example
CHECK="diagsim-run adsppm-check".
"""
import json
import os
import shlex
import subprocess

CHECK = shlex.split(os.environ.get("CHECK", "adsppm-check"))


def test_metric_collection_starts_and_stops(tmp_path):
    capture = tmp_path / "run.pcapng"
    run = subprocess.run(CHECK, env={**os.environ, "TAVRIK_CAPTURE": str(capture)}, timeout=30,
                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    report = json.loads(subprocess.run(["diagtap", "report", capture, "--format", "json"],
                                       stdout=subprocess.PIPE, text=True).stdout)
    causes = [session["cause"] for session in report["sessions"]]
    assert run.returncode == 0, "\n".join(causes) or run.stdout

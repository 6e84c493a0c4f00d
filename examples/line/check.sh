#!/bin/sh
# One device on a line: runs the checker with a capture and keeps result and report in a folder.
#
# usage: check.sh SERIAL [COMMAND...]
#
# COMMAND runs the checker, by default `adsppm-check`; for example `diagsim-run start-refused.json
# adsppm-check`. Keeps SERIAL/run.pcapng, SERIAL/log.txt, SERIAL/report.json and SERIAL/junit.xml. Exit
# status: 0 pass, 1 fail, 2 no verdict.
set -u
serial=${1:?usage: check.sh SERIAL [COMMAND...]}
shift
[ $# -gt 0 ] || set -- adsppm-check
mkdir -p "$serial" || exit 2

# A run takes at most four seconds: seven time-outs, the pause, and the end of the session.
status=0
TAVRIK_CAPTURE=$PWD/$serial/run.pcapng timeout -k 5 30 "$@" >"$serial/log.txt" || status=$?
diagtap report "$serial/run.pcapng" --format json >"$serial/report.json"
diagtap report "$serial/run.pcapng" --format junit >"$serial/junit.xml"
case $status in
    0 | 1) exit "$status" ;;
    *) exit 2 ;;
esac

# shellcheck shell=bash
# Sourced first by every script. Makes the root of the repository the current folder, opens standard
# streams that are closed on /dev/null, and ends the script on Ctrl-C. Sets:
#
#   self      the script's file, links resolved
#   name      the same from the root, for messages
#   scratch   a folder for temporary files, after make_scratch
#   OLDPWD    the folder that the script was called from
set -euo pipefail
unset CDPATH

# Otherwise the next file opened would become the stream.
[ -e /proc/self/fd/0 ] || exec </dev/null
[ -e /proc/self/fd/1 ] || exec >/dev/null
[ -e /proc/self/fd/2 ] || exec 2>/dev/null

self=$(readlink -f "$0")
cd "${self%/*}/.."
name=${self#"$PWD"/}
scratch=
progress=

end_progress() {
    [ -n "$progress" ] || return 0
    kill "$progress" 2>/dev/null || true
    wait "$progress" 2>/dev/null || true
    progress=
    printf '\r\033[K' >&2
}

tidy_up() {
    end_progress
    [ -z "$scratch" ] || rm -rf "$scratch"
}
trap tidy_up EXIT
# ninja and apt-get exit normally on Ctrl-C. Without the trap the script would go on.
trap 'exit 130' INT

make_scratch() {
    [ -n "$scratch" ] || scratch=$(mktemp -d)
}

fail() {
    echo "$name: $1" >&2
    exit 1
}

# Prints the commit's hash, if the tree holds nothing else but what git ignores.
clean_commit() {
    local changes
    changes=$(git status --porcelain) && [ -z "$changes" ] && git rev-parse HEAD
}

# Prints the comment at the top of the script.
usage() { sed -n '2,/^$/s/^# \{0,1\}//p' "$self"; }

refuse() {
    echo "$name: $1" >&2
    usage >&2
    exit 2
}

# take_options FLAGS VALUED ARGUMENT...: prints the usage on --help. Refuses an option that is neither
# in FLAGS nor in VALUED, and one of VALUED without a value. Stores the other arguments in operands.
take_options() {
    local flags=" $1 " valued=" $2 "
    shift 2
    operands=()
    while [ $# -gt 0 ]; do
        if [ "$1" = --help ]; then
            usage
            exit 0
        elif [[ $1 != -* ]]; then
            operands+=("$1")
        elif [[ $valued == *" $1 "* ]]; then
            [ $# -ge 2 ] || refuse "$1 needs a value"
            shift
        elif [[ $flags != *" $1 "* && ($1 != --*=* || $valued != *" ${1%%=*} "*) ]]; then
            refuse "unknown option $1"
        fi
        shift
    done
}

# Shows the last line of the log on the terminal after two seconds.
show_progress() {
    local line
    sleep 2 >/dev/null 2>&1
    while kill -0 $$ 2>/dev/null; do
        line=$(tail -n 1 "$scratch/log")
        printf '\r\033[K%.79s' "$name: $line" >&2
        sleep 0.2 >/dev/null 2>&1
    done
}

# logged COMMAND...: runs a command with its output in $scratch/log. Shows progress on a terminal. Needs
# make_scratch.
logged() {
    local status=0
    : >"${scratch:?}/log"
    if [ -t 2 ] && [ -z "${CI:-}" ] && [ "${TERM:-dumb}" != dumb ]; then
        show_progress &
        progress=$!
    fi
    # A subshell, because this shell's trap would write the end of the progress to the log.
    ("$@") >"$scratch/log" 2>&1 || status=$?
    end_progress
    return "$status"
}

# shellcheck shell=bash
# Sourced after preamble.sh by scripts that fetch packages beyond those of this machine.

# Prints address and release of the main archive among this machine's sources, or fails. Needs no fetched
# lists.
archive() {
    local codename found
    # shellcheck source=/dev/null
    (. /etc/os-release && [ "$ID" = debian ]) || fail "needs a Debian machine, for its archive"
    # shellcheck source=/dev/null
    codename=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
    # shellcheck disable=SC2016  # apt-get's own variables
    found=$(apt-get indextargets --no-release-info --format \
        '$(RELEASE) $(COMPONENT) $(SITE)' 'Created-By: Packages' |
        awk -v codename="$codename" '$2 == "main" &&
            ($1 == codename || $1 ~ /^(stable|oldstable|testing|unstable|sid)$/) { print $3, $1; exit }')
    [ -n "$found" ] || fail "no main archive of this release among apt's sources"
    echo "$found"
}

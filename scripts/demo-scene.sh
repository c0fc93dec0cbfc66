# SPDX-License-Identifier: MIT
# Shared by the scenes in scripts/demo.d. Sourced inside the box, not run.

set -u

title() { printf '\n==== %s ====\n' "$*"; }
note() { printf -- '-- %s\n' "$*"; }
show() { sed 's/^/   | /' "$@"; }

# typed COMMAND...: shows a command as a person would type it, and what it prints. Fails with it.
typed() {
    printf '   $'
    for word in "$@"; do
        case "$word" in *\ *) printf " '%s'" "$word" ;; *) printf ' %s' "$word" ;; esac
    done
    echo
    "$@" >/tmp/typed.out 2>&1
    status=$?
    show /tmp/typed.out
    return $status
}

fail() {
    printf 'DEMO FAILED: %s\n' "$*"
    exit 1
}

# wait_for WHAT COMMAND...: until the command succeeds, at most 10 seconds.
wait_for() {
    what=$1
    shift
    tries=0
    until "$@" >/dev/null 2>&1; do
        tries=$((tries + 1))
        [ "$tries" -lt 200 ] || fail "$what did not happen"
        sleep 0.05
    done
}

# end PID: asks a process of ours to end, and waits until it has.
end() {
    kill "$1" && wait "$1"
}

# Shared by the tests of this folder; bash, sourced before they change folder.

name=$(basename "$0" _test.sh)
# A folder that goes when the test ends.
work=$(mktemp -d "${TMPDIR:-/tmp}/rdx-$name-test.XXXXXX")
# Processes that end with the test, and by which signal.
server='' other='' ended_by=KILL
finish() {
    local process
    for process in $server $other; do kill "-$ended_by" "$process" 2>/dev/null || true; done
    rm -rf "$work"
}
trap finish EXIT

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# await COMMAND...: until it succeeds.
await() {
    for _ in $(seq 1 400); do
        ! "$@" || return 0
        sleep 0.05
    done
    fail "in vain: $*: $(tail -n 40 "$work/log" 2>/dev/null || true)"
}

# choose_port: sets `port` to one of the test's own, of which the two behind it are as well. The tests run at
# the same time: each has its range, below those that tests/system takes its ports from.
choose_port() {
    local first
    case $name in
    clients) first=10000 ;;
    junior) first=12000 ;;
    server) first=14000 ;;
    install) first=16000 ;;
    *) fail "$name has no ports" ;;
    esac
    port=$((first + RANDOM % 1998))
}

# allows_namespaces [COMMAND...]: true when what the command runs can put a file over another for itself.
allows_namespaces() {
    "$@" unshare -m mount --bind /etc/passwd /etc/shadow 2>/dev/null ||
        "$@" unshare -rm mount --bind /etc/passwd /etc/shadow 2>/dev/null
}

# refuse PROGRAM: with $work/bin first in PATH the machine has no such program.
refuse() {
    printf '#!/bin/sh\necho "%s: not on this machine" >&2\nexit 1\n' "$1" >"$work/bin/$1"
    chmod 755 "$work/bin/$1"
}

# The words that, put before a command, run it as an ordinary user; only root can use them.
as_nobody=(setpriv --reuid=65534 --regid=65534 --clear-groups)

# can_become_nobody FILE: true for root, unless such a user cannot read the file; that part of the test is
# skipped then. Who is an ordinary user has tried the rest as one.
left_out=
can_become_nobody() {
    [ "$(id -u)" -eq 0 ] || return 1
    ! "${as_nobody[@]}" test -r "$1" || return 0
    echo "skipped: an ordinary user cannot read $1"
    left_out=yes
    return 1
}

# end MESSAGE: of a test that found nothing wrong. A status of 77 stands for a test that was skipped, wholly
# or in part.
end() {
    [ -z "$left_out" ] || exit 77
    echo "$1"
}

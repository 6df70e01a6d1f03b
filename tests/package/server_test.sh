#!/bin/bash
# The README's first command: script/server builds, serves, prints a call that works, refuses a busy port,
# ends with an interrupt and leaves nothing behind.
#
#   server_test.sh SOURCE [BUILD]      BUILD: another build that must have come to the same library
set -eu
cd "$1"
work=$(mktemp -d "${TMPDIR:-/tmp}/rdx-server.XXXXXX")
server=
finish() {
    [ -z "$server" ] || kill -KILL "$server" 2>/dev/null || true
    rm -rf "$work"
}
trap finish EXIT
fail() {
    echo "FAILED: $*" >&2
    exit 1
}
export TMPDIR=$work/tmp
mkdir "$TMPDIR"

for port in 0 65536 abc 080 -1 ''; do
    script/server --port "$port" >"$work/log" 2>&1 && fail "port '$port' was accepted"
    grep -q 'give a number from 1 to 65535' "$work/log" || fail "$(cat "$work/log")"
done
script/server --unknown >"$work/log" 2>&1 && fail "an unknown option was accepted"

script/build server >"$work/log" 2>&1 || fail "$(cat "$work/log")"
# Two builds of one commit are the same bytes, whatever folder and generator they are made with.
if [ -n "${2:-}" ]; then
    cmake --build "$2" --target rDxsH >"$work/log" 2>&1 || fail "$(cat "$work/log")"
    cmp build/server/librDxsH.so "$2/librDxsH.so" || fail "two builds differ"
fi
for _ in 1 2 3 4 5 6 7 8 9 10; do
    port=$((10000 + RANDOM % 10000))
    script/server --port "$port" >"$work/log" 2>&1 &
    server=$!
    until grep -q '^  curl ' "$work/log" || ! kill -0 "$server" 2>/dev/null; do sleep 0.1; done
    ! grep -q '^  curl ' "$work/log" || break
done
call=$(grep '^  curl ' "$work/log") || fail "no call: $(cat "$work/log")"
sh -c "$call" >"$work/answer" || fail "the printed call does not work: $call"
grep -q "<var name='version'><number>100</number></var>" "$work/answer" || fail "$(cat "$work/answer")"
# The README shows the same call, on the usual port, and its answer.
grep -qxF "    \$ ${call#  }" <(sed "s/127.0.0.1:8080/127.0.0.1:$port/" README.md) || fail "README: $call"
grep -qxF "    $(cat "$work/answer")" README.md || fail "README: $(cat "$work/answer")"

script/server --port "$port" >"$work/second" 2>&1 && fail "a busy port was accepted"
grep -q "port $port is in use" "$work/second" || fail "$(cat "$work/second")"

kill -INT "$server"
wait "$server" || fail "an interrupt ended it with $?"
server=
for _ in $(seq 1 100); do
    [ -n "$(ls -A "$TMPDIR")" ] || break
    sleep 0.1
done
[ -z "$(ls -A "$TMPDIR")" ] || fail "left behind: $(ls -A "$TMPDIR")"
echo "served, answered, refused a busy port and ended"

#!/bin/bash
# script/server --junior: the printed call is acknowledged and its result is printed, as the README and the
# documents show; both programs end together, and neither is left behind when the other cannot start.
#
#   junior_test.sh SOURCE
set -eu
. "$(dirname "$0")/common.sh"
cd "$1"
ended_by=TERM # which the script passes on
. script/serving.sh
export TMPDIR=$work/tmp XDG_STATE_HOME=$work/state
unset RDX_SIM_STATE RDX_SIM_SCENARIO RDX_SIM_CALLS
mkdir "$TMPDIR"

nothing_left() { [ -z "$(ls -A "$TMPDIR")" ] && ! in_use "$port" && ! in_use $((port + 2)); }
running_or_ready() { grep -q '^All methods but' "$work/log" || ! kill -0 "$server" 2>/dev/null; }

script/server --junior --port 65534 >"$work/log" 2>&1 && fail "a port without ports behind it was accepted"
grep -q 'give a number from 1 to 65533' "$work/log" || fail "$(cat "$work/log")"

script/build junior >"$work/log" 2>&1 || fail "$(cat "$work/log")"
start() {
    for _ in 1 2 3 4 5 6 7 8 9 10; do
        choose_port
        : >"$work/log" # an earlier server's words would be taken for this one's
        script/server --junior --port "$port" >"$work/log" 2>&1 &
        server=$!
        await running_or_ready
        ! grep -q '^All methods but' "$work/log" || return 0
    done
    fail "script/server --junior does not start: $(cat "$work/log")"
}

start
call=$(grep -m 1 '^  curl ' "$work/log") || fail "no call: $(cat "$work/log")"
sh -c "$call" >"$work/answer" || fail "the printed call does not work: $call"
sed '1,/^\r$/d' tests/system/golden/junior/acknowledge.http | cmp - "$work/answer" ||
    fail "no acknowledge: $(cat "$work/answer")"
title="rdxadmin: GET /VServer?FunctionName=vsFollowUpSuccess&SvcTicket=42 from 127.0.0.1:$((port + 1)), 348 bytes"
await grep -qxF "$title" "$work/log"
sed '1,/^\r$/d' tests/system/golden/junior/follow_up.http >"$work/result"
grep -qxF "$(cat "$work/result")" <(grep -xF -A 1 "$title" "$work/log") || fail "no result: $(cat "$work/log")"

# The second call makes rdxadmin stall; the next ticket is acknowledged all the same.
stall=$(grep '^  curl .*/mode/stall' "$work/log") || fail "no call of rdxadmin: $(cat "$work/log")"
[ "$(sh -c "$stall")" = ok ] || fail "rdxadmin does not stall: $stall"
sh -c "$call" | cmp - "$work/answer" || fail "no acknowledge while rdxadmin stalls"
printed_twice() { [ "$(grep -cxF "$title" "$work/log")" -eq 2 ]; }
await printed_twice
plain=$(grep '^  curl ' "$work/log" | sed -n 3p)
sh -c "$plain" >"$work/version" || fail "the call without a ticket does not work: $plain"
cmp "$work/version" "$work/result" || fail "$(cat "$work/version")"

# Its ports are taken.
for taken in "$port" $((port - 1)) $((port - 2)); do
    script/server --junior --port "$taken" >"$work/second" 2>&1 && fail "port $taken was accepted"
    grep -q "port $port is in use" "$work/second" || fail "$(cat "$work/second")"
    grep -q '^  Next: .* --junior$' "$work/second" || fail "$(cat "$work/second")"
done

kill -INT "$server"
wait "$server" || fail "an interrupt ended it with $?"
server=
await nothing_left

# A terminal's Ctrl-C reaches all of them.
set -m
start
set +m
kill -INT -- "-$server"
wait "$server" || fail "Ctrl-C ended it with $?"
server=
await nothing_left

# Either cannot start.
tree=$work/tree
mkdir -p "$tree/build/server" "$work/bin"
cp -R script "$tree"
printf '#!/bin/sh\n' >"$work/bin/cmake"
chmod 755 "$work/bin/cmake"
# fails_to_start SERVER ADMIN MESSAGE: with these programs it fails, and leaves nothing behind.
fails_to_start() {
    cp "$1" "$tree/build/server/rdxhttpd"
    cp "$2" "$tree/build/server/rdxadmin"
    cp build/server/*.so* "$tree/build/server"
    local result=0
    PATH="$work/bin:$PATH" "$tree/script/server" --junior --port "$port" >"$work/log" 2>&1 || result=$?
    [ "$result" -ne 0 ] || fail "it started without one of the two: $(cat "$work/log")"
    await grep -q "$3" "$work/log"
    grep -q '^  Next: ' "$work/log" || fail "no next step: $(cat "$work/log")"
    await nothing_left
}
fails_to_start build/server/rdxhttpd /bin/false 'rdxadmin did not start'
fails_to_start /bin/false build/server/rdxadmin 'the server did not start'
end "acknowledged, posted, printed, and ended together"

#!/bin/bash
# rdxadmin takes follow-ups, records them, and answers in every way that it can be told to.
#
#   rdxadmin_test.sh PROGRAM
set -eu
. "$(dirname "$0")/common.sh"
program=$1

# start OPTION...: starts it on a free port, which is then in $url.
start() {
    : >"$work/output" # of an earlier one
    "$program" --port 0 "$@" >"$work/output" 2>"$work/errors" &
    server=$!
    await grep -q 'listening on port' "$work/output"
    url=http://127.0.0.1:$(sed -n 's/^rdxadmin: listening on port //p' "$work/output")
}

ended() { ! kill -0 "$1" 2>/dev/null; }

# stop SIGNAL: ends it, at once and in order.
stop() {
    kill "-$1" "$server"
    await ended "$server"
    wait "$server" || fail "SIG$1 ended it with $?"
    server=
}

call() { curl --noproxy '*' -sS --max-time 20 "$@" 2>"$work/complaints"; }
set_mode() { [ "$(call -X PUT "$url/mode/$1")" = ok ] || fail "mode $1: $(cat "$work/complaints")"; }

# follow_up BODY [CURL OPTION]...: a GET with a body, as the server sends it.
follow_up() {
    body=$1
    shift
    call -X GET --data-binary "$body" "$@" "$url/VServer?FunctionName=vsFollowUpSuccess&SvcTicket=42"
}

# A follow-up is answered, printed and recorded, whatever comes under /VServer.
start --record "$work/record"
peer=$(follow_up 'a result' -w '%{local_ip}:%{local_port}' -o "$work/answer") || fail "$(cat "$work/complaints")"
[ "$(cat "$work/answer")" = taken ] || fail "$(cat "$work/answer")"
grep -q " from $peer, 8 bytes\$" "$work/record" || fail "not from $peer: $(cat "$work/record")"
call -X GET --data-binary $'two\nlines' "$url/VServer/more/of?it" >/dev/null
call "$url/VServer" >/dev/null
sed 's/ from 127.0.0.1:[1-9][0-9]*, / from PEER, /' "$work/record" | diff - <(
    printf 'GET /VServer?FunctionName=vsFollowUpSuccess&SvcTicket=42 from PEER, 8 bytes\na result\n\n'
    printf 'GET /VServer/more/of?it from PEER, 9 bytes\ntwo\nlines\n\n'
    printf 'GET /VServer from PEER, 0 bytes\n\n\n'
) || fail "the record"
grep -v '^$' "$work/output" | tail -n +2 | sed 's/^rdxadmin: //' | cmp - <(grep -v '^$' "$work/record") ||
    fail "printed and recorded are not the same"
[ "$(grep -c '^rdxadmin: GET /VServer' "$work/output")" -eq 3 ] || fail "printed: $(cat "$work/output")"

# The largest result there is.
head -c 131071 /dev/zero | tr '\0' x >"$work/large"
follow_up "@$work/large" >/dev/null
grep -q ', 131071 bytes$' "$work/record" || fail "the large one is missing"
tail -n 2 "$work/record" | head -n 1 | tr -d '\n' | cmp - "$work/large" || fail "the large one is not whole"

# Anything else is not recorded.
lines=$(wc -l <"$work/record")
[ "$(call -o /dev/null -w '%{http_code}' "$url/other")" = 404 ] || fail "/other"
[ "$(call -o /dev/null -w '%{http_code}' "$url/VServers")" = 404 ] || fail "/VServers"
[ "$(call "$url/mode/take")" = 'not found' ] || fail "a mode was set by a GET"
[ "$(call -X PUT -o "$work/answer" -w '%{http_code}' "$url/mode/polite")" = 400 ] || fail "mode polite"
grep -q '^  not-found ' "$work/answer" || fail "$(cat "$work/answer")"

# refuse: before the body, so that nothing is recorded.
set_mode refuse
follow_up x >/dev/null && fail "mode refuse answered"
grep -q '(5[26])' "$work/complaints" || fail "refuse: $(cat "$work/complaints")"
[ "$(wc -l <"$work/record")" -eq "$lines" ] || fail "recorded: $(tail -n 3 "$work/record")"

# Every other one answers, or does not, behind a follow-up that is recorded.
expect() {
    set_mode "$1"
    [ "$(follow_up "$1" -o "$work/answer" -w '%{http_code} %{size_download}')" = "$2" ] ||
        fail "$1: $(cat "$work/complaints")"
    [ "$(tail -n 2 "$work/record" | head -n 1)" = "$1" ] || fail "$1 is not recorded"
}
expect take '200 6'
expect not-found '404 10'
expect fail '500 7'
expect empty '200 0'
set_mode rubbish
follow_up x >/dev/null && fail "rubbish was taken"
[ "$(follow_up x --http0.9 | head -n 1 | tr -d '\r')" = 'this is not an answer' ] || fail "rubbish"
set_mode cut
follow_up x -o "$work/answer" -w '%{http_code}' >"$work/code" && fail "half an answer was taken"
grep -q '(18)' "$work/complaints" || fail "cut: $(cat "$work/complaints")"
[ "$(cat "$work/code") $(cat "$work/answer")" = '200 half of ' ] || fail "cut: $(cat "$work/answer")"

# stall: the answer comes with the next mode; the follow-up is recorded once.
set_mode stall
follow_up stalled -o "$work/answer" -w '%{http_code}' >"$work/code" &
caller=$!
await grep -qx stalled "$work/record"
follow_up given-up --max-time 2 >/dev/null && fail "mode stall answered"
kill -0 "$caller" 2>/dev/null || fail "mode stall answered"
set_mode not-found
wait "$caller" || fail "no answer after mode stall"
[ "$(cat "$work/code")" = 404 ] || fail "after mode stall: $(cat "$work/code")"
[ "$(grep -cx stalled "$work/record")" -eq 1 ] || fail "recorded twice"
[ "$(grep -cx given-up "$work/record")" -eq 1 ] || fail "what was given up is not recorded"

# A port that is in use, and what else cannot be.
"$program" --port "${url##*:}" >/dev/null 2>"$work/errors" && fail "a busy port was taken"
grep -q "port ${url##*:} cannot be opened: Address already in use" "$work/errors" ||
    fail "$(cat "$work/errors")"
stop TERM
"$program" --record "$work/none/record" 2>"$work/errors" && fail "a record that cannot be written"
grep -q 'cannot be written' "$work/errors" || fail "$(cat "$work/errors")"
"$program" --mode polite 2>"$work/errors" && fail "mode polite"
grep -q "there is no mode 'polite'" "$work/errors" || fail "$(cat "$work/errors")"
for arguments in '--port 65536' '--port x' '--port' '--unknown' 'word'; do
    "$program" $arguments >/dev/null 2>&1 && fail "'$arguments' was accepted"
done
"$program" --help | grep -q '^  rubbish ' || fail "the help names no modes"

# It ends while a follow-up is stalled, and adds to a record that is there.
cp "$work/record" "$work/before"
start --mode stall --record "$work/record"
follow_up last >/dev/null &
caller=$!
await grep -qx last "$work/record"
stop INT
! wait "$caller" || fail "it answered at its end"
head -c "$(wc -c <"$work/before")" "$work/record" | cmp - "$work/before" || fail "the record was begun anew"
start --mode fail
[ "$(follow_up x -o /dev/null -w '%{http_code}')" = 500 ] || fail "--mode fail"
stop HUP
end "took, recorded, printed and answered in every way"

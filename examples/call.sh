#!/bin/sh
# Calls a method of the server with curl, and prints the answer.
#
#   call.sh HOST PORT METHOD PACKET [USER:PASSWORD]      PACKET: a file with the arguments, "-" for standard input
#
# Prints the HTTP status and the body. The exit status tells what came of the call:
#   0  the device did it: status 200, code 0         3  there was no whole answer
#   1  the device did not: status 200, another code  4  the call was not made: wrong arguments
#   2  the server refused it: another status
#
# The password is an argument, which other users of this machine can see while the script runs.
set -eu

packet_max=65536 # bytes of a request's body
patience=60      # seconds for the whole call: a device may take its time over some methods

fail() {
    status=$1
    shift
    echo "call.sh: $*" >&2
    exit "$status"
}

[ $# -eq 4 ] || [ $# -eq 5 ] || fail 4 "use: $0 HOST PORT METHOD PACKET [USER:PASSWORD]"
command -v curl >/dev/null || fail 4 "there is no curl: install it"
host=$1
port=$2
method=$3
packet=$4
case $method in
'' | *[!A-Za-z0-9]*) fail 4 "'$method' is no method's name: give 1 to 32 letters" ;;
esac
[ ${#method} -le 32 ] || fail 4 "'$method' is no method's name: give 1 to 32 letters"
case $port in
'' | *[!0-9]* | ??????*) port=0 ;;
esac
[ "$port" -ge 1 ] && [ "$port" -le 65535 ] || fail 4 "'$2' is no port: give a number from 1 to 65535"

work=$(mktemp -d "${TMPDIR:-/tmp}/call.XXXXXX") || fail 4 "no folder for temporary files"
trap 'rm -rf "$work"' EXIT
trap 'exit 3' HUP INT TERM

[ "$packet" = - ] || [ -r "$packet" ] || fail 4 "$packet: cannot be read"
cat -- "$packet" >"$work/packet" || fail 4 "$packet: cannot be read"
size=$(wc -c <"$work/packet")
[ "$size" -gt 0 ] || fail 4 "$packet: there is no packet in it"
[ "$size" -le "$packet_max" ] || fail 4 "$packet: a packet has $packet_max bytes at most"
tr -d '\000' <"$work/packet" >"$work/text"
cmp -s "$work/text" "$work/packet" || fail 4 "$packet: there is a NUL in it"

if [ $# -eq 5 ]; then
    case $5 in
    *:*) set -- --user "$5" ;;
    *) fail 4 "give the user as USER:PASSWORD" ;;
    esac
else
    set --
fi

# Without "Expect" curl never waits for a "100 Continue", which the server does not send.
curl -q --silent --show-error --noproxy '*' --connect-timeout 5 --max-time "$patience" \
    --header 'Content-Type: text/xml' --header 'Expect:' --header 'Connection: close' "$@" \
    --data-binary "@$work/packet" --dump-header "$work/headers" --output "$work/body" \
    "http://$host:$port/rDx?FunctionName=$method" ||
    fail 3 "there was no whole answer: see the line above. Is the server running, or are all its threads busy?"

# The status line without the version.
status=$(sed -n '1s/^HTTP\/[0-9.]* *//p' "$work/headers" | tr -d '\r')
printf '%s\n' "$status"
cat "$work/body"
echo
[ "${status%% *}" = 200 ] || exit 2

# The number in "code" of "Status", which one method calls "status". A text in the packet cannot look like this:
# its quotes are escaped.
blank='[[:blank:]]*'
code=$(sed -n "s/.*<var name='[Ss]tatus'>$blank<struct>$blank<var name='code'><number>\(-\{0,1\}[0-9]*\)<.*/\1/p" \
    "$work/body")
[ -n "$code" ] || fail 3 "the answer has no code"
[ "$code" -eq 0 ] || exit 1

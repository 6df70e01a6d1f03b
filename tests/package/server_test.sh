#!/bin/bash
# The README's first command: script/server builds, serves, prints calls that work, refuses a busy port, ends
# with an interrupt and leaves nothing behind. Its user demo is there for root and for an ordinary user, with
# namespaces and without, and never touches the machine's own users.
#
#   server_test.sh SOURCE [BUILD]      BUILD: another build that must have come to the same library
set -eu
. "$(dirname "$0")/common.sh"
cd "$1"
export TMPDIR=$work/tmp XDG_STATE_HOME=$work/state
unset RDX_SIM_STATE RDX_SIM_SCENARIO RDX_SIM_CALLS
mkdir "$TMPDIR"
# The machine's users as they are now; their file is not readable for everybody.
users() { cat /etc/shadow /etc/passwd 2>/dev/null | cksum; stat -c '%i %s %Y %Z %a %u:%g' /etc/shadow /etc/passwd; }
users_before=$(users)

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

# A date from outside is the build's; and a build without tests needs nothing but the server's packages.
SOURCE_DATE_EPOCH=1 cmake -S . -B "$work/dated" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >"$work/log" 2>&1 ||
    fail "$(cat "$work/log")"
grep -q '__DATE__=[^ ]*Jan  1 1970' "$work/dated/compile_commands.json" || fail "SOURCE_DATE_EPOCH is not the build's date"
grep -q '^RDX_ADMIN:BOOL=OFF$' "$work/dated/CMakeCache.txt" || fail "a build without tests builds rdxadmin"
[ ! -e "$work/dated/sim/users" ] || fail "a build without tests builds the users of one that is tried"

# start [COMMAND...]: the script in `tree`, run by the command, on a free port; sets server and port.
tree=.
start() {
    for _ in 1 2 3 4 5 6 7 8 9 10; do
        choose_port
        : >"$work/log" # an earlier server's words would be taken for this one's
        "$@" "$tree/script/server" --port "$port" >"$work/log" 2>&1 &
        server=$!
        until grep -q '^The device keeps\|^  Next' "$work/log" || ! kill -0 "$server" 2>/dev/null; do sleep 0.1; done
        ! grep -q '^  curl ' "$work/log" || return 0
    done
    fail "script/server does not start: $(cat "$work/log")"
}

# stop: ends it with an interrupt, after which nothing of it is left. What the script started as took every
# signal from then on.
stop() {
    [ "$(cat "/proc/$server/comm")" = rdxhttpd ] || fail "the script is in the way of signals"
    kill -INT "$server"
    wait "$server" || fail "an interrupt ended it with $?"
    server=
    for _ in $(seq 1 100); do
        [ -n "$(ls -A "$TMPDIR")" ] || break
        sleep 0.1
    done
    [ -z "$(ls -A "$TMPDIR")" ] || fail "left behind: $(ls -A "$TMPDIR")"
}

# status USER:PASSWORD METHOD: the HTTP status of a call without arguments.
status() {
    curl --noproxy '*' -s -o "$work/body" -w '%{http_code}' -u "$1" "http://127.0.0.1:$port/rDx?FunctionName=$2" \
        --data "<wddxPacket version='1.0'><header/><data><struct></struct></data></wddxPacket>"
}

# expect_refusals: nobody gets in but the user demo, if at all.
expect_refusals() {
    local credentials
    for credentials in demo:wrong demo: : root: root:demo nobody:demo; do
        [ "$(status "$credentials" rdxAllocateDevice)" = 401 ] || fail "$credentials is let in"
    done
}

# expect_library YES [COMMAND...]: whether the library that stands in for a namespace is in the server, as who
# runs the command may see.
expect_library() {
    "${@:2}" cat "/proc/$server/maps" >"$work/maps" || fail "the server's libraries cannot be seen"
    local preloaded=no
    ! grep -q '/librdxusers\.so$' "$work/maps" || preloaded=yes
    [ "$preloaded" = "$1" ] || fail "preloaded: $preloaded instead of $1"
}

# expect_demo_user: the second printed call works, and a wrong password does not.
expect_demo_user() {
    second=$(grep '^  curl .*-u demo:demo' "$work/log") || fail "no call with a user: $(cat "$work/log")"
    sh -c "$second" >"$work/answer" || fail "the printed call does not work: $second"
    grep -q "<var name='code'><number>0</number></var>" "$work/answer" || fail "$(cat "$work/answer")"
    [ "$(status demo:demo rdxReleaseDevice)" = 400 ] || fail "demo is not let in" # arguments are missing
    expect_refusals
}

# expect_no_demo_user: it says so, says why, and serves what needs no user.
expect_no_demo_user() {
    grep -q '^All methods but that one and rdxGetDeviceStatus are refused with status 401' "$work/log" ||
        fail "$(cat "$work/log")"
    grep -qx "  $1" "$work/log" || fail "no reason: $(cat "$work/log")"
    ! grep -q '^  curl .*-u' "$work/log" || fail "a call that cannot work is shown: $(cat "$work/log")"
    [ "$(status demo:demo rdxGetDeviceStatus)" = 200 ] || fail "the status is refused"
    [ "$(status demo:demo rdxAllocateDevice)" = 401 ] || fail "demo is let in"
    expect_refusals
}

# expect_no_room FOLDER: it says so, and what to do.
expect_no_room() {
    grep -qxF "script/server: there is no room for temporary files in $1." "$work/log" || fail "$(cat "$work/log")"
    grep -q '^  Next: .*TMPDIR=FOLDER script/server$' "$work/log" || fail "$(cat "$work/log")"
}

start
call=$(grep -m 1 '^  curl ' "$work/log") || fail "no call: $(cat "$work/log")"
sh -c "$call" >"$work/answer" || fail "the printed call does not work: $call"
grep -q "<var name='version'><number>100</number></var>" "$work/answer" || fail "$(cat "$work/answer")"
# The README shows the same call, on the usual port, and its answer.
grep -qxF "    \$ ${call#  }" <(sed "s/127.0.0.1:8080/127.0.0.1:$port/" README.md) || fail "README: $call"
grep -qxF "    $(cat "$work/answer")" README.md || fail "README: $(cat "$work/answer")"

if allows_namespaces; then expect_library no; else expect_library yes; fi
expect_demo_user
grep -qxF "    \$ ${second#  }" <(sed "s/127.0.0.1:8080/127.0.0.1:$port/" README.md) || fail "README: $second"
grep -qxF "    $(cat "$work/answer")" README.md || fail "README: $(cat "$work/answer")"
grep -q "^owner = \"Workstation 1\"" "$XDG_STATE_HOME/rdx-sim.state" || fail "the device forgets its owner"

script/server --port "$port" >"$work/second" 2>&1 && fail "a busy port was accepted"
grep -q "port $port is in use" "$work/second" || fail "$(cat "$work/second")"
stop

# Where the system allows no namespaces, as most containers; and where nothing helps.
mkdir "$work/bin"
refuse unshare
rm "$XDG_STATE_HOME/rdx-sim.state" # nobody owns the device
start env PATH="$work/bin:$PATH"
expect_library yes
expect_demo_user
stop
refuse getent
start env PATH="$work/bin:$PATH"
expect_library no
expect_no_demo_user 'getent: not on this machine'
stop
rm "$work/bin/getent"

# Where there is no room, or no folder.
(ulimit -f 100 && ! script/server --port "$port") >"$work/log" 2>&1 || fail "it started without room"
expect_no_room "$TMPDIR"
! TMPDIR=/nowhere script/server --port "$port" >"$work/log" 2>&1 || fail "it started without a folder"
expect_no_room /nowhere
[ -z "$(ls -A "$TMPDIR")" ] || fail "left behind: $(ls -A "$TMPDIR")"

# An ordinary user, who finds everything built. Where nothing is to be built, nothing may be missing either.
chmod 711 "$work"
tree=$work/tree
mkdir -p "$tree/build" "$work/nobody"
cp -R script "$tree"
mkdir "$tree/build/server"
cp build/server/*.so* build/server/rdxhttpd "$tree/build/server"
printf '#!/bin/sh\n' >"$work/bin/cmake"
chmod 755 "$work/bin/cmake"
# serve_nobody LIBRARY: to nobody's own server.
serve_nobody() {
    chown -R 65534:65534 "$work/nobody" "$TMPDIR"
    start "${as_nobody[@]}" env PATH="$work/bin:$PATH" XDG_STATE_HOME="$work/nobody/state"
    [ "$(stat -c %u "/proc/$server")" = 65534 ] || fail "the server runs as another user"
    expect_library "$1" "${as_nobody[@]}"
    expect_demo_user
    [ "$(stat -c %u "$work/nobody/state/rdx-sim.state")" = 65534 ] || fail "no state of the user's own"
    stop
    rm -r "$work/nobody/state"
}
if can_become_nobody "$tree/script/server"; then
    serve_nobody yes
    rm "$work/bin/unshare"
    ! allows_namespaces "${as_nobody[@]}" || serve_nobody no
fi

[ "$(users)" = "$users_before" ] || fail "the machine's own users were touched"
end "served, answered, refused a busy port and ended"

#!/bin/bash
# script/demo: the story of two workstations, on real connections to a server with credentials. It ends well,
# leaves nothing behind, and notices each answer that is not as the story says.
#
#   demo_test.sh SOURCE SERVER      SERVER: the rdxhttpd to run it with
set -eu
. "$(dirname "$0")/common.sh"
cd "$1"
program=$2
export TMPDIR=$work/tmp
unset RDX_SIM_STATE RDX_SIM_SCENARIO RDX_SIM_CALLS
# The handler runs only where the server holds no lock, which the thread sanitizer cannot know.
export TSAN_OPTIONS="report_signal_unsafe=0 ${TSAN_OPTIONS:-}"
mkdir "$TMPDIR" "$work/bin"
chmod 711 "$work"

# demo STATUS [OPTION...]: runs the demo, which has to end with the status and leave nothing behind; `as`
# runs it as somebody else.
as=()
demo() {
    local expected=$1 result=0
    "${as[@]}" script/demo --server "$program" "${@:2}" </dev/null >"$work/out" 2>"$work/errors" || result=$?
    [ "$result" -eq "$expected" ] || fail "it ended with $result: $(tail -n 40 "$work/out" "$work/errors")"
    [ -z "$(ls -A "$TMPDIR")" ] || fail "left behind: $(ls -A "$TMPDIR")"
}

# says MESSAGE: the demo has said this, with a next step, and has not praised itself.
says() {
    grep -qF "$1" "$work/errors" || fail "'$1' is not in: $(cat "$work/errors")"
    grep -q '^  Next: ' "$work/errors" || fail "no next step: $(cat "$work/errors")"
    ! grep -q 'as the story says' "$work/out" || fail "it ends well all the same: $1"
}

# begin NAME COMMAND...: runs it beside the others, in a folder of its own; the demos wait for their devices most
# of the time.
begun=()
begin() {
    (
        work=$work/$1
        TMPDIR=$work/tmp
        mkdir -p "$TMPDIR"
        "${@:2}"
    ) &
    begun+=($!)
}

# notices FUNCTION KEY=VALUE MESSAGE: with this scenario the demo fails with this message.
notices() { begin "$1" find_fault "$@"; }
find_fault() {
    printf '[%s]\n%s\n' "$1" "$2" >"$work/scenario.ini"
    demo 1 --scenario "$work/scenario.ini"
    says "script/demo: $3"
}

script/demo --unknown >"$work/out" 2>&1 && fail "an unknown option was accepted"
script/demo --scenario /nowhere >"$work/out" 2>&1 && fail "a missing scenario was accepted"
grep -q "there is no file '/nowhere'" "$work/out" || fail "$(cat "$work/out")"

# Where nothing gives the server its user; where there is no room, or no folder.
refuse unshare
refuse getent
as=(env PATH="$work/bin:$PATH")
demo 1
says 'the system gives the server no shadow database of its own for the user demo: getent: not on this machine.'
rm "$work/bin/getent"
as=()
(ulimit -f 100 && demo 1)
says "there is no room for temporary files in $TMPDIR."
! TMPDIR=/nowhere script/demo --server "$program" >"$work/out" 2>"$work/errors" || fail "it ran without a folder"
says 'there is no room for temporary files in /nowhere.'

demo 0
tail -n 1 "$work/out" | grep -qE '^[1-9][0-9]+ calls, [1-9][0-9]+ values checked: all as the story says\.$' ||
    fail "$(tail "$work/out")"
for method in rdxGetVersion rdxGetDeviceStatus rdxGetVehicleStatus rdxAllocateDevice rdxReleaseDevice \
    rdxInitiateCfgRequest rdxSetIpConfiguration rdxSetDeviceAttributes rdxRunDeviceSelfTest \
    rdxUpdateDeviceFirmware; do
    grep -qE "^Workstation [12] calls $method( |$)" "$work/out" || fail "$method is not shown"
done
! grep -q $'\e' "$work/out" || fail "colours, though there is no terminal"
[ ! -s "$work/errors" ] || fail "$(cat "$work/errors")"

# Where the system allows no namespaces, as most containers.
as=(env PATH="$work/bin:$PATH")
begin preloaded demo 0
as=()

# An answer that is otherwise is noticed where it comes.
notices rDxGetOwner 'owner = Somebody' \
    "rdxAllocateDevice, called by Workstation 2: Status/params/0/DeviceOwner is 'Somebody' and should be 'Workstation 1'."
notices rDxAllocateDevice 'result = 3' \
    "rdxAllocateDevice, called by Workstation 1: Status/code is '42101' and should be '0'."
notices rDxSetDeviceAttributes 'result = 0' \
    "rdxSetDeviceAttributes, called by Workstation 2: Status/code is '0' and should be '42020'."
notices rdxGetDeviceAttributes 'count = 0' \
    "rdxGetDeviceStatus, called by Workstation 1: the attribute Location is 'missing' and should be 'Bay 7'."
notices rDxRunDeviceSelfTest 'end_reason = 9070' \
    "rdxGetDeviceStatus, called by Workstation 1: SelftestStatus/code is '42502' and should be '0'."
notices rDxGetVehicleStatus 'terminal30 = 12701' \
    "rdxGetVehicleStatus, called by Workstation 1: Voltage/Terminal_30 is '12701' and should lie between 12300 and 12700."
notices rDxSetIpConfiguration 'reboot_required = 0' \
    "rdxSetIpConfiguration, called by Workstation 1: RebootRequired is 'false' and should be 'true'."
notices rDxUpdateDeviceFirmware 'new_revision = 5000' \
    "rdxGetDeviceStatus, called by Workstation 1: FirmwareRev is '5000' and should be '4712'."
notices rDxGetActiveIpConf 'ip_address = 192.168.0.10' \
    "rdxGetDeviceStatus, called by Workstation 1: IpAddress is '192.168.0.10' and should be '192.168.7.20'."
notices rDxReleaseDevice 'result = 0' \
    "rdxReleaseDevice, called by Workstation 2: Status/code is '0' and should be '42020'."
for one in "${begun[@]}"; do wait "$one" || fail "see above"; done

# A server that does not come up.
program=/bin/false demo 1
says 'the server did not start.'

# Somebody presses Enter before each call.
yes '' | script/demo --step --server "$program" >"$work/out" 2>"$work/errors" || fail "$(cat "$work/errors")"
[ "$(grep -c '^\[Enter\]' "$work/out")" -eq "$(grep -c '^Workstation [12] calls rdx' "$work/out")" ] ||
    fail "it does not wait once for each call"

# An ordinary user.
if can_become_nobody "$program"; then
    chown 65534 "$TMPDIR"
    as=("${as_nobody[@]}")
    demo 0
fi
end "the story is told, and its answers are checked"

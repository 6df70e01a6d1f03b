#!/bin/bash
# What changes in the code reaches the facts that it prints, and script/protocol, which builds and asks the
# program of the facts by itself. All changes are made at once, in a copy: it takes a build.
#
#   facts_test.sh SOURCE FACTS      FACTS is the program that prints the facts
set -eu
. "$(dirname "$0")/common.sh"
source=$1
"$2" >"$work/before"

tree=$work/tree
mkdir -p "$tree/tests/system"
(cd "$source" && cp -r CMakeLists.txt CMakePresets.json cmake common http wddx client rDxsd server host sim script docs \
    "$tree" && cp -r tests/system/golden "$tree/tests/system")

# change FILE SED FACT: makes a change, after which the code is to print the fact, which it does not print now.
# The parts of the fact stand between blanks here, but for blanks in quotes.
facts=()
change() {
    cp "$tree/$1" "$work/original"
    sed "$2" "$work/original" >"$tree/$1"
    ! cmp -s "$work/original" "$tree/$1" || fail "$2: nothing was changed in $1"
    shift 2
    local fact
    fact=$(printf '%s\t' "$@")
    fact=${fact%$'\t'}
    ! grep -qxF "$fact" "$work/before" || fail "the facts have it already: $fact"
    facts+=("$fact")
}

rows=rDxsd/method_rows.cpp
change $rows 's/{3, 42101, 9002, /{3, 42101, 9003, /' status rdxAllocateDevice 3 42101 9003 Reason
change $rows 's/^ *{11, 42404, 9032, .*/&\n    {15, 42405, 9036, Detail::kReason},/' \
    status rdxUpdateDeviceFirmware 15 42405 9036 Reason
change $rows 's/{14, 42403, 9035/{16, 42403, 9035/' status rdxUpdateDeviceFirmware 16 42403 9035 Reason
change $rows 's/{3, -1, 9072, Detail::kReason/{3, -1, 9072, Detail::kOwner/' \
    status rdxGetVehicleStatus 3 -1 9072 'the owner'
change $rows 's/kInitiateArguments, kInitiateStatuses/kInitiateArguments, kReleaseStatuses/' \
    status rdxInitiateCfgRequest 1 42102 9011 ReleasedBy
change rDxsd/method_rows.h 's/kDetailedTestAwaited = 9064/kDetailedTestAwaited = 9066/' \
    status rdxRunDeviceSelfTest 9066 42501 9064 Reason
change rDxsd/method_rows.h 's/kAwaitedInVain = {5, /kAwaitedInVain = {6, /' \
    status rdxRunDeviceSelfTest 6 42501 9065 Reason
change rDxsd/method_rows.h 's/= 42010;/= 42011;/' status 'unknown method' '' 42011 9003 '`params` is null'
change rDxsd/method_rows.h 's/kTestFailed = 42502/kTestFailed = 42503/' \
    status SelftestStatus 'another reason' 42503 'that reason' 'see below'
change $rows 's/MethodRow{"rdxGetVersion", ProcessGetVersion, kPublic/MethodRow{"rdxTellVersion", ProcessGetVersion, kAuthenticated/' \
    method rdxTellVersion authenticated
change $rows 's/{"CfgMode", /{"Mode", /' argument rdxInitiateCfgRequest Mode 'integer or boolean' yes -
change $rows 's/{"FirmwareRev", kInteger, /{"FirmwareRev", kArray, /' \
    argument rdxUpdateDeviceFirmware FirmwareRev array yes -
change $rows 's/{"Hostname", kText, kOptional}/{"Hostname", kText, kRequired}/' \
    argument rdxSetIpConfiguration Hostname string yes -
change $rows 's/{"IfhClientIpAddr", kText, kRequired, kAddressMax}/{"IfhClientIpAddr", kText, kRequired}/' \
    argument rdxAllocateDevice IfhClientIpAddr string yes -
change rDxsd/method_rows.h 's/kOwnerMax = 32/kOwnerMax = 33/' argument rdxGetVehicleStatus DeviceOwner string yes 33
change $rows 's/{"EnforceReg", /{"Enforce", /' argument rdxSetDeviceAttributes Enforce 'integer or boolean' yes -
change $rows 's/{"Terminal_30", /{"Terminal_31", /' key rdxGetVehicleStatus Terminal_31
change rDxsd/rDxWddx.cpp 's/"AllocatedBy"/"AllocatedFor"/' key - AllocatedFor
change rDxsd/method.cpp 's/"ReleasedBy"/"GivenBackBy"/' key - GivenBackBy
change http/http.cpp 's/"Cookie"/"Biscuit"/' header request Biscuit
change http/http.h 's/HTTP_MAX_REQUEST_HEADERS = 14/HTTP_MAX_REQUEST_HEADERS = 26/' headers request 26
change http/http.h 's/HTTP_LINE_SIZE = 512/HTTP_LINE_SIZE = 1024/' limit 'request line, header line' 1023 bytes 400
change common/settings.def 's/uiVoltageMaxAge, 120/uiVoltageMaxAge, 121/' \
    setting VoltageMaxAge 121 - 'no effect; a number above 0, of seconds'
change common/config.cpp 's/g_dwPostMaxContLength = 65536/g_dwPostMaxContLength = 65537/' \
    limit 'request body' 65537 bytes 400

# Without sanitizers or the like, whatever this build has.
if env -u CXXFLAGS -u LDFLAGS "$tree/script/protocol" --check >"$work/log" 2>&1; then
    fail "script/protocol did not notice"
fi
[ -x "$tree/build/server/rdx_facts" ] || fail "the program of the facts was not built: $(cat "$work/log")"
"$tree/build/server/rdx_facts" >"$work/after"
for fact in "${facts[@]}"; do
    # ReleasedBy was changed too, and stands in a table.
    grep -qxF "${fact/%ReleasedBy/GivenBackBy}" "$work/after" || fail "a change does not reach the facts: $fact"
done
end "a change of the code reaches the facts, and script/protocol by itself"

#!/bin/bash
# docs/protocol.md agrees with the code and with the packets that the tests expect; script/protocol notices when
# either of them changes, says what to do, and can bring the document up to date.
#
#   protocol_test.sh SOURCE
set -eu
. "$(dirname "$0")/common.sh"
source=$1

"$source/script/protocol" --check || fail "docs/protocol.md is not up to date"
"$source/script/protocol" --unknown >"$work/log" 2>&1 && fail "an unknown option was accepted"

# copy: what the script reads, in a tree of its own.
copy() {
    rm -rf "$work/tree"
    mkdir -p "$work/tree/tests/system"
    (cd "$source" && cp -r script docs rDxsd common http server wddx "$work/tree" && cp -r tests/system/golden "$work/tree/tests/system")
}

# drifts WHAT REPAIRED FILE SED: the check fails after the file was changed so, and leaves the document alone; the
# script itself brings the document up to date (yes) or finds that it cannot (no).
drifts() {
    copy
    sed "$4" "$source/$3" >"$work/tree/$3"
    ! cmp -s "$source/$3" "$work/tree/$3" || fail "$1: nothing was changed"
    cp "$work/tree/docs/protocol.md" "$work/before"
    "$work/tree/script/protocol" --check >"$work/log" 2>&1 && fail "$1: not noticed"
    grep -q '^  Next: ' "$work/log" || fail "$1: says nothing to do next: $(cat "$work/log")"
    cmp -s "$work/before" "$work/tree/docs/protocol.md" || fail "$1: the check writes"
    if [ "$2" = yes ]; then
        "$work/tree/script/protocol" >"$work/log" 2>&1 || fail "$1: not repaired: $(cat "$work/log")"
        "$work/tree/script/protocol" --check || fail "$1: not repaired"
    else
        ! "$work/tree/script/protocol" >"$work/log" 2>&1 || fail "$1: taken for repaired"
    fi
}

golden=tests/system/golden
drifts 'an answer' yes $golden/rdxGetVersion/0.xml 's/100/101/'
drifts 'a message' yes $golden/junior/follow_up.http 's/vsFollowUpSuccess/vsFollowUp/'
drifts 'arguments' yes $golden/rdxAllocateDevice/arguments.xml 's/10\.0\.0\.7/10.0.0.8/'
drifts 'a broken answer' no $golden/rdxGetVersion/0.xml 's/<\/struct>//'
drifts 'a code' yes rDxsd/ownership.cpp 's/42101, 9002/42101, 9003/'
drifts 'a row' yes rDxsd/maintenance.cpp '/42404, 9032/d'
drifts 'a row on a line with others' yes rDxsd/maintenance.cpp 's/{-1, 42301, 9052, Detail::kReason},//'
drifts 'a detail' yes rDxsd/status.cpp 's/-1, 9072, Detail::kReason/-1, 9072, Detail::kOwner/'
drifts 'a result' yes rDxsd/maintenance.cpp 's/{14, 42403/{15, 42403/'
drifts 'a result with a name' yes rDxsd/maintenance.cpp 's/kDetailedTestAwaited = 9064/kDetailedTestAwaited = 9066/'
drifts 'an outcome with a name' yes rDxsd/maintenance.cpp 's/{5, 42501, 9065/{6, 42501, 9065/'
drifts 'a method with another table' yes rDxsd/ownership.cpp 's/FindOutcome(kReleaseOutcomes/FindOutcome(kInitiateOutcomes/'
drifts 'tables in another form' no rDxsd/ownership.cpp 's/^constexpr Outcome/const Outcome/'
drifts 'the unknown method' yes rDxsd/dispatcher.cpp 's/42010/42011/'
drifts 'the self test' yes rDxsd/method.cpp 's/kFailed = 42502/kFailed = 42503/'
drifts 'a constant that went' no rDxsd/method.cpp 's/kNotPassed/kNone/'
drifts 'a header' yes http/http.cpp 's/"Cookie"/"Biscuit"/'
drifts 'a list of headers' yes http/http.h 's/HTTP_MAX_REQUEST_HEADERS = 14/HTTP_MAX_REQUEST_HEADERS = 26/'
drifts 'a line' yes http/http.h 's/HTTP_LINE_SIZE = 512/HTTP_LINE_SIZE = 1024/'
drifts 'the body' yes common/config.cpp 's/g_dwPostMaxContLength = 65536/g_dwPostMaxContLength = 65537/'
drifts 'a method that is renamed' no rDxsd/dispatcher.cpp 's/Method{"rdxGetVersion"/Method{"rdxTellVersion"/'
drifts 'who may call' no rDxsd/dispatcher.cpp 's/ProcessGetVersion, Access::kPublic/ProcessGetVersion, Access::kAuthenticated/'
drifts 'an argument that is renamed' no rDxsd/ownership.cpp 's/"CfgMode"/"Mode"/'
drifts 'an argument of another type' no rDxsd/maintenance.cpp 's/Integer("FirmwareRev")/IntegerOrFlag("FirmwareRev")/'
drifts 'an argument that is required now' no rDxsd/maintenance.cpp 's/OptionalText("Hostname")/Text("Hostname")/'
drifts 'an argument with another limit' no rDxsd/ownership.cpp 's/, kAddressMax)/)/'
drifts 'the limit of an argument' no rDxsd/method.h 's/kOwnerMax = 32/kOwnerMax = 33/'
drifts 'a member of an attribute' no rDxsd/maintenance.cpp 's/element, "EnforceReg"/element, "Enforce"/'
drifts 'a key' no rDxsd/status.cpp 's/"Terminal_30"/"Terminal_31"/'
drifts 'a key of every answer' no rDxsd/rDxWddx.cpp 's/"AllocatedBy"/"AllocatedFor"/'
drifts 'a key in a member of its own' no rDxsd/method.cpp 's/"ReleasedBy"/"GivenBackBy"/'
drifts 'the document' yes docs/protocol.md 's/| 42601 | 9034 |/| 42601 | 9035 |/'
drifts 'a chapter that went' no docs/protocol.md 's/^### rdxReleaseDevice/### Giving back/'
drifts 'a row that went' no docs/protocol.md '/^| `CaCert`/d'
drifts 'an example that went' no docs/protocol.md 's/<!-- begin rdxGetVehicleStatus\/0.xml -->/<!-- begin rdxGetVehicleStatus\/1.xml -->/'
drifts 'a part without an end' no docs/protocol.md '0,/^<!-- end -->/{/^<!-- end -->/d}'
drifts 'a part without a packet' no docs/protocol.md 's/<!-- begin rdxReleaseDevice\/1.xml/<!-- begin rdxReleaseDevice\/77.xml/'
drifts 'a part of another name' no docs/protocol.md 's/<!-- begin codes -->/<!-- begin sodes -->/'
end "the protocol's document agrees with the code, and would not go unnoticed if it did not"

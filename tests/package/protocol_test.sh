#!/bin/bash
# docs/protocol.md and docs/settings.md agree with the code and with the packets that the tests expect; script/protocol notices when
# either of them changes, says what to do, and can bring the document up to date. What it knows of the code are
# the facts that the code prints.
#
#   protocol_test.sh SOURCE FACTS      FACTS is the program that prints them
set -eu
. "$(dirname "$0")/common.sh"
source=$1
"$2" >"$work/as_printed"

"$source/script/protocol" --check --facts "$work/as_printed" || fail "docs/protocol.md is not up to date"
for wrong in --unknown '--facts' "--facts $work/missing"; do
    "$source/script/protocol" $wrong >"$work/log" 2>&1 && fail "'$wrong' was accepted"
    grep -q '^  Next: ' "$work/log" || fail "'$wrong': says nothing to do next: $(cat "$work/log")"
done

# copy: what the script reads, in a tree of its own.
copy() {
    rm -rf "$work/tree"
    mkdir -p "$work/tree/tests/system"
    (cd "$source" && cp -r script docs "$work/tree" && cp -r tests/system/golden "$work/tree/tests/system")
    cp "$work/as_printed" "$work/tree/facts"
}

# drifts WHAT REPAIRED FILE SED: the check fails after the file was changed so, and leaves the document alone; the
# script itself brings the document up to date (yes) or finds that it cannot (no).
drifts() {
    copy
    local protocol="$work/tree/script/protocol"
    cp "$work/tree/$3" "$work/original"
    sed "$4" "$work/original" >"$work/tree/$3"
    ! cmp -s "$work/original" "$work/tree/$3" || fail "$1: nothing was changed"
    cp "$work/tree/docs/protocol.md" "$work/before"
    "$protocol" --check --facts "$work/tree/facts" >"$work/log" 2>&1 && fail "$1: not noticed"
    grep -q '^  Next: ' "$work/log" || fail "$1: says nothing to do next: $(cat "$work/log")"
    cmp -s "$work/before" "$work/tree/docs/protocol.md" || fail "$1: the check writes"
    if [ "$2" = yes ]; then
        "$protocol" --facts "$work/tree/facts" >"$work/log" 2>&1 || fail "$1: not repaired: $(cat "$work/log")"
        "$protocol" --check --facts "$work/tree/facts" || fail "$1: not repaired"
    else
        ! "$protocol" --facts "$work/tree/facts" >"$work/log" 2>&1 || fail "$1: taken for repaired"
    fi
}

golden=tests/system/golden
drifts 'an answer' yes $golden/rdxGetVersion/0.xml 's/100/101/'
drifts 'a message' yes $golden/junior/follow_up.http 's/vsFollowUpSuccess/vsFollowUp/'
drifts 'arguments' yes $golden/rdxAllocateDevice/arguments.xml 's/10\.0\.0\.7/10.0.0.8/'
drifts 'a broken answer' no $golden/rdxGetVersion/0.xml 's/<\/struct>//'
drifts 'a code' yes facts 's/42101\t9002/42101\t9003/'
drifts 'a row' yes facts '/42404\t9032/d'
drifts 'a new row' yes facts 's/^status\trdxReleaseDevice\t3\t.*/&\nstatus\trdxReleaseDevice\t4\t42102\t9015\tReason/'
drifts 'a detail' yes facts 's/9072\tReason/9072\tthe owner/'
drifts 'a result' yes facts 's/\t14\t42403/\t15\t42403/'
drifts 'a method with the rows of another' yes facts 's/^status\trdxReleaseDevice/status\trdxInitiateCfgRequest/'
drifts 'the unknown method' yes facts 's/42010/42011/'
drifts 'the self test' yes facts 's/42502\tthat/42503\tthat/'
drifts 'a setting' yes facts 's/^setting\tAuthRealm\tTavrin/setting\tAuthRealm\tTaverne/'
drifts 'facts without settings' no facts '/^setting\t/d'
drifts 'facts without codes' no facts '/^status/d'
drifts 'facts without headers' no facts '/^header\t/d'
drifts 'no facts' no facts d
drifts 'a header' yes facts 's/\tCookie$/\tBiscuit/'
drifts 'a new header' yes facts 's/^header\tresponse\tAge/&\nheader\tresponse\tAgain/'
drifts 'a list of headers' yes facts 's/^headers\trequest\t14/headers\trequest\t26/'
drifts 'another kind of headers' yes facts 's/\tentity\t/\tbody\t/'
drifts 'a line' yes facts 's/\t511\t/\t1023\t/'
drifts 'the body' yes facts 's/\t65536\t/\t65537\t/'
drifts 'a new method' no facts '$a method\trdxTellTime\tpublic'
drifts 'a method that is renamed' no facts 's/rdxGetVersion/rdxTellVersion/'
drifts 'a method that went' no facts '/\trdxGetVersion\t/d'
drifts 'who may call' no facts 's/^method\trdxGetVersion\tpublic/method\trdxGetVersion\tauthenticated/'
drifts 'an argument that is renamed' no facts 's/\tCfgMode\t/\tMode\t/'
drifts 'a new argument' no facts '$a argument\trdxGetVersion\tminor\tinteger\tyes\t-'
drifts 'an argument of another type' no facts 's/FirmwareRev\tinteger/FirmwareRev\tinteger or boolean/'
drifts 'an argument that is required now' no facts 's/Hostname\tstring\tno/Hostname\tstring\tyes/'
drifts 'an argument with another limit' no facts 's/\tIfhClientIpAddr\tstring\tyes\t16/\tIfhClientIpAddr\tstring\tyes\t-/'
drifts 'the limit of an argument' no facts 's/DeviceOwner\tstring\tyes\t32/DeviceOwner\tstring\tyes\t33/'
drifts 'a member of an attribute' no facts 's/\tEnforceReg\t/\tEnforce\t/'
drifts 'a key' no facts 's/\tTerminal_30$/\tTerminal_31/'
drifts "a method's key that only another one has" no facts '$a key\trdxReleaseDevice\tTerminal_30'
drifts 'a key of every answer' no facts 's/\tAllocatedBy$/\tAllocatedFor/'
drifts 'the document' yes docs/protocol.md 's/| 42601 | 9034 |/| 42601 | 9035 |/'
drifts 'a chapter that went' no docs/protocol.md 's/^### rdxReleaseDevice/### Giving back/'
drifts 'a row that went' no docs/protocol.md '/^| `CaCert`/d'
drifts 'an example that went' no docs/protocol.md 's/<!-- begin rdxGetVehicleStatus\/0.xml -->/<!-- begin rdxGetVehicleStatus\/1.xml -->/'
drifts 'a part without an end' no docs/protocol.md '0,/^<!-- end -->/{/^<!-- end -->/d}'
drifts 'a part without a packet' no docs/protocol.md 's/<!-- begin rdxReleaseDevice\/1.xml/<!-- begin rdxReleaseDevice\/77.xml/'
drifts 'a part of another name' no docs/protocol.md 's/<!-- begin codes -->/<!-- begin sodes -->/'
end "the protocol's document agrees with the code, and would not go unnoticed if it did not"

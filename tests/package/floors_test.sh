#!/bin/bash
# Whether floors.py finds what it looks for, in copies of the sources to which one bad line is added.
#
#   floors_test.sh FLOORS ROOT MODULES
set -eu
. "$(dirname "$0")/common.sh"
floors=$1
root=$2
modules=$3

folder=$work
mkdir "$folder/root"
cp -r "$root/common" "$root/http" "$root/wddx" "$root/client" "$root/rDxsd" "$root/server" "$root/host" \
    "$root/sim" "$folder/root"
cp "$modules" "$folder/modules"

# finds WHAT: floors.py fails and says so.
finds() {
    if python3 "$floors" "$folder/root" "$folder/modules" >"$folder/findings"; then
        fail "it found nothing where it should say: $1"
    fi
    grep -qF "$1" "$folder/findings" || fail "it does not say '$1' but: $(cat "$folder/findings")"
}

# with FILE INCLUDE WHAT: what it says of a file that includes one header more.
with() {
    cp "$folder/root/$1" "$folder/kept"
    printf '#include "%s"\n' "$2" >>"$folder/root/$1"
    finds "$3"
    cp "$folder/kept" "$folder/root/$1"
}

python3 "$floors" "$folder/root" "$folder/modules" || fail "it finds something in the sources as they are"
with common/text.cpp http/http.h "common/text.cpp includes http/http.h, which is not below common/"
with http/http.h http/httpreq.h "module http does not declare httpreq"
with http/http.h http/header_list.h "a cycle: "
with host/results.cpp common/log.h "host/results.cpp includes common/log.h, which is not below host/"
with wddx/tree.h rDxsd/values.h "wddx/tree.h includes rDxsd/values.h, which is not below wddx/"
: >"$folder/root/server/stray.cpp"
finds "server/stray.cpp belongs to no rdx_module"
rm "$folder/root/server/stray.cpp"
sed 's/^auth: .*/& wddx/' "$modules" >"$folder/modules"
finds "module auth declares wddx and includes nothing of it"
{ grep '^http:' "$modules"; grep -v '^http:' "$modules"; } >"$folder/modules"
finds "module http stands below log, which it uses"

#!/bin/bash
# Types the commands of the README that build the library and a host process, in their order and as they stand,
# in a copy of the sources and with a home of its own; and calls the host process that the last one starts.
#
#   readme_test.sh SOURCE
set -eu
. "$(dirname "$0")/common.sh"

mkdir "$work/copy" "$work/home"
find "$1" -mindepth 1 -maxdepth 1 ! -name 'build*' ! -name .git -exec cp -R {} "$work/copy" \;
cd "$work/copy"

# The indented lines of the two chapters; what stands between ``` is code.
awk '/^## / { wanted = /^## (Building the library alone|A host process of one.s own)$/ }
     /^```/ { code = !code }
     wanted && !code && sub(/^    /, "")' README.md >"$work/commands"
[ "$(grep -c '^cmake ' "$work/commands")" -ge 7 ] || fail "commands are missing: $(cat "$work/commands")"
tail -n 1 "$work/commands" | grep -q '/host" -c ' || fail "the last one starts no host: $(cat "$work/commands")"
grep -q 'ServicePort=8080' "$work/commands" || fail "no port: $(cat "$work/commands")"

# What a person types in a shell without settings of its own.
unset PKG_CONFIG_PATH CMAKE_PREFIX_PATH LD_LIBRARY_PATH CXXFLAGS CFLAGS
export HOME=$work/home RDX_SIM_STATE=$work/device.state CMAKE_BUILD_PARALLEL_LEVEL=$(nproc)
sed '$d' "$work/commands" | sed "s/ServicePort=8080/ServicePort=PORT/" >"$work/steps"
bash -e "$work/steps" >"$work/log" 2>&1 || fail "$(cat "$work/log")"
for left in build/lib/librDxsH.so build/lib/libDxSvcs.so build/examples/host "$HOME/rdx/host"; do
    [ -e "$left" ] || fail "there is no $left"
done
[ -z "$(find . -newer "$work/steps" -type f ! -path './build/*')" ] || fail "sources were changed"

packet="<wddxPacket version='1.0'><header/><data><struct><var name='version'><number>1</number></var></struct></data></wddxPacket>"
answers() {
    curl --noproxy '*' -sf --max-time 5 -o "$work/answer" --data "$packet" \
        "http://127.0.0.1:$port/rDx?FunctionName=rdxGetVersion"
}
# A port that is taken ends the program; another one is free.
for _ in 1 2 3 4 5 6 7 8 9 10; do
    choose_port
    sed -i "s/ServicePort=.*/ServicePort=$port/" "$HOME/rdx/host.ini"
    sh -c "$(tail -n 1 "$work/commands" | sed 's/LD_LIBRARY_PATH/exec env LD_LIBRARY_PATH/')" >"$work/log" 2>&1 &
    server=$!
    until answers || ! kill -0 "$server" 2>/dev/null; do sleep 0.05; done
    ! kill -0 "$server" 2>/dev/null || break
done
grep -q "<var name='version'><number>100</number></var>" "$work/answer" || fail "no answer: $(cat "$work/log")"
kill -TERM "$server"
wait "$server" || fail "the host ended with $?: $(cat "$work/log")"
server=
end "built, installed, linked and served as the README says"

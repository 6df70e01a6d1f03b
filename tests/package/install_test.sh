#!/bin/bash
# Installs a build into a prefix of its own and uses it from there: every header alone as C and as C++,
# and the example host program built with the CMake package and with pkg-config, which serves a call. A device
# library that stands there stays as it is, and none is needed to link with.
#
#   install_test.sh SOURCE BUILD
set -eu
. "$(dirname "$0")/common.sh"
source=$1
build=$2

# install_into FOLDER [COMPONENT]
install_into() {
    cmake --install "$build" --prefix "$work/$1" ${2:+--component "$2"} >"$work/log" 2>&1 || fail "$(cat "$work/log")"
}
# files FOLDER: what is no header in it, sorted.
files() { (cd "$work/$1" && find . ! -type d ! -path './include/*' | sed 's/-[a-z]*\.cmake$/-KIND.cmake/' | LC_ALL=C sort); }

# What a device has already, in the place where the loader looks.
mkdir -p "$work/first/lib"
echo "the device's own" | tee "$work/own" >"$work/first/lib/libDxSvcs.so"
install_into first
cat >"$work/expected" <<END
./bin/rdxhttpd
./lib/cmake/rDxsH/rDxsHConfig.cmake
./lib/cmake/rDxsH/rDxsHConfigVersion.cmake
./lib/cmake/rDxsH/rDxsHTargets-KIND.cmake
./lib/cmake/rDxsH/rDxsHTargets.cmake
./lib/libDxSvcs.so
./lib/librDxsH.so
./lib/librDxsH.so.0
./lib/pkgconfig/rDxsH.pc
END
files first | diff "$work/expected" - || fail "installed files"
install_into first simulator
cmp "$work/own" "$work/first/lib/libDxSvcs.so" || fail "the device's own library was replaced"
rm "$work/first/lib/libDxSvcs.so"

for component in runtime simulator; do install_into $component $component; done
files runtime | diff <(printf '%s\n' ./bin/rdxhttpd ./lib/librDxsH.so.0) - || fail "component runtime"
files simulator | grep -v '^./bin/rdxadmin$' | diff <(echo ./lib/rDxsH/sim/libDxSvcs.so) - ||
    fail "component simulator"
for component in runtime development simulator; do install_into parts $component; done
diff -r "$work/parts" "$work/first" || fail "the components are not the whole"

mv "$work/first" "$work/prefix" # nothing may depend on where it was installed first
prefix=$work/prefix
libdir=$prefix/lib
export PKG_CONFIG_PATH=$libdir/pkgconfig

# The loader alone decides which device library it is.
dynamic() { readelf -dW "$1" | sed -n "s/.*($2).*\[\(.*\)\]/\1/p"; }
[ -z "$(dynamic "$libdir/librDxsH.so.0" 'RUNPATH\|RPATH')" ] || fail "the installed library has a run path"
dynamic "$libdir/librDxsH.so.0" NEEDED | grep -qx libDxSvcs.so || fail "no device library is loaded"
[ "$(dynamic "$libdir/librDxsH.so" SONAME)" = librDxsH.so.0 ] || fail "the library's number"
[ "$(dynamic "$prefix/bin/rdxhttpd" 'RUNPATH')" = '$ORIGIN:$ORIGIN/../lib' ] || fail "the run path of rdxhttpd"

# The README shows the example as it is.
sed -n '/^```c$/,/^```$/p' "$source/README.md" | sed '1d;$d' | diff "$source/examples/host.c" - ||
    fail "the README's example is not examples/host.c"

# The headers are the exported ones, all of them, and each stands alone.
include=$prefix/include/rDxsH
(cd "$include" && find . -name '*.h' | sort) >"$work/installed"
(cd "$source" && grep -l 'RDX_API\|define RDX_API' $(find ./common ./http ./server ./client ./wddx ./rDxsd -name '*.h') |
    xargs grep -l '^#ifdef __cplusplus\|define RDX_API' | sort) >"$work/exported"
diff "$work/exported" "$work/installed" || fail "installed headers are not the exported ones"
while read -r header; do
    for language in 'c -std=c11' 'c++ -std=c++11'; do
        printf '#include "%s"\ntypedef int kSomething;\n' "$header" | g++ -x $language -Wall -Wextra -Wpedantic -Werror -fsyntax-only \
            $(pkg-config --cflags rDxsH) - || fail "$header does not stand alone as $language"
    done
done <"$work/installed"

# No device library is in sight of the linker.
mv "$libdir/rDxsH/sim" "$work/sim"
cmake -S "$source/examples" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >"$work/log" 2>&1 &&
    cmake --build "$work/cmake" >>"$work/log" 2>&1 || fail "find_package: $(cat "$work/log")"
g++ -x c -std=c11 -Wall -Wextra -Wpedantic -Werror "$source/examples/host.c" -x none \
    $(pkg-config --cflags --libs rDxsH) -Wl,-rpath,"$libdir" -o "$work/host" || fail "pkg-config"
for program in "$work/cmake/host" "$work/host" "$prefix/bin/rdxhttpd"; do
    "$program" >"$work/log" 2>&1 && fail "$program runs without a device library"
    grep -q 'libDxSvcs.so: cannot open shared object file' "$work/log" || fail "$program: $(cat "$work/log")"
done

# With the simulated one.
mv "$work/sim" "$libdir/rDxsH"
export LD_LIBRARY_PATH=$libdir/rDxsH/sim RDX_SIM_STATE=$work/device.state
"$source/tests/package/request_page_test.sh" "$work/cmake/request_page" || fail "the page of a request"

# serve PROGRAM: starts it on a free port. A port that is taken ends the program with -9; try another.
serve() {
    for _ in 1 2 3 4 5 6 7 8 9 10; do
        choose_port
        printf '[HTTP]\nServicePort=%s\nMethodsAllowed=GET, POST\n' "$port" >"$work/server.ini"
        "$1" -c "$work/server.ini" >"$work/log" 2>&1 &
        server=$!
        until curl --noproxy '*' -sf --max-time 5 -o "$work/answer" --data "$packet" \
            "http://127.0.0.1:$port/rDx?FunctionName=rdxGetVersion"; do
            kill -0 "$server" 2>/dev/null || continue 2
            sleep 0.05
        done
        return 0
    done
    fail "$1 does not serve: $(cat "$work/log")"
}
packet="<wddxPacket version='1.0'><header/><data><struct><var name='version'><number>1</number></var></struct></data></wddxPacket>"

for program in "$work/cmake/host" "$work/host" "$prefix/bin/rdxhttpd"; do
    serve "$program"
    grep -q "<var name='version'><number>100</number></var>" "$work/answer" ||
        fail "$program answers $(cat "$work/answer")"
    kill -TERM "$server"
    wait "$server" || fail "$program ended with $?: $(cat "$work/log")"
    server=
done
"$work/host" --unknown 1 >"$work/log" && fail "an unknown option was accepted"
grep -q '^the server ended with -1$' "$work/log" || fail "$(cat "$work/log")"
[ -e "$build/librdxusers.so" ] && [ -z "$(find "$prefix" -name '*rdxusers*')" ] ||
    fail "what is for trying alone is installed"
end "installed, found by CMake and pkg-config, and served"

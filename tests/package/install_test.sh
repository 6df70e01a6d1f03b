#!/bin/bash
# Installs a build into a prefix of its own and uses it from there: every header alone as C and as C++,
# and the example host program built with the CMake package and with pkg-config, which serves a call.
#
#   install_test.sh SOURCE BUILD
set -eu
. "$(dirname "$0")/common.sh"
source=$1
build=$2

cmake --install "$build" --prefix "$work/first" >"$work/log" || fail "$(cat "$work/log")"
mv "$work/first" "$work/prefix" # nothing may depend on where it was installed first
prefix=$work/prefix
libdir=$(dirname "$(find "$prefix" -name librDxsH.so)")
export PKG_CONFIG_PATH=$libdir/pkgconfig

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

cmake -S "$source/examples" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >"$work/log" 2>&1 &&
    cmake --build "$work/cmake" >>"$work/log" 2>&1 || fail "find_package: $(cat "$work/log")"
g++ -x c -std=c11 -Wall -Wextra -Wpedantic -Werror "$source/examples/host.c" -x none \
    $(pkg-config --cflags --libs rDxsH) -Wl,-rpath,"$libdir" -o "$work/host" || fail "pkg-config"
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

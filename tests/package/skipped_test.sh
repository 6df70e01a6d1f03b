#!/bin/bash
# What script/test says of skipped tests, for a run of ctest in which tests are skipped in every way that there
# is: a Google Test program on its own or within one that goes on, a script in parts, and one without a word.
#
#   skipped_test.sh SOURCE
set -eu
. "$(dirname "$0")/common.sh"
source=$1

mkdir "$work/project"
cd "$work/project"
cat >CMakeLists.txt <<'END_OF_FILE'
cmake_minimum_required(VERSION 3.25)
project(skipping LANGUAGES NONE)
enable_testing()
foreach(name IN ITEMS program/Alone.Is/1 program script silent failing passing)
  string(REPLACE "/" "_" file ${name})
  add_test(NAME ${name} COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/${file})
endforeach()
set_tests_properties(program/Alone.Is/1 PROPERTIES SKIP_REGULAR_EXPRESSION "\\[  SKIPPED \\]")
set_tests_properties(script silent PROPERTIES SKIP_RETURN_CODE 77)
END_OF_FILE
cat >program_Alone.Is_1 <<'END_OF_FILE'
echo '[ RUN      ] Alone.Is/1
some.cpp:7: Skipped
no network

[  SKIPPED ] Alone.Is/1 (12 ms)
[  SKIPPED ] 1 test, listed below:
[  SKIPPED ] Alone.Is/1'
END_OF_FILE
cat >program <<'END_OF_FILE'
echo '[ RUN      ] One.Passes
[       OK ] One.Passes (0 ms)
[ RUN      ] One.SkipsItself
other.cpp:8: Skipped

a reason
of two lines
[  SKIPPED ] One.SkipsItself (0 ms)
[ RUN      ] Two.SaysNothing
other.cpp:9: Skipped

[  SKIPPED ] Two.SaysNothing (3 ms)
[  SKIPPED ] 2 tests, listed below:'
END_OF_FILE
printf '%s\n' "echo 'skipped: the first part'" "echo 'skipped, for a reason: the second'" 'exit 77' >script
echo 'exit 77' >silent
echo 'echo "nothing is skipped here"; exit 1' >failing
echo 'echo "was skipped: not at all"' >passing

cmake -B build >"$work/log" 2>&1 || fail "$(cat "$work/log")"
ctest --test-dir build -j 4 >"$work/log" 2>&1 && fail "the failing test passed"
awk -f "$source/script/skipped.awk" build/Testing/Temporary/LastTest.log "$work/log" | sort >"$work/skipped"
sort <<'END_OF_LIST' | diff - "$work/skipped" || fail "what was skipped"
program/Alone.Is/1: no network
program One.SkipsItself: a reason
program Two.SaysNothing: no reason given
script: the first part
script: for a reason: the second
silent: no reason given
END_OF_LIST
end "each skipped test has its name and reason"

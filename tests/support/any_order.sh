#!/bin/sh
# Runs the tests of a program in several orders, and each in a process of its own.
#
#   any_order.sh PROGRAM
set -eu

failed=0
run() { "$program" "$@" --gtest_brief=1 </dev/null || { failed=1 && echo "failed: $program $*"; }; }

program=$1
for seed in 1 2; do run --gtest_shuffle --gtest_random_seed=$seed; done
for test in $("$program" --gtest_list_tests | awk '/^[^ ]/ { suite = $1 } /^  / { print suite $1 }'); do
    run --gtest_filter="$test"
done
exit $failed

# The tests that a run of ctest skipped, a line for each: its name and the reason.
#
#   awk -f script/skipped.awk LASTTEST CTEST
#
#   LASTTEST   Testing/Temporary/LastTest.log of that run: what every test printed
#   CTEST      what ctest itself printed
#
# A program that is one test of ctest can skip some of its own, which ctest does not notice; and a script says
# in lines of its own which of its parts it left out.

function report(name, why) {
    print name ": " why
    told[test] = 1
}

FNR == NR && sub(/^[0-9]+\/[0-9]+ Testing: /, "") {
    test = $0
    awaited = 0
    next
}
# Google Test: a line that ends so, the reason, the name of the test.
FNR == NR && /: Skipped$/ {
    awaited = 1
    reason = "no reason given"
    next
}
FNR == NR && /^\[  SKIPPED \] .* \([0-9]+ ms\)$/ {
    report(index(test, $4) ? test : test " " $4, reason)
    awaited = 0
    next
}
FNR == NR && awaited && NF {
    reason = $0
    awaited = 0
}
FNR == NR && sub(/^skipped[:,] */, "") { report(test, $0) }

FNR != NR && /\*\*\*Skipped/ && match($0, /Test +#[0-9]+: /) {
    test = substr($0, RSTART + RLENGTH)
    sub(/ *\.*\*\*\*Skipped.*/, "", test)
    if (!(test in told)) report(test, "no reason given")
}

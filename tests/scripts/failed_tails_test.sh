#!/usr/bin/env bash
# nv_failed_test_tails (scripts/env.sh), which ends scripts/test's summary, read on
# logs written here in CTest's own formats: every test in the list of failures is
# named, with the last lines of its own output only (not a test whose name begins
# the same, not the lines CTest adds around it, not the tests that did not run), CR
# stripped, a parameterized test's whole name kept; only CTest's own list (the last)
# counts, and after five tests the rest are only counted; a run without failures adds
# nothing.
source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"
source "$root/scripts/env.sh"
fail_shows=(got "$work/got")

# One test's block in LastTest.log: NAME, then its output lines.
block() {
    local name=$1
    shift
    printf '%s\n' "----------------------------------------------------------" "3/9 Testing: $name" \
        "3/9 Test: $name" "Command: \"/bin/true\"" "Directory: /tmp" "\"$name\" start time: Nov 27 04:03 UTC" \
        "Output:" "----------------------------------------------------------"
    printf '%s\r\n' "$@"
    printf '%s\n' "<end of output>" "Test time =   1.00 sec" "----------------------------------------------------------" \
        "Test Failed." "\"$name\" end time: Nov 27 04:03 UTC"
}
{
    block bench.Smoke "smoke 1" "smoke 2" "smoke 3" "smoke 4" "error: convert20_bench.exe failed (exit 127)"
    block bench.SmokeToo "not this one"
    block Unit.Passes "nor this"
    block Unit.Times "started" "waiting"
    block 'P/Unit.Case/x  # GetParam() = L"a\b"' "with its parameter"
} >"$work/LastTest.log"
cat >"$work/ctest.out" <<'EOF'
99% tests passed, 2 tests failed out of 9

The following tests did not run:
	  5 - Unit.Skipped (Skipped)

The following tests FAILED:
	  3 - bench.Smoke (Failed)
	  8 - Unit.Times (Timeout)
	  9 - P/Unit.Case/x  # GetParam() = L"a\b" (Failed)
Errors while running CTest
EOF

nv_failed_test_tails "$work/ctest.out" "$work/LastTest.log" 3 >"$work/got"
cat >"$work/want" <<'EOF'
    how bench.Smoke ended (its last 3 lines):
        smoke 3
        smoke 4
        error: convert20_bench.exe failed (exit 127)
    how Unit.Times ended (its last 3 lines):
        started
        waiting
    how P/Unit.Case/x  # GetParam() = L"a\b" ended (its last 3 lines):
        with its parameter
EOF
cmp -s "$work/got" "$work/want" || fail "the failing tests' last lines"

# Only CTest's own list counts (the last one: a test may print such a list itself),
# and after five tests the rest are only counted.
{
    printf '%s\n' "a test's own output:" "The following tests FAILED:" "	  1 - Not.A.Failure (Failed)" ""
    printf '%s\n' "The following tests FAILED:"
    for n in 1 2 3 4 5 6 7; do printf '\t  %d - Unit.Times (Failed)\n' "$n"; done
    printf '%s\n' "Errors while running CTest"
} >"$work/ctest.out"
nv_failed_test_tails "$work/ctest.out" "$work/LastTest.log" 1 >"$work/got"
{
    for n in 1 2 3 4 5; do printf '%s\n' "    how Unit.Times ended (its last 1 lines):" "        waiting"; done
    printf '%s\n' "    and 2 more failing tests (CTest lists them above)"
} >"$work/want"
cmp -s "$work/got" "$work/want" || fail "CTest's own list, five tests at most"

printf '100%% tests passed, 0 tests failed out of 9\n' >"$work/ctest.out"
nv_failed_test_tails "$work/ctest.out" "$work/LastTest.log" 3 >"$work/got"
[ ! -s "$work/got" ] || fail "a run without failures adds nothing"

finish

#!/usr/bin/env bash
# The launch rule of scripts/wine-run, checked with a stand-in for wine64 that
# answers as a script tells it: a launch that never ran (a quick non-zero status, no
# output) is made again, up to three launches; a program that printed, or that ran
# for more than a second, keeps its result; a success is never repeated.
source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"

# The stand-in: each launch takes the next line of $work/plan ("silent RC", "print
# RC", "slow RC") and counts itself in $work/launches.
cat >"$work/wine" <<'STUB'
#!/usr/bin/env bash
n=$(($(cat "$STUB_DIR/launches" 2>/dev/null || echo 0) + 1))
echo "$n" >"$STUB_DIR/launches"
read -r how rc < <(sed -n "${n}p" "$STUB_DIR/plan")
# The program gets none of the script's own descriptors, and a file for its result
# named on drive Z:, which Wine maps to /.
if ls -l "/proc/$$/fd" | grep -q '/err\.[0-9]*$\|/done\.[0-9]*$'; then
    echo "the program holds the script's stderr file or FIFO" >&2
    exit 98
fi
[[ "$NV_TEST_EXIT_FILE" == Z:/* ]] || { echo "NV_TEST_EXIT_FILE is '$NV_TEST_EXIT_FILE'" >&2; exit 97; }
result_file=${NV_TEST_EXIT_FILE#Z:}
case "$how" in
    print) echo "ran $*" ;;
    printerr) echo "ran $*" >&2 ;;
    listing) printf 'Suite.\r\n  Test\r\n' ;;
    slow) sleep 1.2 ;;
    # stderr written by a process the program left behind, after it has gone
    lateerr) (sleep 0.3; echo "late words" >&2) >/dev/null & ;;
    # stderr held, never written, by a process left behind (as Wine's desktop may)
    holderr) sleep 8 >/dev/null & ;;
    # stderr held by a process left behind, after a success
    holdok) sleep 8 >/dev/null & echo "ran" ;;
    # the program returns RC (written as a Windows program writes it: CR LF), then
    # the host's loader fails as it ends; quiet: it fails before the result is written
    ldso | ldsoquiet)
        [ "$how" = ldso ] && printf '%s\r\n' "$rc" >"$result_file"
        echo "Inconsistency detected by ld.so: dl-fini.c: 87: _dl_fini: Assertion \`ns != LM_ID_BASE || i == nloaded' failed!" >&2
        exit 127
        ;;
    # a failure of status 127 with the program's result written, but no loader message
    gone127) echo 0 >"$result_file"; echo "ran" ; exit 127 ;;
    # a launch that never ran, yet left a result behind
    silentresult) echo 0 >"$result_file" ;;
esac
exit "$rc"
STUB
chmod +x "$work/wine"

# check NAME EXPECTED_RC EXPECTED_LAUNCHES PLAN...
check() {
    local name=$1 want_rc=$2 want_launches=$3
    shift 3
    printf '%s\n' "$@" >"$work/plan"
    rm -f "$work/launches"
    local start
    start=$(date +%s%N)
    STUB_DIR=$work NV_WINE=$work/wine WINEPREFIX=$work/prefix "$root/scripts/wine-run" prog.exe a b \
        >"$work/out" 2>"$work/err"
    local rc=$? launches
    last_ms=$((($(date +%s%N) - start) / 1000000))
    launches=$(cat "$work/launches")
    if [ "$rc" != "$want_rc" ] || [ "$launches" != "$want_launches" ]; then
        fail "$name: status $rc (expected $want_rc), launches $launches (expected $want_launches)" stderr "$work/err"
    else
        echo "ok   $name"
    fi
}

check "a success runs once" 0 1 "silent 0"
check "a launch that never ran is made again" 0 2 "silent 1" "print 0"
check "three launches at most" 1 3 "silent 1" "silent 1" "silent 1" "print 0"
check "a program that printed keeps its failure" 3 1 "print 3" "print 0"
check "a program that wrote to stderr keeps its failure" 3 1 "printerr 3" "print 0"
check "a program that ran a while keeps its failure" 5 1 "slow 5" "print 0"
check "stderr that comes after the status is waited for" 3 1 "lateerr 3" "print 0"
check "a loader that fails at the end leaves the program's success" 0 1 "ldso 0" "print 0"
check "a loader that fails at the end leaves the program's failure" 1 1 "ldso 1" "print 0"
check "a loader that fails before the program wrote its result stands" 127 1 "ldsoquiet 0" "print 0"
check "a status of 127 without the loader's message stands" 127 1 "gone127 0" "print 0"
check "a loader that fails at the end leaves any other result of the program" 3 1 "ldso 3" "print 0"
check "a result out of a status's range is not taken" 127 1 "ldso 256" "print 0"
check "a negative result is not taken" 127 1 "ldso -1" "print 0"
check "an earlier launch's result is not taken" 127 2 "silentresult 1" "ldsoquiet 0" "print 0"
check "a success is not held up by a process holding stderr" 0 1 "holdok 0"
if [ "$last_ms" -ge 2000 ]; then
    fail "a success whose stderr another process holds took $last_ms ms (the holder stays 8 s)"
fi

# A silent failure whose stderr another process holds is made again all the same,
# without waiting for that process to let go.
printf '%s\n' "holderr 1" "print 0" >"$work/plan"
rm -f "$work/launches"
start=$(date +%s%N)
STUB_DIR=$work NV_WINE=$work/wine WINEPREFIX=$work/prefix "$root/scripts/wine-run" prog.exe a b \
    >"$work/out" 2>"$work/err"
rc=$?
waited_ms=$((($(date +%s%N) - start) / 1000000))
if [ "$rc" != 0 ] || [ "$(cat "$work/launches")" != 2 ] || [ "$waited_ms" -ge 5000 ]; then
    fail "a held stderr: status $rc, launches $(cat "$work/launches"), $waited_ms ms (the holder stays 8 s)" "" "$work/err"
else
    echo "ok   a silent failure whose stderr is held is made again after at most two seconds"
fi

# The program's own stderr reaches the caller's.
printf '%s\n' "printerr 3" >"$work/plan"
rm -f "$work/launches"
STUB_DIR=$work NV_WINE=$work/wine WINEPREFIX=$work/prefix "$root/scripts/wine-run" prog.exe a b \
    >"$work/out" 2>"$work/err"
if ! grep -qx "ran prog.exe a b" "$work/err"; then
    fail "the program's stderr reaches the caller's"
else
    echo "ok   the program's stderr reaches the caller's"
fi

# What a repeated launch says, and that the arguments reach the program.
printf '%s\n' "silent 1" "print 0" >"$work/plan"
rm -f "$work/launches"
STUB_DIR=$work NV_WINE=$work/wine WINEPREFIX=$work/prefix "$root/scripts/wine-run" prog.exe a b \
    >"$work/out" 2>"$work/err"
if ! grep -qx "ran prog.exe a b" "$work/out" ||
    ! grep -q "^wine-run: prog.exe exited with status 1 after [0-9]* ms and printed nothing: it never ran; starting it again" "$work/err"; then
    fail "the repeated launch is said on stderr and the program gets its arguments" "" "$work/out" "$work/err"
else
    echo "ok   the repeated launch is said on stderr and the program gets its arguments"
fi

# What the loader's failure at the end leaves is said on stderr.
printf '%s\n' "ldso 0" >"$work/plan"
rm -f "$work/launches"
STUB_DIR=$work NV_WINE=$work/wine WINEPREFIX=$work/prefix "$root/scripts/wine-run" prog.exe \
    >"$work/out" 2>"$work/err"
if ! grep -q "^wine-run: the host's loader failed as prog.exe ended (status 127), after the program had returned 0: its result is 0$" "$work/err"; then
    fail "the loader's failure at the end is said on stderr" "" "$work/err"
else
    echo "ok   the loader's failure at the end is said on stderr"
fi

# A test listing (CTest's discovery) follows the same rule, its CRs folded.
printf '%s\n' "silent 1" "listing 0" >"$work/plan"
rm -f "$work/launches"
STUB_DIR=$work NV_WINE=$work/wine WINEPREFIX=$work/prefix "$root/scripts/wine-run" prog.exe --gtest_list_tests \
    >"$work/out" 2>"$work/err"
rc=$?
if [ "$rc" != 0 ] || [ "$(cat "$work/launches")" != 2 ] || [ "$(cat "$work/out")" != "$(printf 'Suite.\n  Test')" ]; then
    fail "a listing that never ran: status $rc, launches $(cat "$work/launches")" "" "$work/out" "$work/err"
else
    echo "ok   a listing that never ran is made again, its CRs folded"
fi

# Without a program it says how to use it.
"$root/scripts/wine-run" >/dev/null 2>"$work/err"
rc=$?
if [ "$rc" != 2 ] || ! grep -q "^usage: wine-run PROGRAM" "$work/err"; then
    fail "no program: status $rc"
else
    echo "ok   no program is a usage error"
fi

finish

#!/usr/bin/env bash
# nv_allowed_cpus (scripts/env.sh), by which scripts/bench and its smoke check choose
# CPUs: a list in the kernel's form is read whole (ranges, single CPUs, in order);
# the shell's affinity counts, not the machine's CPUs: under taskset to one CPU that
# CPU alone is given, whichever it is; scripts/bench refuses a CPU outside them.
source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"
source "$root/scripts/env.sh"

# CPUs the machine does not have read as online (there is no file that says not).
got=$(nv_allowed_cpus "0-2,5,7-8" | tr '\n' ' ')
[ "$got" = "0 1 2 5 7 8 " ] || fail "the list 0-2,5,7-8: got [$got]"
got=$(nv_allowed_cpus "3" | tr '\n' ' ')
[ "$got" = "3 " ] || fail "the list 3: got [$got]"

mapfile -t mine < <(nv_allowed_cpus)
[ "${#mine[@]}" -ge 1 ] || fail "this shell's CPUs: none"
last=${mine[-1]}
got=$(taskset -c "$last" bash -c 'source "$1" && nv_allowed_cpus' bash "$root/scripts/env.sh" | tr '\n' ' ')
[ "$got" = "$last " ] || fail "under taskset -c $last: got [$got]"

# scripts/bench refuses a CPU it may not use, or the same CPU twice, before it starts
# anything (no build, no prefix: it stops before either).
for given in "NV_BENCH_CPU=99999" "NV_BENCH_CPU2=99999" "NV_BENCH_CPU2=x" "NV_BENCH_CPU=$last NV_BENCH_CPU2=$last"; do
    env $given NV_BENCH_SKIP_BUILD=1 NV_BUILD_DIR="$work/build" bash "$root/scripts/bench" --smoke --out "$work/bench" \
        >"$work/out" 2>"$work/err"
    rc=$?
    if [ "$rc" != 2 ] || ! grep -q "^error: .*NV_BENCH_CPU" "$work/err" || [ -e "$work/bench/wineprefix" ]; then
        fail "scripts/bench with $given: status $rc" "" "$work/out" "$work/err"
    fi
done

finish

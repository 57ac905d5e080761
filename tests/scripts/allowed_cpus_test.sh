#!/usr/bin/env bash
# nv_allowed_cpus (scripts/env.sh), by which scripts/bench and its smoke check choose
# CPUs: a list in the kernel's form is read whole (ranges, single CPUs, in order);
# the shell's affinity counts, not the machine's CPUs: under taskset to one CPU that
# CPU alone is given, whichever it is.
set -u
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
source "$root/scripts/env.sh"
failures=0
fail() {
    echo "FAIL $1: got [$2]"
    failures=$((failures + 1))
}

# CPUs the machine does not have read as online (there is no file that says not).
got=$(nv_allowed_cpus "0-2,5,7-8" | tr '\n' ' ')
[ "$got" = "0 1 2 5 7 8 " ] || fail "the list 0-2,5,7-8" "$got"
got=$(nv_allowed_cpus "3" | tr '\n' ' ')
[ "$got" = "3 " ] || fail "the list 3" "$got"

mapfile -t mine < <(nv_allowed_cpus)
[ "${#mine[@]}" -ge 1 ] || fail "this shell's CPUs" ""
last=${mine[-1]}
got=$(taskset -c "$last" bash -c 'source "$1" && nv_allowed_cpus' bash "$root/scripts/env.sh" | tr '\n' ' ')
[ "$got" = "$last " ] || fail "under taskset -c $last" "$got"

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed"
    exit 1
fi
echo "all checks passed"

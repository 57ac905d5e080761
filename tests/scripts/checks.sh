# The frame of the script tests. Source it first:
#   source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"
# It sets $root (the project) and $work (a scratch folder, removed at exit after the
# test's own test_cleanup, if it defines one), and gives:
#   fail MESSAGE [LABEL FILE...]  says "FAIL MESSAGE", then each FILE that exists,
#                                 every line led by "    LABEL: " ("    " without a
#                                 label), and counts the failure; without LABEL and
#                                 FILEs, those the test put in fail_shows (LABEL
#                                 FILE...) once for all its checks;
#   finish                        says how many checks failed, or that all passed,
#                                 and exits 1 or 0.
set -u
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=$(mktemp -d)
checks_cleanup() {
    if declare -F test_cleanup >/dev/null; then
        test_cleanup
    fi
    rm -rf "$work"
}
trap checks_cleanup EXIT
failures=0
fail_shows=()

fail() {
    local message=$1 shows=("${@:2}") lead="    " file
    [ $# -gt 1 ] || shows=("${fail_shows[@]}")
    echo "FAIL $message"
    [ "${#shows[@]}" -eq 0 ] || [ -z "${shows[0]}" ] || lead="    ${shows[0]}: "
    for file in "${shows[@]:1}"; do
        [ -f "$file" ] && sed "s/^/$lead/" "$file"
    done
    failures=$((failures + 1))
    return 0
}

finish() {
    if [ "$failures" -ne 0 ]; then
        echo "$failures check(s) failed"
        exit 1
    fi
    echo "all checks passed"
    exit 0
}

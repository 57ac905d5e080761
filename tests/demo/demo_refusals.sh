#!/usr/bin/env bash
# scripts/demo refuses what it cannot use before it builds or writes anything: an
# argument (it takes none but --help) and a setting that is no whole number.
set -u
demo="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)/scripts/demo"
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# expect NAME RC STDERR_TEXT COMMAND...
expect() {
    local name=$1 want_rc=$2 want_text=$3
    shift 3
    local err rc
    err=$("$@" 2>&1 >/dev/null)
    rc=$?
    if [ "$rc" != "$want_rc" ]; then
        fail "$name: exit $rc, expected $want_rc ($err)"
    elif [ "$err" != "$want_text" ]; then
        fail "$name: said '$err', expected '$want_text'"
    else
        echo "ok: $name"
    fi
}

expect "an argument" 2 \
    "demo: it takes no arguments (settings are environment variables; --help lists them), not: --users 5" \
    bash "$demo" --users 5
expect "a user count that is no number" 1 \
    "$(printf '\ndemo: NV_DEMO_USERS must be a whole number, not '"'"'25x'"'"'')" \
    env NV_DEMO_USERS=25x bash "$demo"
expect "a negative seed" 1 \
    "$(printf '\ndemo: NV_DEMO_SEED must be a whole number, not '"'"'-1'"'"'')" \
    env NV_DEMO_SEED=-1 bash "$demo"

help=$(bash "$demo" --help)
rc=$?
if [ "$rc" != 0 ] || ! grep -q '^  NV_DEMO_USERS      users to write (default 25)$' <<<"$help"; then
    fail "--help: exit $rc, without the NV_DEMO_USERS line: $help"
else
    echo "ok: --help lists the settings"
fi

[ "$failures" = 0 ] || { echo "$failures check(s) failed"; exit 1; }
echo "all checks passed"

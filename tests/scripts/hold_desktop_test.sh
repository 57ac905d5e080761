#!/usr/bin/env bash
# nv_hold_desktop (scripts/env.sh), checked with a stand-in for wine64: it returns
# once the holder says "ready" and leaves it running (nv_desktop_holder_pid finds it);
# a holder that fails is reported at once, with what it printed; before the first
# build, when there is no holder, it starts nothing. No Windows code runs.
set -u
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=$(mktemp -d)
holders=()
cleanup() {
    local p
    for p in "${holders[@]}"; do kill "$p" 2>/dev/null; done
    rm -rf "$work"
}
trap cleanup EXIT
failures=0
fail() {
    echo "FAIL $1"
    [ -f "$work/err" ] && sed 's/^/    stderr: /' "$work/err"
    failures=$((failures + 1))
}

# The stand-in: does what $work/plan says, and counts its launches. "hold" prints
# "ready" as the holder does (CR LF) and then runs under the holder's name, as the
# real one runs until its server stops; "broken" fails as a holder without a desktop.
cat >"$work/wine" <<'STUB'
#!/usr/bin/env bash
echo started >>"$STUB_DIR/launches"
case "$(cat "$STUB_DIR/plan")" in
    hold)
        printf 'ready\r\n'
        exec -a "$1" sleep 30 ;;
    broken)
        echo "desktop holder: CreateWindowEx failed: 1400" >&2
        exit 1 ;;
esac
STUB
chmod +x "$work/wine"

# hold PLAN: runs nv_hold_desktop with the stand-in; sets rc, took (ms) and launches.
hold() {
    echo "$1" >"$work/plan"
    rm -f "$work/launches" "$work/err"
    local started
    started=$(date +%s%N)
    (
        NV_BUILD_DIR=$work/build NV_WINEPREFIX=$work/prefix source "$root/scripts/env.sh"
        export NV_WINE=$work/wine STUB_DIR=$work
        nv_hold_desktop
    ) 2>"$work/err"
    rc=$?
    took=$((($(date +%s%N) - started) / 1000000))
    launches=0
    [ -f "$work/launches" ] && launches=$(wc -l <"$work/launches")
}

holder_pid() {
    (
        NV_BUILD_DIR=$work/build NV_WINEPREFIX=$work/prefix source "$root/scripts/env.sh"
        nv_desktop_holder_pid
    )
}

mkdir -p "$work/prefix"

# Not built yet: nothing starts, and that is no error.
hold hold
if [ "$rc" != 0 ] || [ "$launches" != 0 ]; then
    fail "without a holder nothing starts: status $rc, launches $launches"
else
    echo "ok   without a holder nothing starts"
fi

mkdir -p "$work/build/win/bin"
: >"$work/build/win/bin/nv_desktop_holder.exe"

hold hold
pid=$(holder_pid) && holders+=("$pid")
if [ "$rc" != 0 ] || [ "$launches" != 1 ] || [ -z "$pid" ] || ! kill -0 "$pid" 2>/dev/null; then
    fail "a holder that is ready is left running: status $rc, launches $launches, pid '${pid:-}'"
else
    echo "ok   a holder that is ready is left running and found by its prefix (${took} ms)"
fi
# Another prefix's holder is not this one's.
if NV_BUILD_DIR=$work/build NV_WINEPREFIX=$work/other bash -c \
    'source "$0/scripts/env.sh"; nv_desktop_holder_pid' "$root" >/dev/null; then
    fail "another prefix's holder was taken for this one's"
else
    echo "ok   another prefix does not see this holder"
fi
[ -n "${pid:-}" ] && kill "$pid" 2>/dev/null

hold broken
if [ "$rc" != 1 ] || ! grep -q "the desktop holder of $work/prefix did not start: desktop holder: CreateWindowEx failed: 1400" "$work/err"; then
    fail "a holder that fails is an error with its message: status $rc"
elif [ "$took" -ge 5000 ]; then
    fail "a holder that fails is reported when it ends, not after the wait: ${took} ms"
else
    echo "ok   a holder that fails is an error with its message, at once (${took} ms)"
fi

[ "$failures" = 0 ] || exit 1

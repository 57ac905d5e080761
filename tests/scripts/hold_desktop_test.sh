#!/usr/bin/env bash
# nv_hold_desktop (scripts/env.sh), checked with a stand-in for wine64: it returns
# once the holder says "ready", not before, and leaves it running, found by its prefix
# (nv_desktop_holder_pid), with none of the caller's pipes; the same where the shell
# has job control; a holder that fails is reported at once, with what it printed;
# before the first build, when there is no holder, it starts nothing. No Windows code
# runs.
source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"
test_cleanup() {
    # The stand-ins this test started, by the name they run under (below).
    pkill -f "^$work/" 2>/dev/null
}
fail_shows=(stderr "$work/err")

# The stand-in: does what $work/plan says, and counts its launches. "hold" takes a
# moment to start, prints "ready" as the holder does (CR LF) and then runs under the
# holder's name, as the real one runs until its server stops; "broken" fails as a
# holder without a desktop.
cat >"$work/wine" <<'STUB'
#!/usr/bin/env bash
echo started >>"$STUB_DIR/launches"
case "$(cat "$STUB_DIR/plan")" in
    hold)
        sleep 0.3
        printf 'ready\r\n'
        exec -a "$1" sleep 30 ;;
    broken)
        echo "desktop holder: CreateWindowEx failed: 1400" >&2
        exit 1 ;;
esac
STUB
chmod +x "$work/wine"

# hold PLAN [SHELL_OPTION]: runs nv_hold_desktop with the stand-in, its output piped
# as CTest's is (the pipe closes only when nothing holds it any more); sets rc, took
# (ms, until the pipe closed) and launches.
hold() {
    echo "$1" >"$work/plan"
    rm -f "$work/launches" "$work/err"
    local started
    started=$(date +%s%N)
    (
        set ${2:-+m}
        NV_BUILD_DIR=$work/build NV_WINEPREFIX=$work/prefix source "$root/scripts/env.sh"
        export NV_WINE=$work/wine STUB_DIR=$work
        nv_hold_desktop
    ) 2>&1 | cat >"$work/err"
    rc=${PIPESTATUS[0]}
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

# ready_holder NAME [SHELL_OPTION]
ready_holder() {
    hold hold "${2:-}"
    pid=$(holder_pid)
    if [ "$rc" != 0 ] || [ "$launches" != 1 ] || [ -z "$pid" ] || ! kill -0 "$pid" 2>/dev/null; then
        fail "$1: status $rc, launches $launches, pid '${pid:-}'"
    elif [ "$took" -lt 300 ]; then
        fail "$1: returned after ${took} ms, before the holder said it was ready"
    elif [ "$took" -ge 5000 ]; then
        fail "$1: the caller's pipe stayed open ${took} ms: the holder has it"
    else
        echo "ok   $1 (${took} ms)"
    fi
}

ready_holder "a holder is waited for, left running without the caller's pipes and found by its prefix"
# Another prefix's holder is not this one's, even with its pid file.
mkdir -p "$work/other"
cp "$work/prefix/desktop-holder.pid" "$work/other/" 2>/dev/null
if NV_BUILD_DIR=$work/build NV_WINEPREFIX=$work/other bash -c \
    'source "$0/scripts/env.sh"; nv_desktop_holder_pid' "$root" >/dev/null; then
    fail "another prefix's holder was taken for this one's"
else
    echo "ok   another prefix does not see this holder"
fi
# The pid kept is the holder's own process, so a holder that ends is seen to be gone.
if [ -n "${pid:-}" ]; then
    kill "$pid" 2>/dev/null
    sleep 0.2
    if holder_pid >/dev/null; then
        fail "a holder that ended is still found"
    else
        echo "ok   a holder that ended is no longer found"
    fi
fi

# Where the shell has job control, a background job has a process group of its own.
ready_holder "the same where the shell has job control" -m
[ -n "${pid:-}" ] && kill "$pid" 2>/dev/null

hold broken
if [ "$rc" != 1 ] || ! grep -q "the desktop holder of $work/prefix did not start: desktop holder: CreateWindowEx failed: 1400" "$work/err"; then
    fail "a holder that fails is an error with its message: status $rc"
elif [ "$took" -ge 5000 ]; then
    fail "a holder that fails is reported when it ends, not after the wait: ${took} ms"
else
    echo "ok   a holder that fails is an error with its message, at once (${took} ms)"
fi

finish

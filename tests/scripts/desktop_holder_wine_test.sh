#!/usr/bin/env bash
# The desktop holder under Wine, in a prefix of this test's own (WIN_BUILD: the
# Windows build tree, whose bin/ holds nv_desktop_holder.exe):
# - nv_start_wineserver starts the holder, which holds the prefix's desktop;
# - when the desktop process ends, the holder ends too and says so;
# - a holder that ends without saying "ready" makes nv_start_wineserver fail and stop
#   the server it started.
source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"
win_build=${1:?usage: desktop_holder_wine_test.sh WIN_BUILD}
source "$root/scripts/env.sh"
NV_WIN_BUILD=$win_build
export WINEPREFIX=$work/prefix
test_cleanup() { "$NV_WINESERVER" -k </dev/null >/dev/null 2>&1; }
fail_shows=(holder "$WINEPREFIX/desktop-holder.out")

# The Unix pid of this prefix's desktop process.
desktop_pid() {
    local p
    for p in $(pgrep -u "$(id -u)" -f 'explorer\.exe /desktop'); do
        grep -qzxF "WINEPREFIX=$WINEPREFIX" "/proc/$p/environ" 2>/dev/null && echo "$p" && return 0
    done
    return 1
}

nv_fresh_prefix
if ! nv_start_wineserver; then
    fail "the server and its holder start"
    exit 1
fi
holder=$(nv_desktop_holder_pid)
desktop=$(desktop_pid)
if [ -z "$holder" ] || [ -z "$desktop" ]; then
    fail "the holder runs and the desktop with it: holder '${holder:-}', desktop '${desktop:-}'"
else
    echo "ok   the holder runs and the prefix's desktop with it"
fi

# The desktop ends: the holder follows, saying so, and holds no desktop started later.
if [ -n "${desktop:-}" ]; then
    kill "$desktop"
    for _ in $(seq 50); do
        nv_desktop_holder_pid >/dev/null || break
        sleep 0.1
    done
    if nv_desktop_holder_pid >/dev/null; then
        fail "the holder ends when the desktop does"
    elif ! grep -q "^desktop holder: the desktop process [0-9]* ended; nothing is held now" "$WINEPREFIX/desktop-holder.out"; then
        fail "the holder says why it ended"
    else
        echo "ok   the holder ends when the desktop does, and says so"
    fi
fi

# A holder that ends without saying "ready" fails the start, and the server goes
# with it. In the holder's place: nvdbconv, which without a command prints its usage
# and ends at once.
mkdir -p "$work/fake/bin"
cp "$win_build/bin/nvdbconv.exe" "$work/fake/bin/nv_desktop_holder.exe"
NV_WIN_BUILD=$work/fake
started=$(date +%s)
nv_start_wineserver 2>"$work/err"
rc=$?
took=$(($(date +%s) - started))
if [ "$rc" = 0 ]; then
    fail "a holder that never says ready fails the start"
elif nv_wineserver_pid >/dev/null; then
    fail "a failed start leaves no server running"
elif ! grep -q "^error: the desktop holder of $WINEPREFIX did not start: " "$work/err"; then
    fail "a failed start says so: $(cat "$work/err")"
elif [ "$took" -ge 25 ]; then
    fail "a holder that ended is reported when it ends, not after the wait: $took s"
else
    echo "ok   a holder that never says ready fails the start, says so and stops the server ($took s)"
fi

finish

# Shared settings of the project scripts. Source it; it changes nothing on disk.
NV_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
NV_BUILD_DIR=${NV_BUILD_DIR:-$NV_ROOT/build}
NV_WIN_BUILD=$NV_BUILD_DIR/win
NV_NATIVE_BUILD=$NV_BUILD_DIR/native
NV_BIN=$NV_WIN_BUILD/bin
NV_WINE=/usr/lib/wine/wine64
NV_WINESERVER=/usr/lib/wine/wineserver
# The one way to start a Windows program under Wine (its rule is in the file).
NV_WINE_RUN=$NV_ROOT/scripts/wine-run
export WINEPREFIX=${NV_WINEPREFIX:-$NV_BUILD_DIR/wineprefix}
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}

nv_log() { printf '==> %s\n' "$*"; }

# Configures and builds the cross build and the native build of the portable tools.
nv_build() {
    local jobs launcher=()
    jobs=$(nproc 2>/dev/null || echo 2)
    # A compiler cache, when the machine has one, makes rebuilds of other checkouts cheap.
    if command -v ccache >/dev/null 2>&1; then
        launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
        export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$NV_ROOT}
    fi
    if [ ! -f "$NV_NATIVE_BUILD/build.ninja" ]; then
        cmake -S "$NV_ROOT" -B "$NV_NATIVE_BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release "${launcher[@]}" >/dev/null
    fi
    cmake --build "$NV_NATIVE_BUILD" -j "$jobs" || return 1
    if [ ! -f "$NV_WIN_BUILD/build.ninja" ]; then
        cmake -S "$NV_ROOT" -B "$NV_WIN_BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release "${launcher[@]}" \
            -DCMAKE_TOOLCHAIN_FILE="$NV_ROOT/cmake/mingw-w64-x86_64.cmake" \
            -DNV_NATIVE_BUILD_DIR="$NV_NATIVE_BUILD" -DNV_WINEPREFIX="$WINEPREFIX" >/dev/null
    fi
    cmake --build "$NV_WIN_BUILD" -j "$jobs"
}

# A fresh prefix inside the build tree.
nv_fresh_prefix() {
    nv_stop_wineserver
    nv_release_prefix_folder
    rm -rf "$WINEPREFIX"
    "$NV_WINE_RUN" wineboot --init </dev/null >/dev/null 2>&1
}

# scripts/bench makes the prefix's folder immutable while it measures (it holds off
# Wine's periodic registry saves); a run that was killed may have left it so.
nv_release_prefix_folder() {
    if [ -d "$WINEPREFIX" ] && command -v chattr >/dev/null 2>&1; then
        chattr -i "$WINEPREFIX" 2>/dev/null || true
    fi
}

# A persistent server with its stdio detached: otherwise Wine's service processes
# inherit CTest's pipes and CTest never sees EOF.
#
# `wineserver -p` exits at once, doing nothing, while another server runs for the
# prefix, and `wineboot --init` leaves its own short-lived server behind. So the old
# server is stopped and waited for first, and the new one is checked afterwards:
# without it every Wine process pays the whole start-up again (seconds, not ms).
nv_start_wineserver() {
    "$NV_WINESERVER" -k </dev/null >/dev/null 2>&1
    "$NV_WINESERVER" -w </dev/null >/dev/null 2>&1
    "$NV_WINESERVER" -p </dev/null >/dev/null 2>&1
    local pid="" tries
    for tries in $(seq 50); do
        pid=$(nv_wineserver_pid) && break
        sleep 0.1
    done
    if [ -z "$pid" ]; then
        printf 'error: no persistent wineserver runs for %s after `wineserver -p`;\n' "$WINEPREFIX" >&2
        printf '       every Wine process would start its own server and the run would crawl.\n' >&2
        return 1
    fi
    # The holder first: the first process that opens a window starts the desktop, and
    # cmd does.
    if ! nv_hold_desktop; then
        "$NV_WINESERVER" -k </dev/null >/dev/null 2>&1
        return 1
    fi
    "$NV_WINE_RUN" cmd /c exit </dev/null >/dev/null 2>&1
    NV_WINESERVER_PID=$pid
    NV_WINESERVER_STARTED=$(ps -o lstart= -p "$pid" 2>/dev/null)
}

# Wine starts a prefix's desktop (explorer.exe /desktop) from the first process that
# opens a window (a COM apartment does), with that process's standard error, and keeps
# it about a second after the last such process ends: CTest, reading a test's output,
# waited that second for every test that used COM. So the desktop is started here, by
# a holder with its output in a file, and lives as long as the server. A test must not
# be the one to start it, so this waits until the holder says it is ready; and the
# holder ends if the desktop does, so that a desktop a test starts again is not held.
# Before the first build there is no holder, and nothing is started.
nv_hold_desktop() {
    local holder=$NV_WIN_BUILD/bin/nv_desktop_holder.exe out=$WINEPREFIX/desktop-holder.out
    local pidfile=$WINEPREFIX/desktop-holder.pid tries pid held
    [ -f "$holder" ] || return 0
    rm -f "$out" "$pidfile"
    # -w: where the shell has job control (an interactive one), setsid forks, and $!
    # must stay the holder's launcher for as long as that runs.
    setsid -w "$NV_WINE_RUN" "$holder" </dev/null >"$out" 2>&1 &
    pid=$!
    # The prefix's first process starts Wine's services: seconds on a fresh prefix.
    for tries in $(seq 300); do
        if grep -q '^ready' "$out" 2>/dev/null; then
            # The holder's own process, not its launcher's, is the one to watch.
            held=$(nv_find_desktop_holder) || break
            echo "$held" >"$pidfile"
            return 0
        fi
        kill -0 "$pid" 2>/dev/null || break # it ended without holding anything
        sleep 0.1
    done
    printf 'error: the desktop holder of %s did not start: %s\n' "$WINEPREFIX" \
        "$(tr -d '\r' 2>/dev/null <"$out" | grep . || echo 'it printed nothing')" >&2
    return 1
}

# True when process $1 is a desktop holder of $WINEPREFIX: Wine names a Windows
# process after its program, so its first argument is the holder's path.
nv_is_desktop_holder() {
    local first=""
    IFS= read -r -d '' first 2>/dev/null <"/proc/$1/cmdline"
    [[ "$first" == */nv_desktop_holder.exe ]] &&
        grep -qzxF "WINEPREFIX=$WINEPREFIX" "/proc/$1/environ" 2>/dev/null
}

# The pid of the process that runs $WINEPREFIX's desktop holder.
nv_find_desktop_holder() {
    local p
    for p in $(pgrep -u "$(id -u)" -f 'nv_desktop_holder\.exe'); do
        nv_is_desktop_holder "$p" && echo "$p" && return 0
    done
    return 1
}

# The pid of $WINEPREFIX's desktop holder, if it runs.
nv_desktop_holder_pid() {
    local pid
    pid=$(cat "$WINEPREFIX/desktop-holder.pid" 2>/dev/null) && [ -n "$pid" ] || return 1
    nv_is_desktop_holder "$pid" || return 1 # gone, or a reused pid
    echo "$pid"
}

# The pid of the persistent (`-p` without a timeout) server of $WINEPREFIX, if one
# runs. A server works in a directory named after the prefix's device and inode.
nv_wineserver_pid() {
    local dir p
    [ -d "$WINEPREFIX" ] || return 1
    dir=$(printf 'server-%x-%x' $(stat -L -c '%d %i' "$WINEPREFIX")) || return 1
    for p in $(pgrep -u "$(id -u)" wineserver); do
        [ "$(basename "$(readlink "/proc/$p/cwd" 2>/dev/null)")" = "$dir" ] || continue
        tr '\0' '\n' <"/proc/$p/cmdline" 2>/dev/null | grep -qx -- '-p' || continue
        echo "$p"
        return 0
    done
    return 1
}

# The prefixes of a test run with N slots: $WINEPREFIX, then $WINEPREFIX-p1 ...
# (cmake/wine-run.in maps CTest's slot pN to the same names).
nv_test_prefixes() {
    local i
    echo "$WINEPREFIX"
    for ((i = 1; i < $1; i++)); do echo "$WINEPREFIX-p$i"; done
}

# Runs a function once for every prefix of the test run (in parallel: wineboot
# mostly waits), each with WINEPREFIX set to that prefix.
nv_each_prefix() {
    local p rc=0 pids=()
    for p in "${prefixes[@]}"; do
        ( export WINEPREFIX=$p; "$@" ) &
        pids+=($!)
    done
    for p in "${pids[@]}"; do wait "$p" || rc=1; done
    return $rc
}

# CTest's resource file: one "wineprefix" slot per prefix.
nv_resource_spec() {
    local i sep=""
    printf '{"version": {"major": 1, "minor": 0}, "local": [{"wineprefix": ['
    for ((i = 0; i < $1; i++)); do printf '%s{"id": "p%d", "slots": 1}' "$sep" "$i"; sep=", "; done
    printf ']}]}\n'
}

# The CPUs this shell may run on, one a line, in order: those of its affinity that
# are online. In a container or under taskset they can be fewer than the machine's
# CPUs (nproc --all), and need not begin at 0. A list in the kernel's form
# ("0-3,6") can be given in place of the affinity.
nv_allowed_cpus() {
    local list=${1:-} part parts c
    [ -n "$list" ] || list=$(sed -n 's/^Cpus_allowed_list:[[:space:]]*//p' /proc/self/status)
    [ -n "$list" ] || list="0-$(($(nproc --all) - 1))"
    IFS=, read -r -a parts <<<"$list"
    for part in "${parts[@]}"; do
        if [[ "$part" == *-* ]]; then
            seq "${part%-*}" "${part#*-}"
        else
            echo "$part"
        fi
    done | while read -r c; do
        [ "$(cat "/sys/devices/system/cpu/cpu$c/online" 2>/dev/null || echo 1)" = 1 ] && echo "$c"
    done
    return 0
}

# How each test that failed ended: its name, then the last N lines of its output;
# at most 5 tests, then how many more failed.
#   nv_failed_test_tails CTEST_OUTPUT LAST_TEST_LOG N
# CTEST_OUTPUT is what CTest printed (its list under "The following tests FAILED:"
# names them; the last such list is CTest's own, whatever a test printed before it);
# LAST_TEST_LOG is CTest's Testing/Temporary/LastTest.log, which holds every test's
# output whole.
nv_failed_test_tails() {
    local name names shown=0 most=5
    mapfile -t names < <(awk '
        /^The following tests FAILED:$/ { n = 0; listed = 1; next }
        listed && /^[[:space:]]+[0-9]+ - / {
            name = $0
            sub(/^[[:space:]]+[0-9]+ - /, "", name)
            sub(/ \([^()]*\)$/, "", name)
            names[++n] = name
            next
        }
        { listed = 0 }
        END { for (i = 1; i <= n; i++) print names[i] }' "$1")
    for name in "${names[@]}"; do
        if [ "$shown" -eq "$most" ]; then
            printf '    and %d more failing tests (CTest lists them above)\n' "$((${#names[@]} - most))"
            break
        fi
        shown=$((shown + 1))
        printf '    how %s ended (its last %d lines):\n' "$name" "$3"
        NV_FAILED_NAME=$name awk '
            /^[0-9]+\/[0-9]+ Testing: / { sub(/^[0-9]+\/[0-9]+ Testing: /, ""); mine = ($0 == ENVIRON["NV_FAILED_NAME"]); next }
            mine && /^<end of output>$/ { mine = 0 }
            mine { print }' "$2" |
            sed -n '/^Output:$/,$p' | sed '1,2d' | tr -d '\r' | tail -n "$3" | sed 's/^/        /'
    done
}

nv_stop_wineserver() {
    if [ -d "$WINEPREFIX" ]; then
        "$NV_WINESERVER" -k </dev/null >/dev/null 2>&1 || true
    fi
}

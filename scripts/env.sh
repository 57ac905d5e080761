# Shared settings of the project scripts. Source it; it changes nothing on disk.
NV_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
NV_BUILD_DIR=${NV_BUILD_DIR:-$NV_ROOT/build}
NV_WIN_BUILD=$NV_BUILD_DIR/win
NV_NATIVE_BUILD=$NV_BUILD_DIR/native
NV_BIN=$NV_WIN_BUILD/bin
NV_WINE=/usr/lib/wine/wine64
NV_WINESERVER=/usr/lib/wine/wineserver
export WINEPREFIX=${NV_WINEPREFIX:-$NV_BUILD_DIR/wineprefix}
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}

nv_log() { printf '==> %s\n' "$*"; }

# Configures and builds the cross build and the native build of the portable tools.
nv_build() {
    local jobs
    jobs=$(nproc 2>/dev/null || echo 2)
    if [ ! -f "$NV_NATIVE_BUILD/build.ninja" ]; then
        cmake -S "$NV_ROOT" -B "$NV_NATIVE_BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
    fi
    cmake --build "$NV_NATIVE_BUILD" -j "$jobs"
    if [ ! -f "$NV_WIN_BUILD/build.ninja" ]; then
        cmake -S "$NV_ROOT" -B "$NV_WIN_BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release \
            -DCMAKE_TOOLCHAIN_FILE="$NV_ROOT/cmake/mingw-w64-x86_64.cmake" \
            -DNV_NATIVE_BUILD_DIR="$NV_NATIVE_BUILD" -DNV_WINEPREFIX="$WINEPREFIX" >/dev/null
    fi
    cmake --build "$NV_WIN_BUILD" -j "$jobs"
}

# A fresh prefix inside the build tree.
nv_fresh_prefix() {
    nv_stop_wineserver
    rm -rf "$WINEPREFIX"
    "$NV_WINE" wineboot --init </dev/null >/dev/null 2>&1
}

# A persistent server with its stdio detached: otherwise Wine's service processes
# inherit CTest's pipes and CTest never sees EOF.
nv_start_wineserver() {
    "$NV_WINESERVER" -p </dev/null >/dev/null 2>&1
    "$NV_WINE" cmd /c exit </dev/null >/dev/null 2>&1
}

nv_stop_wineserver() {
    if [ -d "$WINEPREFIX" ]; then
        "$NV_WINESERVER" -k </dev/null >/dev/null 2>&1 || true
    fi
}

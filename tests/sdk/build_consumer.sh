#!/usr/bin/env bash
# build_consumer.sh WIN_BUILD SOURCE_ROOT WORK OBJDUMP: installs the SDK from the
# cross build into WORK/sdk and builds examples/sdk-consumer against it, as a
# project outside the tree: its own CMake run with the MinGW-w64 toolchain and
# find_package(NVDBConv CONFIG) over CMAKE_PREFIX_PATH, into WORK/build. Then
# checks that convert_step.exe imports Convert and GetDBVersion from NVDBConv.dll
# (linked through the import library) and that upgrade_all.exe imports nothing of
# it (it loads the library at run time). convert_step_msvclib.exe is the same
# program linked by GNU ld through the MSVC-format lib/NVDBConv.lib instead.
set -uo pipefail
build=$1 root=$2 work=$3 objdump=$4
rm -rf "$work"
mkdir -p "$work"
work=$(cd "$work" && pwd) build=$(cd "$build" && pwd)
step() { # step NAME COMMAND...: runs it, its output in WORK/NAME.log, shown on failure
    local name=$1; shift
    if ! "$@" >"$work/$name.log" 2>&1; then
        echo "$name failed: $*"; cat "$work/$name.log"; exit 1
    fi
}
step install cmake --install "$build" --prefix "$work/sdk"
step configure cmake -S "$root/examples/sdk-consumer" -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" -DCMAKE_PREFIX_PATH="$work/sdk"
step build cmake --build "$work/build"
grep -q "NVDBConv_DIR:PATH=$work/sdk/lib/cmake/NVDBConv" "$work/build/CMakeCache.txt" ||
    { echo "find_package did not take the installed package:"; grep NVDBConv_DIR "$work/build/CMakeCache.txt"; exit 1; }

# CMake's compiler, flags of its own: the other import library.
cxx=$(sed -n 's/^set(CMAKE_CXX_COMPILER "\(.*\)")$/\1/p' "$work"/build/CMakeFiles/*/CMakeCXXCompiler.cmake)
step msvclib "$cxx" -static -Wall -Wextra -Werror -I"$work/sdk/include" "$root/examples/sdk-consumer/convert_step.cpp" \
    "$work/sdk/lib/NVDBConv.lib" -lole32 -o "$work/build/convert_step_msvclib.exe"

failed=0
# The DLL Name entry and the Hint/Name rows that follow it, up to the next entry.
imports_from() { "$objdump" -p "$1" | awk -v dll="$2" '/DLL Name:/ { f = ($3 == dll); next } f && NF == 3 && $1 ~ /^[0-9a-f]+$/ && $2 ~ /^[0-9]+$/ { print $3 }' | LC_ALL=C sort; }
imports=$(imports_from "$work/build/convert_step.exe" NVDBConv.dll)
echo "convert_step.exe imports from NVDBConv.dll: $(echo $imports)"
[ "$imports" = "$(printf '%s\n' Convert GetDBVersion)" ] ||
    { echo "convert_step.exe does not import exactly Convert and GetDBVersion from NVDBConv.dll"; failed=1; }
imports=$(imports_from "$work/build/convert_step_msvclib.exe" NVDBConv.dll)
echo "convert_step_msvclib.exe imports from NVDBConv.dll: $(echo $imports)"
[ "$imports" = "$(printf '%s\n' Convert GetDBVersion)" ] ||
    { echo "convert_step_msvclib.exe does not import exactly Convert and GetDBVersion from NVDBConv.dll"; failed=1; }
imports=$(imports_from "$work/build/upgrade_all.exe" NVDBConv.dll)
[ -z "$imports" ] || { echo "upgrade_all.exe imports from NVDBConv.dll: $imports"; failed=1; }
for f in convert_step.exe convert_step_msvclib.exe upgrade_all.exe NVDBConv.dll; do
    [ -f "$work/build/$f" ] || { echo "no $f in $work/build"; failed=1; }
done
cmp -s "$work/sdk/bin/NVDBConv.dll" "$work/build/NVDBConv.dll" ||
    { echo "the NVDBConv.dll beside the programs is not the installed one"; failed=1; }
[ "$failed" = 0 ] && echo "built against $work/sdk: $(cd "$work/build" && echo *.exe)"
exit $failed

#!/usr/bin/env bash
# delayload_lib_check.sh SOURCE_DIR DLLTOOL NM IMPORTLIB: cmake/delayload-lib.sh,
# run for one import library into two folders at different paths, writes the same
# bytes, and no member of the archive is named after its folder (a build at another
# path links the same binary with it).
set -uo pipefail
src=$1 dlltool=$2 nm=$3 importlib=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
one=$work/a/delayload two=$work/another-and-longer-folder/x/delayload
bash "$src/cmake/delayload-lib.sh" "$dlltool" "$nm" "$importlib" crypt32 "$one" || { echo "FAIL: delayload-lib.sh in $one"; exit 1; }
bash "$src/cmake/delayload-lib.sh" "$dlltool" "$nm" "$importlib" crypt32 "$two" || { echo "FAIL: delayload-lib.sh in $two"; exit 1; }
failures=0
if cmp "$one/libcrypt32.a" "$two/libcrypt32.a"; then
    echo "ok:   the same bytes from both folders"
else
    echo "FAIL: libcrypt32.a differs between $one and $two"; failures=$((failures + 1))
fi
members=$("${dlltool%dlltool}ar" t "$two/libcrypt32.a")
if [ -n "$members" ] && ! grep -q 'another_and_longer_folder\|delayload' <<<"$members"; then
    echo "ok:   member names do not carry the folder ($(head -n 1 <<<"$members"), ...)"
else
    echo "FAIL: member names carry the folder:"; head -n 3 <<<"$members" | sed 's/^/      /'; failures=$((failures + 1))
fi
exit $((failures > 0))

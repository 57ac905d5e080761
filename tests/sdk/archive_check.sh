#!/usr/bin/env bash
# archive_check.sh ROOT WIN_BUILD WORK: scripts/sdk-archive packs the installed SDK
# into NVDBConv-sdk-<version>.zip with exactly the files of sdk_layout.txt under
# one top folder, puts the signed library it is given in bin/, and gives the same
# bytes when run again.
set -uo pipefail
root=$1 build=$2 work=$3
here=$(cd "$(dirname "$0")" && pwd)
source "$here/layout_checks.sh"
rm -rf "$work"
mkdir -p "$work/first" "$work/second" "$work/unpacked"
work=$(cd "$work" && pwd)
version=$(sed -n 's/^project(NVDBConv VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")
name=NVDBConv-sdk-$version
# A stand-in for the signed library: any file that is not the built one.
printf 'signed library stand-in\n' >"$work/signed.dll"
failed=0
bash "$root/scripts/sdk-archive" "$build" "$work/first" "$work/signed.dll" >"$work/first.log" 2>&1 ||
    { cat "$work/first.log"; exit 1; }
bash "$root/scripts/sdk-archive" "$build" "$work/second" "$work/signed.dll" >"$work/second.log" 2>&1 ||
    { cat "$work/second.log"; exit 1; }
[ "$(ls "$work/first")" = "$name.zip" ] || { echo "the archive is not $name.zip: $(ls "$work/first")"; failed=1; }
cmp -s "$work/first/$name.zip" "$work/second/$name.zip" ||
    { echo "two runs gave different archives"; failed=1; }
(cd "$work/unpacked" && cmake -E tar xf "$work/first/$name.zip") || { echo "the archive does not unpack"; exit 1; }
actual=$(files_below "$work/unpacked")
expected=$(sed "s|^|$name/|" "$here/sdk_layout.txt" | LC_ALL=C sort)
same_file_list "$expected" "$actual" "the archive's files differ from sdk_layout.txt (< expected, > archived):"
same_bytes "$work/signed.dll" "$work/unpacked/$name/bin/NVDBConv.dll" \
    "bin/NVDBConv.dll is not the signed library it was given"
same_bytes "$build/lib/NVDBConv.lib" "$work/unpacked/$name/lib/NVDBConv.lib" "lib/NVDBConv.lib is not the built one"
[ "$failed" = 0 ] && echo "$name.zip: $(echo "$actual" | wc -l) files, the same bytes twice"
exit $failed

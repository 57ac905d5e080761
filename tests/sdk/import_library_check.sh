#!/usr/bin/env bash
# import_library_check.sh LIB_DIR NM: both import libraries import exactly the four
# plain exports by name from NVDBConv.dll, and none of the COM server's exports
# (PRIVATE in the .def file: hosts resolve those at run time).
#   NVDBConv.lib        MSVC format: short import members (llvm-readobj), __imp_ symbols (llvm-nm)
#   libNVDBConv.dll.a   MinGW format: __imp_ symbols (the MinGW nm)
set -uo pipefail
lib=$1 nm=$2
failed=0
expected_imps=$(printf '__imp_%s\n' Cleanup Convert GetDBVersion Rollback)

msvc=$lib/NVDBConv.lib
if [ ! -f "$msvc" ]; then
    echo "no $msvc (llvm-dlltool missing? scripts/setup installs llvm)"; exit 1
fi
echo "== llvm-nm $msvc"
symbols=$(llvm-nm "$msvc")
echo "$symbols"
imps=$(grep -o '__imp_[A-Za-z]*' <<<"$symbols" | LC_ALL=C sort)
[ "$imps" = "$expected_imps" ] || { echo "NVDBConv.lib: __imp_ symbols are not exactly the four exports"; failed=1; }
echo "== llvm-readobj $msvc"
readobj=$(llvm-readobj "$msvc")
members=$(awk '/^Format: COFF-import-file/ { f = 1; next }
               f && /^Name type:/ { type = $3 }
               f && /^Symbol: __imp_/ { print $2 " " type; f = 0 }' <<<"$readobj" | LC_ALL=C sort)
echo "$members"
expected_members=$(printf '__imp_%s name\n' Cleanup Convert GetDBVersion Rollback)
[ "$members" = "$expected_members" ] ||
    { echo "NVDBConv.lib: the short import members are not the four exports imported by name"; failed=1; }
grep -q '^Format: COFF-x86-64' <<<"$readobj" || { echo "NVDBConv.lib is not for x86-64"; failed=1; }
strings -a "$msvc" | grep -qx 'NVDBConv\.dll' || { echo "NVDBConv.lib does not name NVDBConv.dll"; failed=1; }

mingw=$lib/libNVDBConv.dll.a
echo "== $nm $mingw"
symbols=$("$nm" "$mingw")
imps=$(awk '$2 == "I" && $3 ~ /^__imp_/ { print $3 }' <<<"$symbols" | LC_ALL=C sort)
echo "$imps"
[ "$imps" = "$expected_imps" ] || { echo "libNVDBConv.dll.a: __imp_ symbols are not exactly the four exports"; failed=1; }
grep -q ' I NVDBConv_dll_iname$' <<<"$symbols" || { echo "libNVDBConv.dll.a does not import from NVDBConv.dll"; failed=1; }
exit $failed

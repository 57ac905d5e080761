#!/usr/bin/env bash
# install_layout_check.sh WIN_BUILD WORK: `cmake --install` of the cross build lays
# out exactly the files of sdk_layout.txt, the library and the header are the ones
# the build made, and the package's version file is the project's.
set -uo pipefail
build=$1 work=$2
here=$(cd "$(dirname "$0")" && pwd)
source "$here/layout_checks.sh"
rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/sdk" >"$work/install.log" 2>&1 || { cat "$work/install.log"; exit 1; }
failed=0
actual=$(files_below "$work/sdk")
expected=$(LC_ALL=C sort "$here/sdk_layout.txt")
same_file_list "$expected" "$actual" "installed files differ from sdk_layout.txt (< expected, > installed):"
same_bytes "$build/bin/NVDBConv.dll" "$work/sdk/bin/NVDBConv.dll" "bin/NVDBConv.dll is not the built library"
same_bytes "$here/../../include/nvdbconv/nvdbconv.h" "$work/sdk/include/nvdbconv/nvdbconv.h" \
    "include/nvdbconv/nvdbconv.h is not the tree's header"
version=$(sed -n 's/^project(NVDBConv VERSION \([0-9.]*\).*/\1/p' "$here/../../CMakeLists.txt")
grep -q "set(PACKAGE_VERSION \"$version\")" "$work/sdk/lib/cmake/NVDBConv/NVDBConvConfigVersion.cmake" ||
    { echo "the package version file does not say $version"; failed=1; }
[ "$failed" = 0 ] && echo "the installed SDK has the expected $(echo "$expected" | wc -l) files, version $version"
exit $failed

#!/usr/bin/env bash
# toolchain_record_check.sh SOURCE_DIR: the toolchain record scripts/release writes to
# dist/TOOLCHAIN.txt names each package the build, the installers and the signing use
# with the version dpkg-query reports for it, and the cross compiler's version line.
set -uo pipefail
src=$1
command -v dpkg-query >/dev/null || { echo "FAIL: dpkg-query is missing: the record is made on Debian"; exit 1; }
source "$src/scripts/signing.sh"
record=$(nv_release_toolchain) || { echo "FAIL: nv_release_toolchain failed"; exit 1; }
failures=0
for p in mingw-w64 g++-mingw-w64-x86-64 g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64 \
    mingw-w64-x86-64-dev cmake ninja-build nsis wixl osslsigncode openssl; do
    v=$(dpkg-query -W -f='${Version}' "$p" 2>/dev/null)
    if [ -z "$v" ]; then
        echo "FAIL: $p is not installed here (scripts/setup installs it)"; failures=$((failures + 1))
    elif grep -qxF "$p $v $(dpkg-query -W -f='${Architecture}' "$p")" <<<"$record"; then
        echo "ok:   $p $v"
    else
        echo "FAIL: no line '$p $v ...' in the record"; failures=$((failures + 1))
    fi
done
compiler=$(x86_64-w64-mingw32-g++-posix --version | head -n 1)
if grep -qxF "$compiler" <<<"$record"; then
    echo "ok:   $compiler"
else
    echo "FAIL: the compiler's line '$compiler' is not in the record"; failures=$((failures + 1))
fi
if [ "$failures" -ne 0 ]; then
    sed 's/^/      /' <<<"$record"
    exit 1
fi

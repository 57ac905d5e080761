#!/usr/bin/env bash
# example_paths_check.sh ROOT: every registry path of the suite that an example
# names (examples/*/ NSIS scripts, WiX sources, C and C++ files) is one the SDK
# header defines (an NVDBCONV_KEY_* value). An NSIS script or a WiX source cannot
# include a C header; this keeps them to its names all the same.
set -uo pipefail
root=$1
header=$root/include/nvdbconv/nvdbconv.h
known=$(sed -n 's/^#define NVDBCONV_KEY_[A-Z0-9_]* L"\(.*\)"$/\1/p' "$header" | sed 's/\\\\/\\/g' | LC_ALL=C sort -u)
[ -n "$known" ] || { echo "no NVDBCONV_KEY_* paths in $header"; exit 1; }
failed=0 checked=0
while IFS= read -r file; do
    while IFS= read -r path; do
        checked=$((checked + 1))
        if ! grep -qxF -- "$path" <<<"$known"; then
            echo "${file#"$root"/}: $path is not a path of nvdbconv.h"; failed=1
        fi
    done < <(grep -o 'SOFTWARE\\\{1,2\}Norvane[A-Za-z0-9.\\-]*' "$file" | sed 's/\\\\/\\/g' | sed 's/\\$//' | LC_ALL=C sort -u)
done < <(find "$root/examples" -type f \( -name '*.nsi' -o -name '*.nsh' -o -name '*.wxs' -o -name '*.cpp' -o -name '*.c' -o -name '*.h' \) | LC_ALL=C sort)
[ "$checked" -gt 0 ] || { echo "no registry paths found in examples/"; exit 1; }
[ "$failed" = 0 ] && echo "$checked registry paths in examples/, each one of nvdbconv.h"
exit $failed

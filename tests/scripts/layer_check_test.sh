#!/usr/bin/env bash
# The layering of src/ (src/layers.cmake) is enforced twice, and both are checked
# here on a copy of src/ with offences planted in it:
# - cmake/layercheck.cmake, which the build runs before anything compiles, accepts
#   the tree as it is and refuses, naming file and line, an include from a folder
#   above the includer's, one that climbs out with "..", a folder no layer names,
#   and a layer list in which a layer depends on one above it;
# - a layer's include path (build/.../src/layers/<layer>, given as the first
#   argument with the compiler and its other include folders) holds the folders
#   the layer may include from and no others: a header of a higher folder is not
#   found there, one of a lower folder is.
#
#   layer_check_test.sh LAYER_VIEWS_DIR COMPILER INCLUDE_DIR...
source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"
views=${1:?layer views folder}
compiler=${2:?compiler}
shift 2
extra_includes=()
for dir in "$@"; do
    extra_includes+=(-I "$dir")
done
# check NAME EXPECTED_RC EXPECTED_LINE: runs the check on $work/src.
check() {
    local name=$1 want_rc=$2 want_line=$3 out rc
    out=$(cmake -DNV_SRC="$work/src" -P "$root/cmake/layercheck.cmake" 2>&1)
    rc=$?
    if [ "$want_rc" = 0 ] && [ "$rc" != 0 ]; then
        fail "$name: the check refused: $out"
    elif [ "$want_rc" != 0 ] && [ "$rc" = 0 ]; then
        fail "$name: the check passed"
    elif [ -n "$want_line" ] && ! grep -qxF -- "$want_line" <<<"$out"; then
        fail "$name: no line '$want_line' in: $out"
    else
        echo "ok: $name"
    fi
}

fresh_copy() {
    rm -rf "$work/src"
    cp -r "$root/src" "$work/src"
}

# plant FILE LINE TEXT: inserts TEXT as line LINE of $work/src/FILE.
plant() {
    sed -i "$2i $3" "$work/src/$1"
}

fresh_copy
check "the tree as it is passes" 0 ""

# planted FILE LINE TEXT NAME EXPECTED_RC EXPECTED_LINE: the check on a fresh tree
# with TEXT planted as line LINE of FILE.
planted() {
    fresh_copy
    plant "$1" "$2" "$3"
    check "$4" "$5" "$6"
}
planted legacydb/regset.cpp 2 '#include "frame/baseconverter.h"' "legacydb including from frame is refused" 1 'src/legacydb/regset.cpp:2: legacydb may not include "frame/baseconverter.h" (legacydb includes only from: legacydb common trace security)'
planted common/hresult.h 3 '#include "com/dbconverter.h"' "common including from com is refused" 1 'src/common/hresult.h:3: common may not include "com/dbconverter.h" (common includes only from: common)'
planted frame/baseconverter.cpp 2 '#include <converter3/converter3.h>' "an angle-bracket include from a higher folder is refused" 1 'src/frame/baseconverter.cpp:2: frame may not include "converter3/converter3.h" (frame includes only from: frame common trace)'
planted trace/trace.cpp 2 '#include "../converter3/converter3.h"' "an include that climbs out of its folder is refused" 1 'src/trace/trace.cpp:2: "../converter3/converter3.h" climbs out of its folder (name the folder instead)'

fresh_copy
mkdir "$work/src/extra"
check "a folder no layer names is refused" 1 \
    'src/extra: a folder that src/layers.cmake does not place in a layer'

fresh_copy
sed -i 's/^set(NV_LAYER_DEPS_frame common trace)$/set(NV_LAYER_DEPS_frame common trace converter3)/' "$work/src/layers.cmake"
check "a layer depending on a higher one is refused" 1 \
    'src/layers.cmake: frame depends on converter3, which is not listed below it'

planted converter2/nameindex.cpp 2 '#include "frame/paths.h"' "converter2 including from frame, below it, passes" 0 ""

# The include path of a layer's target: what it lists compiles, what lies above not.
compiles() {
    printf '#include "%s"\n' "$2" >"$work/probe.cpp"
    "$compiler" -std=c++17 -fsyntax-only -DUNICODE -D_UNICODE -DNOMINMAX -D_WIN32_WINNT=0x0601 \
        -I "$views/$1" "${extra_includes[@]}" "$work/probe.cpp" >"$work/probe.log" 2>&1
}
if compiles legacydb security/securitycontext.h; then
    echo "ok: legacydb's include path finds security/securitycontext.h"
else
    fail "legacydb's include path does not find security/securitycontext.h: $(cat "$work/probe.log")"
fi
# A layer's include path must not reach a header of a layer above it, and the
# probe must fail for exactly that reason.
does_not_find() {
    if compiles "$1" "$2"; then
        fail "$1's include path finds $2"
    elif grep -q "$2: No such file or directory" "$work/probe.log"; then
        echo "ok: $1's include path does not find $2"
    else
        fail "$1's probe failed for another reason: $(cat "$work/probe.log")"
    fi
}
does_not_find legacydb frame/baseconverter.h
does_not_find frame com/dbconverter.h

finish

#!/usr/bin/env bash
# doc_samples_check.sh ROOT: docs/INTEGRATING.md quotes code only from files that
# the build compiles or the tests run.
#   <!-- sample: PATH -->   the next fenced block is the whole of ROOT/PATH
#   <!-- excerpt: PATH -->  the next fenced block stands, line for line, in ROOT/PATH
# Every C and C++ file of examples/sdk-consumer is quoted whole, and every fenced
# block of the guide is one of these (a block without a marker fails).
set -uo pipefail
root=$1
doc=$root/docs/INTEGRATING.md
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
[ -f "$doc" ] || { echo "no $doc"; exit 1; }

# Writes each block to $work/N with its kind and path in $work/N.what; a block
# with no marker before it gets the kind "none".
awk -v out="$work" '
    /^<!-- (sample|excerpt): [^ ]+ -->$/ { kind = $2; sub(":", "", kind); path = $3; next }
    /^```/ {
        if (!inside) {
            inside = 1; n++; file = out "/" n
            printf "" > file
            print (kind ? kind : "none") " " (path ? path : "-") " " NR > (file ".what")
            kind = ""; path = ""
        } else {
            inside = 0; close(file); close(file ".what")
        }
        next
    }
    inside { print > file }
    NF && !inside { kind = ""; path = "" }
' "$doc"

failed=0 quoted=""
for what in "$work"/*.what; do
    [ -e "$what" ] || break
    block=${what%.what}
    read -r kind path line <"$what"
    case $kind in
    sample)
        if cmp -s "$block" "$root/$path"; then
            echo "line $line: the whole of $path"; quoted="$quoted $path"
        else
            echo "line $line: the block differs from $path:"; diff "$root/$path" "$block" | head -n 20; failed=1
        fi ;;
    excerpt)
        if [ ! -f "$root/$path" ]; then
            echo "line $line: no $path"; failed=1
        elif [ -s "$block" ] && [ -n "$(awk -v b="$block" '
                BEGIN { while ((getline l < b) > 0) want[++n] = l }
                { text[++m] = $0 }
                END { for (i = 1; i + n - 1 <= m; i++) { ok = 1
                          for (j = 1; j <= n; j++) if (text[i + j - 1] != want[j]) { ok = 0; break }
                          if (ok) { print i; exit } } }' "$root/$path")" ]; then
            echo "line $line: an excerpt of $path"
        else
            echo "line $line: the block does not stand in $path:"; sed 's/^/    /' "$block"; failed=1
        fi ;;
    *)
        echo "line $line: a fenced block without a sample or excerpt marker"; failed=1 ;;
    esac
done
for f in "$root"/examples/sdk-consumer/*.c "$root"/examples/sdk-consumer/*.cpp; do
    rel=${f#"$root"/}
    [[ " $quoted " == *" $rel "* ]] || { echo "$rel is not quoted whole in docs/INTEGRATING.md"; failed=1; }
done
exit $failed

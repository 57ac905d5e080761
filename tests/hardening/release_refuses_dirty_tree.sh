#!/usr/bin/env bash
# release_refuses_dirty_tree.sh SOURCE_DIR: scripts/release --test-signing, run in a
# clone of the committed tree with one uncommitted change and then with one untracked
# file, refuses at once (exit 1, naming the reason) and builds nothing.
set -uo pipefail
src=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
git clone -q --no-hardlinks "$src" "$work/repo" || { echo "FAIL: cannot clone $src"; exit 1; }
cp "$src/scripts/release" "$src/scripts/signing.sh" "$src/scripts/env.sh" "$work/repo/scripts/" 2>/dev/null
(cd "$work/repo" && git add -A scripts && git -c user.name=t -c user.email=t@t commit -q -m t) >/dev/null 2>&1
failures=0
expect_refusal() {
    local what=$1 out rc
    out=$(cd "$work/repo" && NV_BUILD_DIR="$work/build" bash scripts/release --test-signing 2>&1)
    rc=$?
    if [ "$rc" -eq 1 ] && grep -q 'uncommitted changes' <<<"$out" && [ ! -e "$work/build" ] && [ ! -e "$work/repo/dist" ]; then
        echo "ok:   refused with $what"
    else
        echo "FAIL: with $what: exit $rc"; sed 's/^/      /' <<<"$out" | head -n 20; failures=$((failures + 1))
    fi
}
echo "// changed" >>"$work/repo/README.md"
expect_refusal "a changed tracked file"
(cd "$work/repo" && git checkout -q README.md)
touch "$work/repo/untracked.txt"
expect_refusal "an untracked file"
exit $((failures > 0))

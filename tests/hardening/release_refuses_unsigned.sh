#!/usr/bin/env bash
# release_refuses_unsigned.sh SOURCE_DIR: scripts/release, run in a clean clone of the
# committed tree, refuses (exit 1, naming the reason) before it builds anything when
# no signing certificate is named, when the certificate is half named or not
# readable, when no timestamp server is named or it is no http(s) address, when the
# timestamp server does not answer the signing probe, and when --test-signing comes
# with a named certificate. With --test-signing alone it goes on to the build.
# A cmake of our own, first on PATH, records whether the build was started (and the
# script's "building Release" line says so too).
set -uo pipefail
src=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
git clone -q --no-hardlinks "$src" "$work/repo" || { echo "FAIL: cannot clone $src"; exit 1; }
cp "$src/scripts/release" "$src/scripts/signing.sh" "$src/scripts/env.sh" "$src/scripts/setup" "$work/repo/scripts/" 2>/dev/null
(cd "$work/repo" && git add -A scripts && git -c user.name=t -c user.email=t@t commit -q -m t) >/dev/null 2>&1
mkdir -p "$work/fakebin"
printf '#!/bin/sh\ntouch "%s"\nexit 1\n' "$work/cmake-ran" >"$work/fakebin/cmake"
chmod +x "$work/fakebin/cmake"
source "$src/scripts/signing.sh"
nv_sign_use_test_identity "$work/identity" >/dev/null || { echo "FAIL: openssl could not make a certificate"; exit 1; }
cert=$NV_SIGN_CERT key=$NV_SIGN_KEY
unset NV_SIGN_CERT NV_SIGN_KEY NV_SIGN_CAFILE NV_SIGN_PKCS12 NV_SIGN_PASSWORD_FILE NV_SIGN_TIMESTAMP_URL

failures=0
# run_release [VAR=VALUE...] -- [ARG...]: scripts/release in the clone; sets out and rc.
run_release() {
    local env=()
    while [ "$1" != -- ]; do env+=("$1"); shift; done
    shift
    rm -rf "$work/build" "$work/repo/dist" "$work/cmake-ran"
    out=$(cd "$work/repo" && env PATH="$work/fakebin:$PATH" NV_BUILD_DIR="$work/build" "${env[@]}" \
        bash scripts/release "$@" 2>&1 </dev/null)
    rc=$?
    grep -qF "building Release" <<<"$out" && touch "$work/cmake-ran"
}
# expect_refusal WHAT TEXT: the last run ended with exit 1, said TEXT, built nothing.
expect_refusal() {
    local what=$1 text=$2
    if [ "$rc" -eq 1 ] && grep -qF -- "$text" <<<"$out" && [ ! -e "$work/cmake-ran" ] &&
        [ ! -e "$work/build/release" ] && [ ! -e "$work/repo/dist" ]; then
        echo "ok:   refused $what"
    else
        echo "FAIL: $what: exit $rc, build started: $([ -e "$work/cmake-ran" ] && echo yes || echo no), expected '$text'"
        sed 's/^/      /' <<<"$out" | head -n 20
        failures=$((failures + 1))
    fi
}

run_release --
expect_refusal "with no certificate named" "no signing certificate"
grep -qF -- "--test-signing" <<<"$out" || { echo "FAIL: the refusal does not name --test-signing"; failures=$((failures + 1)); }
run_release -- --check-reproducible
expect_refusal "--check-reproducible with no certificate named" "no signing certificate"
run_release NV_SIGN_CERT="$cert" NV_SIGN_TIMESTAMP_URL=http://127.0.0.1:9/ --
expect_refusal "a certificate without its key" "NV_SIGN_CERT and NV_SIGN_KEY go together"
run_release NV_SIGN_CERT="$cert" NV_SIGN_KEY="$key" --
expect_refusal "with no timestamp server" "no timestamp server"
run_release NV_SIGN_CERT="$cert" NV_SIGN_KEY="$key" NV_SIGN_TIMESTAMP_URL=ftp://127.0.0.1/ --
expect_refusal "a timestamp server that is no http(s) address" "is not an http:// or https:// address"
run_release NV_SIGN_CERT="$work/none.pem" NV_SIGN_KEY="$key" NV_SIGN_TIMESTAMP_URL=http://127.0.0.1:9/ --
expect_refusal "a certificate file that is not there" "NV_SIGN_CERT names '$work/none.pem', which is not a readable file"
run_release NV_SIGN_PKCS12="$work/identity/test-signing-ca.pem" NV_SIGN_CERT="$cert" NV_SIGN_KEY="$key" NV_SIGN_TIMESTAMP_URL=http://127.0.0.1:9/ --
expect_refusal "both a PKCS#12 file and a certificate" "name either NV_SIGN_PKCS12 or NV_SIGN_CERT and NV_SIGN_KEY, not both"
run_release NV_SIGN_CERT="$cert" NV_SIGN_KEY="$key" NV_SIGN_CAFILE="$work/identity/test-signing-ca.pem" \
    NV_SIGN_TIMESTAMP_URL=http://127.0.0.1:9/ --
expect_refusal "a timestamp server that does not answer" "signing a probe failed"
run_release NV_SIGN_CERT="$cert" NV_SIGN_KEY="$key" -- --test-signing
expect_refusal "--test-signing with a certificate named" "--test-signing signs with a throw-away certificate, yet the environment names one"

# --test-signing alone passes the signing checks and starts the build (which our
# cmake fails).
run_release -- --test-signing
if [ "$rc" -eq 1 ] && [ -e "$work/cmake-ran" ] && grep -qF "signing probe verified" <<<"$out" &&
    grep -qF "the Release build failed" <<<"$out" && [ ! -e "$work/repo/dist" ]; then
    echo "ok:   --test-signing goes on to the build"
else
    echo "FAIL: --test-signing: exit $rc, build started: $([ -e "$work/cmake-ran" ] && echo yes || echo no)"
    sed 's/^/      /' <<<"$out" | head -n 20
    failures=$((failures + 1))
fi
exit $((failures > 0))

#!/usr/bin/env bash
# signing_check.sh LIBRARY OUT_DIR
# Signs a copy of the library with a throw-away test certificate (Authenticode,
# SHA-256) into OUT_DIR, where the signed library test loads it, and checks that:
# the signature verifies against the test CA; one flipped byte in the code, and one
# in the signature, each fail verification; removing the signature gives back the
# unsigned bytes (apart from the PE checksum and the signature's alignment).
set -uo pipefail
lib=$1 out=$2
source "$(dirname "$0")/../../scripts/signing.sh"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
source "$(dirname "${BASH_SOURCE[0]}")/check_steps.sh"

nv_sign_use_test_identity "$work/identity" || { echo "FAIL: openssl could not make the test certificate"; exit 1; }
mkdir -p "$out"
check "sign $(basename "$lib") (SHA-256)" nv_sign_file "$lib" "$out/NVDBConv.dll"
check "signature verifies against the test CA" nv_sign_verify "$out/NVDBConv.dll"
check "the signature is SHA-256" grep -q 'SHA256' <(osslsigncode verify -CAfile "$NV_SIGN_CAFILE" -in "$out/NVDBConv.dll" 2>&1)
refused "verification without the test CA" osslsigncode verify -CAfile /dev/null -in "$out/NVDBConv.dll"

# One byte in the middle of the first section (code), and one near the end of the file
# (inside the signature).
cp "$out/NVDBConv.dll" "$work/code-flipped.dll"
nv_flip_byte "$work/code-flipped.dll" 4096
refused "one flipped byte in the code" nv_sign_verify "$work/code-flipped.dll"
size=$(stat -c %s "$out/NVDBConv.dll")
cp "$out/NVDBConv.dll" "$work/signature-flipped.dll"
nv_flip_byte "$work/signature-flipped.dll" $((size - 200))
refused "one flipped byte in the signature" nv_sign_verify "$work/signature-flipped.dll"

check "without its signature it is the library (checksum and padding aside)" nv_same_unsigned "$lib" "$out/NVDBConv.dll"
cp "$lib" "$work/changed.dll"
nv_flip_byte "$work/changed.dll" 4096
refused "a changed library is told apart" nv_same_unsigned "$work/changed.dll" "$out/NVDBConv.dll"

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed"
    exit 1
fi
echo "all signing checks passed"

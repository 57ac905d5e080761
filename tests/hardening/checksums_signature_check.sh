#!/usr/bin/env bash
# checksums_signature_check.sh SOURCE_DIR LIBRARY: a release folder made as
# scripts/release makes dist/ (the library signed with a throw-away certificate,
# UNSIGNED-SHA256SUMS, TOOLCHAIN.txt, SHA256SUMS and its detached signature
# SHA256SUMS.sig), and checks that:
# the signature is a detached CMS signature (DER, SHA-256) that verifies against the
# test CA, both with nv_verify_checksums and with the openssl command the README gives
# users, and `scripts/release --verify` accepts the folder; and that verification
# fails against another CA, with one changed digit in SHA256SUMS, one flipped byte in
# the signature, a changed listed file, a file added to the folder, a library signed
# by another certificate than SHA256SUMS, and (outside a test release) a library
# signed without a timestamp.
set -uo pipefail
src=$1 lib=$2
source "$src/scripts/signing.sh"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
source "$(dirname "${BASH_SOURCE[0]}")/check_steps.sh"
# make_dist DIR: the release folder, signed with the current identity.
make_dist() {
    local dir=$1
    mkdir -p "$dir"
    nv_sign_file "$lib" "$dir/NVDBConv.dll" "NVDBConv" || return 1
    (cd "$(dirname "$lib")" && sha256sum -- "$(basename "$lib")") >"$dir/UNSIGNED-SHA256SUMS"
    nv_release_toolchain >"$dir/TOOLCHAIN.txt"
    cp "$NV_SIGN_CAFILE" "$dir/test-signing-ca.pem"
    (cd "$dir" && find . -maxdepth 1 -type f ! -name SHA256SUMS -printf '%f\n' | sort | xargs sha256sum --) >"$dir/SHA256SUMS"
    nv_sign_checksums "$dir"
}
# verify_as_user DIR CA: the command the README gives.
verify_as_user() {
    (cd "$1" && openssl cms -verify -binary -inform DER -in SHA256SUMS.sig -content SHA256SUMS \
        -CAfile "$2" -purpose any -out /dev/null && sha256sum --strict -c SHA256SUMS)
}
release_verify() { # release_verify DIR CA: scripts/release --verify DIR
    NV_SIGN_CAFILE=$2 bash "$src/scripts/release" --verify "$1"
}

nv_sign_use_test_identity "$work/other" || { echo "FAIL: openssl could not make a certificate"; exit 1; }
other_ca=$NV_SIGN_CAFILE other_cert=$NV_SIGN_CERT other_key=$NV_SIGN_KEY
nv_sign_use_test_identity "$work/identity" || { echo "FAIL: openssl could not make a certificate"; exit 1; }
ca=$NV_SIGN_CAFILE
check "make the release folder" make_dist "$work/dist"
dist=$work/dist

openssl cms -cmsout -inform DER -in "$dist/SHA256SUMS.sig" -print >"$work/cms.txt" 2>&1
check "SHA256SUMS.sig is DER CMS signed data" grep -q 'contentType: pkcs7-signedData' "$work/cms.txt"
check "the signature is detached (no content inside)" grep -q 'eContent: <ABSENT>' "$work/cms.txt"
check "the digest is SHA-256" grep -q 'algorithm: sha256' "$work/cms.txt"
check "SHA256SUMS lists SHA256SUMS.sig's neighbours only" \
    test "$(sed 's/^[0-9a-f]* [ *]//' "$dist/SHA256SUMS" | tr '\n' ' ')" = \
    "NVDBConv.dll TOOLCHAIN.txt UNSIGNED-SHA256SUMS test-signing-ca.pem "
check "nv_verify_checksums against the test CA" env NV_SIGN_CAFILE="$ca" bash -c "source '$src/scripts/signing.sh'; nv_verify_checksums '$dist'"
check "the users' command (openssl cms -verify, sha256sum -c)" verify_as_user "$dist" "$ca"
check "scripts/release --verify" release_verify "$dist" "$ca"
refused "against another CA" verify_as_user "$dist" "$other_ca"
refused_saying "scripts/release --verify against another CA" "the signature of SHA256SUMS does not verify" \
    release_verify "$dist" "$other_ca"

tampered() { # tampered NAME: a fresh copy of the folder in $work/NAME
    rm -rf "$work/$1"; cp -a "$dist" "$work/$1"; echo "$work/$1"
}
d=$(tampered digit)
awk 'NR == 1 { $0 = (substr($0, 1, 1) == "0" ? "1" : "0") substr($0, 2) } { print }' "$dist/SHA256SUMS" >"$d/SHA256SUMS"
check "(one digit of SHA256SUMS changed)" bash -c "! cmp -s '$d/SHA256SUMS' '$dist/SHA256SUMS'"
refused "one changed digit in SHA256SUMS" verify_as_user "$d" "$ca"
refused_saying "scripts/release --verify, one changed digit in SHA256SUMS" "the signature of SHA256SUMS does not verify" \
    release_verify "$d" "$ca"
d=$(tampered flipped)
nv_flip_byte "$d/SHA256SUMS.sig" $(($(stat -c %s "$d/SHA256SUMS.sig") - 100))
refused "one flipped byte in SHA256SUMS.sig" verify_as_user "$d" "$ca"
refused_saying "scripts/release --verify, one flipped byte in SHA256SUMS.sig" "the signature of SHA256SUMS does not verify" \
    release_verify "$d" "$ca"
d=$(tampered changed)
echo "extra-package 1.0 amd64" >>"$d/TOOLCHAIN.txt"
refused "a changed listed file" verify_as_user "$d" "$ca"
refused_saying "scripts/release --verify, a changed listed file" "TOOLCHAIN.txt: FAILED" release_verify "$d" "$ca"
d=$(tampered added)
cp "$lib" "$d/planted.dll"
refused_saying "scripts/release --verify, a file added to the folder" "present, not listed: planted.dll" \
    release_verify "$d" "$ca"

# The library signed by another certificate (trusted too), SHA256SUMS remade and
# signed by the release's: every signature verifies on its own, the pairing does not.
d=$(tampered mixed)
cat "$ca" "$other_ca" >"$work/both-cas.pem"
NV_SIGN_CERT=$other_cert NV_SIGN_KEY=$other_key nv_sign_file "$lib" "$d/NVDBConv.dll" "NVDBConv"
(cd "$d" && find . -maxdepth 1 -type f ! -name SHA256SUMS ! -name SHA256SUMS.sig -printf '%f\n' | sort | xargs sha256sum --) >"$d/SHA256SUMS"
nv_sign_checksums "$d"
check "(the mixed folder verifies as the users' command sees it)" verify_as_user "$d" "$work/both-cas.pem"
refused_saying "scripts/release --verify, library and SHA256SUMS signed by different certificates" \
    "SIGNED BY ANOTHER CERTIFICATE THAN SHA256SUMS: NVDBConv.dll" release_verify "$d" "$work/both-cas.pem"

# Only a test release (test-signing-ca.pem in the folder) may go without timestamps.
d=$(tampered untimestamped)
rm "$d/test-signing-ca.pem"
(cd "$d" && find . -maxdepth 1 -type f ! -name SHA256SUMS ! -name SHA256SUMS.sig -printf '%f\n' | sort | xargs sha256sum --) >"$d/SHA256SUMS"
nv_sign_checksums "$d"
refused_saying "scripts/release --verify, a release whose library carries no timestamp" "NO TIMESTAMP: NVDBConv.dll" \
    release_verify "$d" "$ca"

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed"
    exit 1
fi
echo "all checksum signature checks passed"

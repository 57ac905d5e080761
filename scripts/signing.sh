# Authenticode signing shared by scripts/release and the signing test. Source it.
#
# The signing identity comes from the environment:
#   NV_SIGN_PKCS12 (+ NV_SIGN_PASSWORD_FILE)     a PKCS#12 file, or
#   NV_SIGN_CERT + NV_SIGN_KEY (+ NV_SIGN_PASSWORD_FILE)   PEM certificate chain and key;
#   NV_SIGN_CAFILE       CA bundle to verify against (default: osslsigncode's own);
#   NV_SIGN_TIMESTAMP_URL  RFC 3161 timestamp server (none: no timestamp).
# With none of them named, nv_sign_use_test_identity makes a throw-away test
# certificate with openssl. It is labelled as such in its subject and in the output:
# a file signed with it proves nothing about who built it.

NV_SIGN_TEST_SUBJECT="/O=NVDBConv THROW-AWAY TEST SIGNING/CN=NVDBConv test signing - NOT A RELEASE CERTIFICATE"
NV_SIGN_TEST_CA_SUBJECT="/O=NVDBConv THROW-AWAY TEST SIGNING/CN=NVDBConv test signing CA - NOT TRUSTED"

# True when the environment names a signing certificate.
nv_sign_identity_named() {
    [ -n "${NV_SIGN_PKCS12:-}" ] || { [ -n "${NV_SIGN_CERT:-}" ] && [ -n "${NV_SIGN_KEY:-}" ]; }
}

# nv_sign_use_test_identity DIR: a throw-away CA and a code-signing certificate it
# issued, in DIR (reused when DIR already holds them, so that two runs sign with the
# same certificate). Sets NV_SIGN_CERT, NV_SIGN_KEY and NV_SIGN_CAFILE.
nv_sign_use_test_identity() {
    local dir=$1
    mkdir -p "$dir"
    if [ ! -s "$dir/test-signing-ca.pem" ] || [ ! -s "$dir/test-signing-chain.pem" ] || [ ! -s "$dir/test-signing.key" ]; then
        openssl req -x509 -newkey rsa:2048 -nodes -sha256 -days 30 -subj "$NV_SIGN_TEST_CA_SUBJECT" \
            -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" \
            -keyout "$dir/test-signing-ca.key" -out "$dir/test-signing-ca.pem" >/dev/null 2>&1 || return 1
        openssl req -newkey rsa:2048 -nodes -sha256 -subj "$NV_SIGN_TEST_SUBJECT" \
            -keyout "$dir/test-signing.key" -out "$dir/test-signing.csr" >/dev/null 2>&1 || return 1
        printf '%s\n' "basicConstraints=critical,CA:FALSE" "keyUsage=critical,digitalSignature" \
            "extendedKeyUsage=codeSigning" >"$dir/test-signing.ext"
        openssl x509 -req -sha256 -days 30 -in "$dir/test-signing.csr" -CA "$dir/test-signing-ca.pem" \
            -CAkey "$dir/test-signing-ca.key" -CAcreateserial -extfile "$dir/test-signing.ext" \
            -out "$dir/test-signing.pem" >/dev/null 2>&1 || return 1
        cat "$dir/test-signing.pem" "$dir/test-signing-ca.pem" >"$dir/test-signing-chain.pem"
        rm -f "$dir/test-signing-ca.key" "$dir/test-signing.csr" "$dir/test-signing.ext" "$dir/test-signing-ca.srl"
    fi
    NV_SIGN_CERT=$dir/test-signing-chain.pem
    NV_SIGN_KEY=$dir/test-signing.key
    NV_SIGN_CAFILE=$dir/test-signing-ca.pem
    NV_SIGN_PKCS12=
    NV_SIGN_TEST_IDENTITY=1
}

# nv_sign_file IN OUT [DESCRIPTION]: Authenticode, SHA-256. Without a timestamp the
# signing time is SOURCE_DATE_EPOCH when set, so the signature itself is repeatable.
nv_sign_file() {
    local in=$1 out=$2 desc=${3:-NVDBConv}
    local args=(sign -h sha256 -n "$desc")
    if [ -n "${NV_SIGN_PKCS12:-}" ]; then
        args+=(-pkcs12 "$NV_SIGN_PKCS12")
    else
        args+=(-certs "$NV_SIGN_CERT" -key "$NV_SIGN_KEY")
    fi
    [ -n "${NV_SIGN_PASSWORD_FILE:-}" ] && args+=(-readpass "$NV_SIGN_PASSWORD_FILE")
    if [ -n "${NV_SIGN_TIMESTAMP_URL:-}" ]; then
        args+=(-ts "$NV_SIGN_TIMESTAMP_URL")
    elif [ -n "${SOURCE_DATE_EPOCH:-}" ]; then
        args+=(-time "$SOURCE_DATE_EPOCH")
    fi
    rm -f "$out"
    osslsigncode "${args[@]}" -in "$in" -out "$out" >/dev/null
}

# nv_sign_verify FILE: osslsigncode verify against NV_SIGN_CAFILE (when set).
nv_sign_verify() {
    local args=(verify)
    [ -n "${NV_SIGN_CAFILE:-}" ] && args+=(-CAfile "$NV_SIGN_CAFILE")
    osslsigncode "${args[@]}" -in "$1"
}

# nv_flip_byte FILE OFFSET: inverts one byte in place.
nv_flip_byte() {
    local file=$1 offset=$2 byte
    byte=$(od -An -tu1 -j "$offset" -N1 "$file" | tr -d ' ')
    printf "\\$(printf '%03o' $((byte ^ 0xFF)))" | dd of="$file" bs=1 seek="$offset" conv=notrunc status=none
}

# nv_same_unsigned ORIGINAL SIGNED: true when SIGNED, with its signature removed, is
# ORIGINAL byte for byte, apart from the two things signing must change: the PE
# checksum, and the zero padding that aligns the signature (under 8 bytes).
nv_same_unsigned() {
    local orig=$1 signed=$2 dir tmp size pe checksum rc=0
    dir=$(mktemp -d)
    tmp=$dir/unsigned # osslsigncode will not overwrite a file
    osslsigncode remove-signature -in "$signed" -out "$tmp" >/dev/null 2>&1 || { rm -rf "$dir"; return 1; }
    size=$(stat -c %s "$orig")
    pe=$(od -An -tu4 -j 60 -N4 "$orig" | tr -d ' ')
    checksum=$((pe + 88))
    [ $(($(stat -c %s "$tmp") - size)) -ge 0 ] && [ $(($(stat -c %s "$tmp") - size)) -lt 8 ] || rc=1
    [ "$(tail -c +$((size + 1)) "$tmp" | tr -d '\0' | wc -c)" -eq 0 ] || rc=1
    { cmp -l <(head -c "$size" "$orig") <(head -c "$size" "$tmp") || true; } |
        awk -v c="$checksum" '$1 < c + 1 || $1 > c + 4 { bad = 1 } END { exit bad }' || rc=1
    rm -rf "$dir"
    return $rc
}

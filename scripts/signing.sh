# Signing shared by scripts/release and the signing tests. Source it.
#
# The signing identity comes from the environment:
#   NV_SIGN_PKCS12 (+ NV_SIGN_PASSWORD_FILE)     a PKCS#12 file, or
#   NV_SIGN_CERT + NV_SIGN_KEY (+ NV_SIGN_PASSWORD_FILE)   PEM certificate chain and key;
#   NV_SIGN_CAFILE       CA bundle to verify against (default: the system's bundle);
#   NV_SIGN_TIMESTAMP_URL  RFC 3161 timestamp server.
# scripts/release demands an identity and a timestamp server unless it is asked for a
# test release (--test-signing): then nv_sign_use_test_identity makes a throw-away
# test certificate with openssl, labelled as such in its subject and in the output.
# A file signed with it proves nothing about who built it.
#
# The files are signed with Authenticode (osslsigncode); SHA256SUMS gets a detached
# CMS signature (openssl cms, DER, SHA-256) by the same certificate, SHA256SUMS.sig.

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

# nv_sign_identity_problem: says what is wrong with the identity the environment
# names (nothing, and true, when each named file is there and readable).
nv_sign_identity_problem() {
    local v f
    if [ -n "${NV_SIGN_PKCS12:-}" ] && { [ -n "${NV_SIGN_CERT:-}" ] || [ -n "${NV_SIGN_KEY:-}" ]; }; then
        echo "name either NV_SIGN_PKCS12 or NV_SIGN_CERT and NV_SIGN_KEY, not both"; return 1
    fi
    if [ -z "${NV_SIGN_PKCS12:-}" ] && { [ -z "${NV_SIGN_CERT:-}" ] || [ -z "${NV_SIGN_KEY:-}" ]; }; then
        echo "NV_SIGN_CERT and NV_SIGN_KEY go together"; return 1
    fi
    for v in NV_SIGN_PKCS12 NV_SIGN_CERT NV_SIGN_KEY NV_SIGN_PASSWORD_FILE NV_SIGN_CAFILE; do
        f=${!v:-}
        [ -z "$f" ] || [ -r "$f" ] || { echo "$v names '$f', which is not a readable file"; return 1; }
    done
}

# nv_sign_passin: the -passin argument openssl needs for the identity's key.
nv_sign_passin() {
    if [ -n "${NV_SIGN_PASSWORD_FILE:-}" ]; then
        printf '%s\n' -passin "file:$NV_SIGN_PASSWORD_FILE"
    elif [ -n "${NV_SIGN_PKCS12:-}" ]; then
        printf '%s\n' -passin pass:
    fi
}

# nv_sign_probe DIR: signs a two-line script in DIR with the identity (and the
# timestamp server, when one is named) and verifies it: a wrong password, a key that
# does not belong to the certificate, a certificate the CA bundle does not trust or a
# timestamp server that does not answer shows here, before anything is built.
nv_sign_probe() {
    local dir=$1
    mkdir -p "$dir" && printf 'Write-Output "signing probe"\r\n' >"$dir/probe.ps1" || return 1
    nv_sign_file "$dir/probe.ps1" "$dir/probe-signed.ps1" "signing probe" 2>&1 || return 1
    if [ -n "${NV_SIGN_TIMESTAMP_URL:-}" ]; then
        nv_sign_verify_timestamped "$dir/probe-signed.ps1" 2>&1
    else
        nv_sign_verify "$dir/probe-signed.ps1" 2>&1
    fi
}

# nv_sign_verify_timestamped FILE: nv_sign_verify, and the signature carries a timestamp.
nv_sign_verify_timestamped() {
    local out rc
    out=$(nv_sign_verify "$1" 2>&1)
    rc=$?
    printf '%s\n' "$out"
    [ "$rc" -eq 0 ] || return 1
    ! grep -q 'Timestamp is not available' <<<"$out" || { echo "no timestamp in $1"; return 1; }
}

# nv_sign_checksums DIR: DIR/SHA256SUMS.sig, a detached CMS signature (DER, SHA-256)
# of DIR/SHA256SUMS by the identity, with the certificates of its chain.
nv_sign_checksums() {
    local dir=$1 work key rc=0 passin chain=()
    mapfile -t passin < <(nv_sign_passin)
    work=$(mktemp -d) || return 1
    if [ -n "${NV_SIGN_PKCS12:-}" ]; then
        openssl pkcs12 -in "$NV_SIGN_PKCS12" "${passin[@]}" -nokeys -clcerts -out "$work/signer.pem" </dev/null &&
            openssl pkcs12 -in "$NV_SIGN_PKCS12" "${passin[@]}" -nokeys -cacerts -out "$work/chain.pem" </dev/null ||
            rc=1
        key=$NV_SIGN_PKCS12
    else
        # The first certificate of the file is the signer's; the rest is its chain.
        awk '/-----BEGIN CERTIFICATE-----/ { n++ } n == 1' "$NV_SIGN_CERT" >"$work/signer.pem"
        awk '/-----BEGIN CERTIFICATE-----/ { n++ } n > 1' "$NV_SIGN_CERT" >"$work/chain.pem"
        key=$NV_SIGN_KEY
    fi
    grep -q 'BEGIN CERTIFICATE' "$work/chain.pem" 2>/dev/null && chain=(-certfile "$work/chain.pem")
    [ "$rc" -ne 0 ] || openssl cms -sign -binary -md sha256 -in "$dir/SHA256SUMS" -signer "$work/signer.pem" \
        -inkey "$key" "${passin[@]}" "${chain[@]}" -outform DER -out "$dir/SHA256SUMS.sig" </dev/null || rc=1
    rm -rf "$work"
    return $rc
}

# nv_verify_checksums DIR [SIGNER_PEM]: the signature DIR/SHA256SUMS.sig of
# DIR/SHA256SUMS verifies against NV_SIGN_CAFILE (default: the system's bundle) and
# was made by a code-signing certificate (written to SIGNER_PEM when given); SHA256SUMS
# lists every other file in DIR, and nothing else, and each has its checksum.
nv_verify_checksums() {
    local dir=$1 signer_out=${2:-} work rc=0 ca=()
    [ -n "${NV_SIGN_CAFILE:-}" ] && ca=(-CAfile "$NV_SIGN_CAFILE")
    [ -f "$dir/SHA256SUMS" ] && [ -f "$dir/SHA256SUMS.sig" ] || { echo "no SHA256SUMS or SHA256SUMS.sig in $dir"; return 1; }
    work=$(mktemp -d) || return 1
    # The purpose is checked below: OpenSSL 3.0 has no code-signing purpose of its own.
    if ! openssl cms -verify -binary -inform DER -in "$dir/SHA256SUMS.sig" -content "$dir/SHA256SUMS" \
        "${ca[@]}" -purpose any -signer "$work/signer.pem" -out /dev/null >"$work/log" 2>&1; then
        sed 's/^/    /' "$work/log"
        echo "the signature of SHA256SUMS does not verify"; rc=1
    elif ! openssl x509 -in "$work/signer.pem" -noout -ext extendedKeyUsage 2>/dev/null | grep -q 'Code Signing'; then
        echo "SHA256SUMS was not signed by a code-signing certificate"; rc=1
    fi
    if [ "$rc" -eq 0 ]; then
        sed 's/^[0-9a-f]\{64\} [ *]//' "$dir/SHA256SUMS" | sort >"$work/listed"
        (cd "$dir" && find . -maxdepth 1 -type f ! -name SHA256SUMS ! -name SHA256SUMS.sig -printf '%f\n' | sort) >"$work/present"
        if ! cmp -s "$work/listed" "$work/present"; then
            echo "SHA256SUMS does not list exactly the files of $dir:"
            diff "$work/listed" "$work/present" | sed -n 's/^< /    listed, not present: /p; s/^> /    present, not listed: /p'
            rc=1
        elif ! (cd "$dir" && sha256sum --strict --quiet -c SHA256SUMS); then
            rc=1
        fi
    fi
    [ "$rc" -ne 0 ] || [ -z "$signer_out" ] || cp "$work/signer.pem" "$signer_out"
    rm -rf "$work"
    return $rc
}

# nv_cert_id PEM: the certificate's issuer and serial, as nv_authenticode_signer gives them.
nv_cert_id() {
    local serial issuer
    serial=$(openssl x509 -in "$1" -noout -serial | sed 's/^serial=0*//') || return 1
    issuer=$(openssl x509 -in "$1" -noout -issuer -nameopt compat | sed 's/^issuer=//') || return 1
    printf '%s %s\n' "${serial^^}" "$issuer"
}

# nv_authenticode_signer FILE: the issuer and serial of the certificate that made the
# file's (first) Authenticode signature; run after nv_sign_verify has passed.
nv_authenticode_signer() {
    nv_sign_verify "$1" 2>/dev/null | awk '
        /^Signer.s certificate:/ { s = 1 }
        s && /Issuer :/ { sub(/^[ \t]*Issuer : /, ""); issuer = $0 }
        s && /Serial :/ { serial = toupper($3); sub(/^0+/, "", serial); print serial " " issuer; exit }'
}

# The Debian packages that build, sign and check a release.
NV_RELEASE_PACKAGES=(mingw-w64 mingw-w64-common mingw-w64-x86-64-dev g++-mingw-w64-x86-64
    g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix-runtime
    gcc-mingw-w64-base binutils-mingw-w64-x86-64 cmake cmake-data ninja-build nsis nsis-common
    wixl wixl-data libmsi0 msitools libgcab-1.0-0 osslsigncode openssl libssl3 wine64 libwine git)

# nv_release_toolchain: the toolchain record (dist/TOOLCHAIN.txt): each package's
# installed version, and the compiler's own version line.
nv_release_toolchain() {
    local p v
    echo "# Debian packages that built, signed and checked this release (dpkg-query)"
    [ -r /etc/debian_version ] && echo "debian $(cat /etc/debian_version)"
    for p in "${NV_RELEASE_PACKAGES[@]}"; do
        v=$(dpkg-query -W -f='${Version} ${Architecture}' "$p" 2>/dev/null) && [ -n "$v" ] || v="(not installed)"
        echo "$p $v"
    done
    echo "# x86_64-w64-mingw32-g++-posix --version"
    x86_64-w64-mingw32-g++-posix --version 2>/dev/null | head -n 1
}

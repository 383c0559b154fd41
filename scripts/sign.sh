#!/bin/sh
# Authenticode signing of what the MSI ships, and of the MSI itself, with osslsigncode.
#
#   sign.sh [--ca CAFILE] [--out DIR] [--timestamp URL] [--pass-file FILE] BUILD_DIR CERT KEY
#       Signs copies of the DLLs and programs the msi target staged (BUILD_DIR/packaging/stage),
#       builds the MSI from the signed copies, signs the MSI, then verifies every signature:
#       against CAFILE when given, else against the system's trusted roots. CERT is the signing
#       certificate in PEM (it may carry its chain), KEY its private key in PEM (FILE holds the
#       key's passphrase, if any). Output: DIR (default BUILD_DIR/packaging/signed) with stage/
#       and OrvaneCSP-<version>-x64.msi.
#
#   sign.sh make-test-ca DIR
#       A throw-away CA (DIR/ca.pem) and a code-signing certificate issued by it (DIR/signer.pem,
#       DIR/signer.key), valid for 30 days: for CI and for trying this script. Never ship with it.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)

usage() {
    sed -n '2,14p' "$0" | sed 's/^# \{0,1\}//' >&2
    exit 2
}

make_test_ca() {
    dir=$1
    mkdir -p "$dir"
    openssl req -x509 -new -newkey rsa:2048 -nodes -sha256 -days 30 -subj "/O=Orvane/CN=Orvane Test Code Signing CA" \
        -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" \
        -keyout "$dir/ca.key" -out "$dir/ca.pem" 2>/dev/null
    openssl req -new -newkey rsa:2048 -nodes -subj "/O=Orvane/CN=Orvane Test Code Signing" \
        -keyout "$dir/signer.key" -out "$dir/signer.csr" 2>/dev/null
    printf '%s\n' "basicConstraints=critical,CA:FALSE" "keyUsage=critical,digitalSignature" \
        "extendedKeyUsage=codeSigning" >"$dir/signer.ext"
    openssl x509 -req -sha256 -days 30 -in "$dir/signer.csr" -CA "$dir/ca.pem" -CAkey "$dir/ca.key" \
        -CAcreateserial -extfile "$dir/signer.ext" -out "$dir/signer.pem" 2>/dev/null
    rm -f "$dir/signer.csr" "$dir/signer.ext"
    echo "Test CA $dir/ca.pem; signing certificate $dir/signer.pem, key $dir/signer.key"
}

if [ "${1:-}" = make-test-ca ]; then
    [ $# -eq 2 ] || usage
    make_test_ca "$2"
    exit 0
fi

ca="" out="" timestamp="" pass_file=""
while [ $# -gt 0 ]; do
    case "$1" in
    --ca) ca=$2; shift 2 ;;
    --out) out=$2; shift 2 ;;
    --timestamp) timestamp=$2; shift 2 ;;
    --pass-file) pass_file=$2; shift 2 ;;
    -*) usage ;;
    *) break ;;
    esac
done
[ $# -eq 3 ] || usage
build=$1 cert=$2 key=$3
stage=$build/packaging/stage
[ -f "$stage/version.txt" ] || { echo "sign.sh: no $stage: build the msi target first" >&2; exit 1; }
version=$(cat "$stage/version.txt")
out=${out:-$build/packaging/signed}
msi=$out/OrvaneCSP-$version-x64.msi

sign() {
    target=$1
    set -- -certs "$cert" -key "$key" -h sha256 -n "Orvane Cryptographic Provider" -in "$target" -out "$target.signed"
    [ -z "$pass_file" ] || set -- "$@" -readpass "$pass_file"
    [ -z "$timestamp" ] || set -- "$@" -ts "$timestamp"
    osslsigncode sign "$@" >/dev/null
    mv "$target.signed" "$target"
}

verify() {
    if [ -n "$ca" ]; then
        osslsigncode verify -CAfile "$ca" -in "$1" >"$1.verify.log" 2>&1
    else
        osslsigncode verify -in "$1" >"$1.verify.log" 2>&1
    fi
}

rm -rf "$out"
mkdir -p "$out"
cp -R "$stage" "$out/stage"
files=$(find "$out/stage" -type f \( -name '*.dll' -o -name '*.exe' \) | sort)
for file in $files; do
    sign "$file"
    echo "signed ${file#"$out"/}"
done
cmake -DSTAGE="$out/stage" -DOUTPUT="$msi" -DVERSION="$version" -P "$root/packaging/MakeMsi.cmake"
sign "$msi"
echo "signed ${msi#"$out"/}"

failed=0
for file in $files "$msi"; do
    if verify "$file"; then
        echo "verified ${file#"$out"/}"
        rm -f "$file.verify.log"
    else
        echo "sign.sh: verification failed for $file:" >&2
        cat "$file.verify.log" >&2
        failed=1
    fi
done
[ "$failed" -eq 0 ] || exit 1
echo "Signed MSI: $msi"

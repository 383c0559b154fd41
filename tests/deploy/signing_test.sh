#!/bin/sh
# scripts/sign.sh with a throw-away CA: every shipped DLL and program and the MSI verify against
# that CA, the MSI holds the signed files (not the unsigned stage), and a changed copy of a
# signed file, or another CA, fails verification.
#   signing_test.sh BUILD_DIR WORK_DIR
set -u
build=$1
work=$2
root=$(cd "$(dirname "$0")/../.." && pwd)

failures=0
pass() { printf 'PASS  %s\n' "$*"; }
fail() {
    printf 'FAIL  %s\n' "$*"
    failures=$((failures + 1))
}
verifies() { osslsigncode verify -CAfile "$1" -in "$2" >/dev/null 2>&1; }
expect_verifies() { if verifies "$1" "$2"; then pass "$3 verifies"; else fail "$3 does not verify"; fi; }
expect_refused() { if verifies "$1" "$2"; then fail "$3 verifies"; else pass "$3 refused"; fi; }
# Replaces the byte at an offset with a different one.
flip_byte() {
    old=$(od -An -tu1 -j "$2" -N1 "$1" | tr -d ' ')
    printf "\\$(printf '%03o' $(((old + 1) % 256)))" | dd of="$1" bs=1 seek="$2" conv=notrunc 2>/dev/null
}

rm -rf "$work"
mkdir -p "$work"
sh "$root/scripts/sign.sh" make-test-ca "$work/ca" >/dev/null || { echo "ERROR no test CA"; exit 1; }
sh "$root/scripts/sign.sh" make-test-ca "$work/other-ca" >/dev/null || { echo "ERROR no second CA"; exit 1; }
if ! sh "$root/scripts/sign.sh" --ca "$work/ca/ca.pem" --out "$work/signed" "$build" "$work/ca/signer.pem" \
    "$work/ca/signer.key"; then
    fail "sign.sh"
fi

ca=$work/ca/ca.pem
msi=$(ls "$work"/signed/OrvaneCSP-*-x64.msi 2>/dev/null | head -n 1)
[ -n "$msi" ] || { echo "ERROR sign.sh made no MSI"; exit 1; }
staged=$(cd "$build/packaging/stage" && find . -type f \( -name '*.dll' -o -name '*.exe' \) | sort)
[ -n "$staged" ] || { echo "ERROR nothing staged in $build/packaging/stage"; exit 1; }

for file in $staged; do
    expect_verifies "$ca" "$work/signed/stage/$file" "signed ${file#./}"
    expect_refused "$ca" "$build/packaging/stage/$file" "unsigned ${file#./}"
done
expect_verifies "$ca" "$msi" "signed MSI"
expect_refused "$work/other-ca/ca.pem" "$msi" "signed MSI checked against another CA"

# What the MSI carries must be the signed files themselves: the File table lists each staged
# file with its signed size (x64 and x86 share names, so sizes tell them apart), and what the
# MSI unpacks verifies.
msi_files=$(msiinfo export "$msi" File | tr -d '\r' | awk -F '\t' 'NR > 3 { print $3 " " $4 }' | sort)
signed_files=$(cd "$work/signed/stage" && for file in $staged; do
    printf '%s %s\n' "$(basename "$file")" "$(wc -c <"$file" | tr -d ' ')"
done | sort)
if [ "$msi_files" = "$signed_files" ]; then pass "the MSI lists the signed files"; else
    fail "the MSI lists other files than the signed ones:"
    printf '  MSI:    %s\n' $msi_files
    printf '  signed: %s\n' $signed_files
fi
mkdir -p "$work/extracted"
(cd "$work/extracted" && msiextract "$msi" >/dev/null 2>&1)
for copy in $(find "$work/extracted" -type f | sort); do
    expect_verifies "$ca" "$copy" "${copy#"$work"/extracted/} unpacked from the signed MSI"
done

# One changed byte in the code of a signed DLL, and in the signed MSI's embedded cabinet.
cp "$work/signed/stage/x64/OrvaneCSP.dll" "$work/changed.dll"
flip_byte "$work/changed.dll" 4096
expect_refused "$ca" "$work/changed.dll" "changed copy of the signed OrvaneCSP.dll"
cp "$msi" "$work/changed.msi"
cabinet=$(grep -obUa 'MSCF' "$work/changed.msi" | head -n 1 | cut -d: -f1)
flip_byte "$work/changed.msi" $((cabinet + 200))
expect_refused "$ca" "$work/changed.msi" "changed copy of the signed MSI"

printf '\n%s failure(s)\n' "$failures"
[ "$failures" -eq 0 ]

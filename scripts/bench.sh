#!/bin/sh
# The benchmark: builds everything, provisions a software token of its own (signed on, so no
# PIN dialog), registers the provider in a Wine prefix of its own, runs orvane-bench-null.exe
# (the provider's own cost, over a token library that does nothing, from build/bench/null)
# and then orvane-bench.exe, which ends with every figure against its target.
#   scripts/bench.sh [ROUNDS]     ROUNDS of the signing rows (default 200)
set -eu
cd "$(dirname "$0")/.."
root=$(pwd)
rounds=${1:-200}
sh scripts/setup.sh
cmake --preset mingw
cmake --build --preset mingw

bench="$root/build/bench"
rm -rf "$bench/store"
mkdir -p "$bench/store"
export WINEDEBUG=-all
export WINEPREFIX="$bench/prefix"
export ORVANE_TOKEN_STORE="$(echo "Z:$bench/store" | tr / '\\')"
serial=BENCH-0001
tool() { wine "$root/build/bin/orvane-token.exe" "$@"; }

sh scripts/wine-prefix.sh setup "$WINEPREFIX" "$root/build/bin"
echo 1234 | tool create "$serial" --label "Orvane Bench Token" --pin-stdin --retries 10
tool sign-on "$serial" 1 1
rsa_key=$(tool genkey "$serial" rsa2048 --label "Bench RSA-2048" --usage 3)
ec_key=$(tool genkey "$serial" p256 --label "Bench P-256" --usage 3)
echo "Token $serial: RSA-2048 key pair $rsa_key, P-256 key pair $ec_key"

# The copy of the provider beside the null library, under a name of its own.
null_name="Orvane Null Bench CSP"
null_key="HKLM\\Software\\Microsoft\\Cryptography\\Defaults\\Provider\\$null_name"
null_image="$(echo "Z:$bench/null/OrvaneCSP.dll" | tr / '\\')"
wine reg add "$null_key" /v "Image Path" /t REG_SZ /d "$null_image" /f >/dev/null
wine reg add "$null_key" /v Type /t REG_DWORD /d 1 /f >/dev/null
wine reg add "$null_key" /v SigInFile /t REG_DWORD /d 0 /f >/dev/null
figures="$bench/null-figures.txt"
rm -f "$figures"

status=0
wine "$bench/null/orvane-bench-null.exe" "$null_name" "$rounds" "$(echo "Z:$figures" | tr / '\\')" || status=$?
ORVANE_BENCH_NULL_FIGURES="$(echo "Z:$figures" | tr / '\\')" \
    wine "$root/build/bin/orvane-bench.exe" "$serial" "$rsa_key" "$ec_key" "$rounds" || status=$?
sh scripts/wine-prefix.sh shutdown "$WINEPREFIX" >/dev/null
exit $status

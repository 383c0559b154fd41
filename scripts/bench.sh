#!/bin/sh
# The benchmark: builds everything, provisions a software token of its own (signed on, so no
# PIN dialog), registers the provider in a Wine prefix of its own and runs orvane-bench.exe.
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

status=0
wine "$root/build/bin/orvane-bench.exe" "$serial" "$rsa_key" "$ec_key" "$rounds" || status=$?
sh scripts/wine-prefix.sh shutdown "$WINEPREFIX" >/dev/null
exit $status

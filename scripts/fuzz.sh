#!/bin/sh
# Builds every libFuzzer target natively (clang, address and undefined-behaviour sanitizers)
# and runs each for SECONDS (default 60) from its corpus in build/fuzz/corpus/<target>.
#   sh scripts/fuzz.sh [SECONDS]
set -eu
cd "$(dirname "$0")/.."
seconds=${1:-60}
out=build/fuzz
mkdir -p "$out"
command -v clang++ >/dev/null || { echo "clang++ is needed (apt-get install clang libclang-rt-14-dev)"; exit 2; }
flags="-std=c++17 -g -O1 -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined -I."
build() {
    name=$1; shift
    clang++ $flags "fuzz/$name.cpp" "$@" -o "$out/$name"
}
build key_blobs_fuzzer encoding/KeyBlobs.cpp
build cng_blobs_fuzzer encoding/CngBlobs.cpp encoding/KeyBlobs.cpp
for target in key_blobs_fuzzer cng_blobs_fuzzer; do
    mkdir -p "$out/corpus/$target"
    echo "== $target: $seconds s"
    "$out/$target" -max_total_time="$seconds" -print_final_stats=1 "$out/corpus/$target" 2>&1 |
        grep -E "stat::number_of_executed_units|stat::peak_rss|ERROR|SUMMARY" || true
done

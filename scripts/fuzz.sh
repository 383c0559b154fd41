#!/bin/sh
# Builds every libFuzzer target in fuzz/ natively (clang, address and undefined-behaviour
# sanitizers) and runs each from its corpus.
#
#   sh scripts/fuzz.sh [--out DIR] [SECONDS [TARGET...]]
#                                              run each target (or those named) SECONDS (default
#                                              60); prints executions, coverage (cov/ft), findings
#   sh scripts/fuzz.sh [--out DIR] --coverage  line and branch coverage of the parsers over the
#                                              corpora, and every line no input reaches
#
# DIR (default build/fuzz) holds the binaries, the seeds (made by scripts/fuzz-seeds.py),
# the corpora that grow run by run and the findings. Each target also reads the checked-in
# inputs of fuzz/seeds/<target> and fuzz/regressions/<target> (every input that once failed).
# A finding leaves its input in DIR/findings/<target>/ and makes the script exit with 1.
# Needs clang, libclang-rt-14-dev, llvm (for --coverage), python3 and openssl.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
out=$root/build/fuzz
mode=fuzz
seconds=60
all="key_blobs cng_blobs property_values certificate store_format"
targets=""
while [ $# -gt 0 ]; do
    case $1 in
    --out) out=$2; shift 2 ;;
    --coverage) mode=coverage; shift ;;
    -h|--help) sed -n '2,15p' "$0"; exit 0 ;;
    [0-9]*) seconds=$1; shift ;;
    *) case " $all " in *" $1 "*) targets="$targets $1"; shift ;; *) echo "no target $1 (of: $all)"; exit 2 ;; esac ;;
    esac
done
[ -n "$targets" ] && [ "$mode" = fuzz ] || targets=$all
mkdir -p "$out"
out=$(cd "$out" && pwd)
cd "$root"
command -v clang++ >/dev/null || { echo "clang++ is needed (apt-get install clang libclang-rt-14-dev)"; exit 2; }

# The parser sources each target links; coverage is reported for these files.
sources() {
    case $1 in
    key_blobs) echo encoding/KeyBlobs.cpp encoding/Der.cpp encoding/Hex.cpp softtoken/Asn1.cpp ;;
    cng_blobs) echo encoding/CngBlobs.cpp encoding/KeyBlobs.cpp ;;
    property_values) echo encoding/ProviderPropertyValues.cpp ;;
    certificate) echo softtoken/Asn1.cpp encoding/Der.cpp encoding/Hex.cpp ;;
    store_format) echo softtoken/StoreFormat.cpp encoding/Hex.cpp ;;
    esac
}
parsers="encoding/KeyBlobs.cpp encoding/CngBlobs.cpp encoding/ProviderPropertyValues.cpp encoding/WideNames.h
         softtoken/Asn1.cpp softtoken/StoreFormat.cpp encoding/Hex.cpp"

# Builds $1 into $2 with the flags that follow, unless the binary is newer than every source,
# header and fuzz file it could depend on.
build() {
    target=$1 binary=$2; shift 2
    if [ -x "$binary" ] && [ -z "$(find encoding softtoken/Asn1.* softtoken/Store.h softtoken/StoreFormat.* token/SecretBytes.h fuzz \
            -newer "$binary" -name '*.[ch]*' 2>/dev/null | head -n 1)" ]; then
        return 0
    fi
    mkdir -p "$(dirname "$binary")"
    files=""
    for file in "fuzz/${target}_fuzzer.cpp" $(sources "$target"); do files="$files $root/$file"; done
    # shellcheck disable=SC2086
    clang++ -std=c++17 -g -I"$root" "$@" $files -o "$binary"
}

corpora() {
    target=$1
    mkdir -p "$out/corpus/$target"
    dirs="$out/corpus/$target $out/seeds/$target"
    for extra in "fuzz/seeds/$target" "fuzz/regressions/$target"; do
        [ -d "$extra" ] && dirs="$dirs $root/$extra"
    done
    echo "$dirs"
}

dictionary() {
    [ -f "fuzz/$1.dict" ] && echo "-dict=$root/fuzz/$1.dict" || true
}

# Made again when the seed script changed.
if [ ! -d "$out/seeds" ] || [ scripts/fuzz-seeds.py -nt "$out/seeds" ]; then
    echo "== seeds"
    rm -rf "$out/seeds" "$out/seeds.tmp"
    python3 scripts/fuzz-seeds.py "$out/seeds.tmp" && mv "$out/seeds.tmp" "$out/seeds"
fi

if [ "$mode" = coverage ]; then
    command -v llvm-profdata >/dev/null && command -v llvm-cov >/dev/null ||
        { echo "llvm-profdata and llvm-cov are needed (apt-get install llvm)"; exit 2; }
    rm -rf "$out/coverage"
    mkdir -p "$out/coverage"
    objects=""
    for target in $targets; do
        binary=$out/coverage-bin/$target
        build "$target" "$binary" -O0 -fsanitize=fuzzer -fprofile-instr-generate -fcoverage-mapping
        # -runs=0: every input of the corpora once, nothing new.
        # shellcheck disable=SC2046
        LLVM_PROFILE_FILE="$out/coverage/$target.profraw" "$binary" -runs=0 $(corpora "$target") \
            >"$out/coverage/$target.log" 2>&1 || { echo "$target failed over its corpus"; tail -n 20 "$out/coverage/$target.log"; exit 1; }
        if [ -z "$objects" ]; then objects="$binary"; else objects="$objects -object $binary"; fi
    done
    llvm-profdata merge -sparse "$out"/coverage/*.profraw -o "$out/coverage/parsers.profdata"
    files=""
    for file in $parsers; do files="$files $root/$file"; done
    # shellcheck disable=SC2086
    # (Each target has its own LLVMFuzzerTestOneInput: llvm-cov warns that they differ.)
    llvm-cov report $objects -instr-profile="$out/coverage/parsers.profdata" $files 2>&1 |
        grep -v 'functions have mismatched data' | sed "s|$root/||"
    # shellcheck disable=SC2086
    llvm-cov export $objects -instr-profile="$out/coverage/parsers.profdata" -format=lcov $files \
        >"$out/coverage/parsers.lcov" 2>/dev/null
    # Every line and branch that no input reached, with its text. The lenient hex reader is left
    # out: it reads only the hex text that the provider itself makes from bytes.
    awk -v root="$root/" -v skip="hexToBytes" '
        /^SF:/ { file = substr($0, 4); short = file; sub(root, "", short); functions = 0; next }
        /^FN:/ { split(substr($0, 4), f, ","); start[short, ++functions] = f[1]; name[short, functions] = f[2];
                 count[short] = functions; next }
        /^DA:/ { split(substr($0, 4), f, ","); if (f[2] == 0) lines[short ":" f[1]] = file; next }
        /^BRDA:/ { split(substr($0, 6), f, ","); if (f[4] == "0" || f[4] == "-") branches[short ":" f[1]] = file; next }
        function skipped(key,   parts, n, line, best, i) {
            n = split(key, parts, ":"); line = parts[n] + 0; best = ""
            for (i = 1; i <= count[parts[1]]; i++)
                if (start[parts[1], i] + 0 <= line && (best == "" || start[parts[1], i] + 0 >= start[parts[1], best] + 0))
                    best = i
            return best != "" && index(name[parts[1], best], skip) > 0
        }
        function show(key, file, what,   parts, n, line, text, i) {
            n = split(key, parts, ":"); line = parts[n]
            i = 0; text = ""
            while ((getline text < file) > 0) if (++i == line) break
            close(file)
            gsub(/^[ \t]+/, "", text)
            printf "  %s (%s): %s\n", key, what, text
        }
        END {
            shown = 0
            for (key in lines) if (!skipped(key)) { show(key, lines[key], "line never run"); shown++ }
            for (key in branches) if (!(key in lines) && !skipped(key)) { show(key, branches[key], "a branch never taken"); shown++ }
            if (shown == 0) print "Every line and branch of the parsers was reached."
        }' "$out/coverage/parsers.lcov" | sort
    exit 0
fi

status=0
printf '%-16s %12s %8s %8s %8s  %s\n' target executions cov ft corpus result
for target in $targets; do
    binary=$out/bin/$target
    build "$target" "$binary" -O1 -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined
    findings=$out/findings/$target
    mkdir -p "$findings"
    log=$out/$target.log
    # shellcheck disable=SC2046
    if "$binary" -max_total_time="$seconds" -print_final_stats=1 -timeout=10 -rss_limit_mb=2048 \
            -artifact_prefix="$findings/" $(dictionary "$target") $(corpora "$target") >"$log" 2>&1; then
        result=ok
    else
        result=FINDING
        status=1
    fi
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    stats=$(grep -E '^#[0-9]+.*cov: ' "$log" | tail -n 1)
    cov=$(echo "$stats" | sed -n 's/.* cov: \([0-9]*\).*/\1/p')
    ft=$(echo "$stats" | sed -n 's/.* ft: \([0-9]*\).*/\1/p')
    corpus=$(echo "$stats" | sed -n 's/.* corp: \([0-9]*\).*/\1/p')
    printf '%-16s %12s %8s %8s %8s  %s\n' "$target" "${executions:-?}" "${cov:-?}" "${ft:-?}" "${corpus:-?}" "$result"
    if [ "$result" = FINDING ]; then
        grep -E '^(SUMMARY|==[0-9]+==ERROR|invariant broken|.*runtime error)' "$log" | head -n 5 | sed 's/^/    /'
        grep -E 'Test unit written to' "$log" | sed 's/^.*written to /    input: /'
        echo "    log: $log"
    fi
done
exit $status

#!/bin/sh
# The long stress run: builds (in build-stress), registers the provider in a Wine prefix of its
# own and runs orvane-stress.exe, which provisions its token in build-stress/stress-work and
# unplugs and plugs it from another process while its threads work.
#   scripts/stress.sh [ARGS]     ARGS for orvane-stress (default: --threads 8 --ops 10000 --unplug-ms 300)
# STRESS_LOG_LEVEL sets the provider's logLevel for the run (default 2: failure lines only; 3 logs every call);
# STRESS_SKIP_SETUP=1 skips scripts/setup.sh (the packages are there already).
set -eu
cd "$(dirname "$0")/.."
root=$(pwd)
build="$root/build-stress"
[ $# -gt 0 ] || set -- --threads 8 --ops 10000 --unplug-ms 300
[ -n "${STRESS_SKIP_SETUP:-}" ] || sh scripts/setup.sh
cmake --preset mingw -B "$build" >/dev/null
cmake --build "$build" -j2 --target orvane-stress OrvaneCSP orvane-token

export WINEDEBUG=-all
export WINEPREFIX="$build/stress-prefix"
export ORVANE_BIN="$build/bin"
export ORVANE_TEST_WORK="$build/stress-work"
mkdir -p "$ORVANE_TEST_WORK"
sh scripts/wine-prefix.sh setup "$WINEPREFIX" "$ORVANE_BIN"
wine reg add 'HKLM\Software\Kestrelon\Orvane' /v logLevel /t REG_DWORD /d "${STRESS_LOG_LEVEL:-2}" /f >/dev/null
# That wine started the prefix's desktop without a display: let it end, or the run would join
# it and no PIN dialog could be shown.
wineserver -w

xvfb-run -a sh -c 'wine "$ORVANE_BIN/orvane-stress.exe" --store long "$@"; echo $? > "$ORVANE_TEST_WORK/exit-code"; wineserver -w' \
    orvane-stress "$@" || true
status=$(cat "$ORVANE_TEST_WORK/exit-code" 2>/dev/null || echo 1)
sh scripts/wine-prefix.sh shutdown "$WINEPREFIX" >/dev/null
exit "$status"

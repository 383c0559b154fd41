#!/bin/sh
# Creates a private Wine prefix (per test run, or for the demo) and registers the provider in it, or shuts the
# prefix's wineserver down at the end of the run.
#   wine-prefix.sh setup PREFIX BIN_DIR
#   wine-prefix.sh shutdown PREFIX
set -eu
action=$1
export WINEPREFIX=$2
export WINEDEBUG=-all

case "$action" in
setup)
    bin=$3
    wineserver -k 2>/dev/null || true
    rm -rf "$WINEPREFIX"
    wineboot -i >/dev/null 2>&1
    image=$(winepath -w "$bin/OrvaneCSP.dll")
    key='HKLM\Software\Microsoft\Cryptography\Defaults\Provider\Orvane Cryptographic Provider CSP'
    wine reg add "$key" /v "Image Path" /t REG_SZ /d "$image" /f >/dev/null
    wine reg add "$key" /v Type /t REG_DWORD /d 1 /f >/dev/null
    wine reg add "$key" /v SigInFile /t REG_DWORD /d 0 /f >/dev/null
    # A crashing test program prints winedbg's backtrace and ends, instead of waiting on the
    # crash dialog (under Xvfb nobody closes it) until the test's time limit.
    wine reg add 'HKCU\Software\Wine\WineDbg' /v ShowCrashDialog /t REG_DWORD /d 0 /f >/dev/null
    # Full diagnostic logging, so that runs can be followed in %TEMP%\Kestrelon.
    wine reg add 'HKLM\Software\Kestrelon\Orvane' /v logLevel /t REG_DWORD /d 3 /f >/dev/null
    wineserver -w
    printf 'Wine prefix ready at %s, provider image %s\n' "$WINEPREFIX" "$image"
    ;;
shutdown)
    wineboot --shutdown >/dev/null 2>&1 || true
    wineserver -w
    echo "wineserver for $WINEPREFIX has stopped"
    ;;
*)
    echo "usage: $0 setup PREFIX BIN_DIR | shutdown PREFIX" >&2
    exit 2
    ;;
esac

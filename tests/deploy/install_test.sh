#!/bin/sh
# The MSI in a fresh Wine prefix of its own, as an administrator would use it:
#  1. installed without the software token: the provider, its CryptoAPI registration and its
#     key storage provider registration are there although no token library is, and removal
#     leaves nothing;
#  2. installed with INSTALLSOFTTOKEN=1: both architectures in place, the key storage provider
#     registered, and a token provisioned with the installed orvane-token reached through the
#     registered provider by the installed orvane-check;
#  3. upgraded to the next version without the option (the software token stays), the provider
#     still working; the older version then refused;
#  4. removed: no file, registry key or product entry left, only the token store.
# Results are read from the prefix (files, registry, the provider's own log), never from
# msiexec's exit code, which Wine cuts to 8 bits.
#
#   install_test.sh MSI NEXT_MSI WORK_DIR OBJDUMP
set -u
msi=$1
next_msi=$2
work=$3
objdump=$4

failures=0
step() { printf '\n== %s\n' "$*"; }
pass() { printf 'PASS  %s\n' "$*"; }
fail() {
    printf 'FAIL  %s\n' "$*"
    failures=$((failures + 1))
}
expect() { # expect WHAT COMMAND...: passes when the command succeeds
    what=$1
    shift
    if "$@"; then pass "$what"; else fail "$what"; fi
}
die() {
    printf 'ERROR %s\n' "$*"
    exit 1
}

rm -rf "$work"
mkdir -p "$work/store" || die "cannot create $work"
export WINEPREFIX="$work/prefix"
export WINEDEBUG=-all
# The tokens live in the test's own folder; the provider's software token reads this variable.
export ORVANE_TOKEN_STORE="Z:$(printf '%s' "$work/store" | tr / '\\')"
trap 'wineserver -k >/dev/null 2>&1' EXIT

windows=$WINEPREFIX/drive_c/windows
program_folder="$WINEPREFIX/drive_c/Program Files/Orvane"
csp_key='HKLM\Software\Microsoft\Cryptography\Defaults\Provider\Orvane Cryptographic Provider CSP'
wow_key='HKLM\Software\WOW6432Node\Microsoft\Cryptography\Defaults\Provider\Orvane Cryptographic Provider CSP'
uninstall_key='HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall'
check_tool='C:\Program Files\Orvane\orvane-check.exe'
certprop='C:\Program Files\Orvane\orvane-certprop.exe'
run_key='HKLM\Software\Microsoft\Windows\CurrentVersion\Run'
token_tool='C:\Program Files\Orvane\orvane-token.exe'

winpath() { printf 'Z:%s' "$(printf '%s' "$1" | tr / '\\')"; }
msiexec() { wine msiexec "$@" >/dev/null 2>&1; }
property() { msiinfo export "$1" Property | tr -d '\r' | awk -F '\t' -v name="$2" '$1 == name { print $2 }'; }
# The data of one registry value as `reg query` prints it ("0x1" for a DWORD).
reg_value() { wine reg query "$1" /v "$2" 2>/dev/null | tr -d '\r' | sed -n "s/^ *$2 \{1,\}REG_[A-Z_]\{1,\} \{1,\}//p"; }
key_exists() { wine reg query "$1" >/dev/null 2>&1; }
no_key() { ! key_exists "$1"; }
is_format() { [ -f "$1" ] && "$objdump" -f "$1" 2>/dev/null | grep -q "file format $2\$"; }
no_file() { [ ! -e "$1" ]; }
registered() { # KEY IMAGE: the three values CryptoAPI reads
    [ "$(reg_value "$1" 'Image Path')" = "$2" ] && [ "$(reg_value "$1" Type)" = 0x1 ] &&
        [ "$(reg_value "$1" SigInFile)" = 0x0 ]
}
# Lines the provider's DllRegisterServer / DllUnregisterServer wrote while regsvr32 ran them.
registration_lines() { cat "$WINEPREFIX"/drive_c/users/*/Temp/Kestrelon/regsvr32.exe/*.LOG 2>/dev/null | grep -c "$1"; }
registrations() { registration_lines 'DllRegisterServer: KSP registered successfully'; }
unregistrations() { registration_lines 'DllUnregisterServer: KSP unregistered successfully'; }
counts_are() { [ "$(unregistrations)" -eq "$1" ] && [ "$(registrations)" -eq "$2" ]; }
store_kept() { ls "$work"/store/state-*.json >/dev/null 2>&1; }
installed_version() { reg_value "$uninstall_key\\$1" DisplayVersion; }
token() { wine "$token_tool" "$@" 2>/dev/null | tr -d '\r'; }

provider_in_place() {
    expect "64-bit provider in system32" is_format "$windows/system32/OrvaneCSP.dll" pei-x86-64
    expect "32-bit provider in syswow64" is_format "$windows/syswow64/OrvaneCSP.dll" pei-i386
    expect "CryptoAPI registration (64-bit view)" registered "$csp_key" 'C:\windows\system32\OrvaneCSP.dll'
    expect "CryptoAPI registration (WOW6432Node)" registered "$wow_key" 'C:\windows\syswow64\OrvaneCSP.dll'
    expect "orvane-check in Program Files\\Orvane" is_format "$program_folder/orvane-check.exe" pei-x86-64
    expect "orvane-certprop in Program Files\\Orvane" is_format "$program_folder/orvane-certprop.exe" pei-x86-64
    expect "orvane-certprop started at every logon" [ "$(reg_value "$run_key" 'Orvane certificate propagation')" = "\"$certprop\"" ]
}
soft_token_in_place() {
    expect "64-bit software token in system32" is_format "$windows/system32/OrvaneDSCLibrary.dll" pei-x86-64
    expect "32-bit software token in syswow64" is_format "$windows/syswow64/OrvaneDSCLibrary.dll" pei-i386
    expect "orvane-token in Program Files\\Orvane" is_format "$program_folder/orvane-token.exe" pei-x86-64
}
nothing_left() {
    for file in system32/OrvaneCSP.dll syswow64/OrvaneCSP.dll system32/OrvaneDSCLibrary.dll \
        syswow64/OrvaneDSCLibrary.dll; do
        expect "$file removed" no_file "$windows/$file"
    done
    expect "Program Files\\Orvane removed" no_file "$program_folder"
    expect "CryptoAPI registration removed (64-bit view)" no_key "$csp_key"
    expect "CryptoAPI registration removed (WOW6432Node)" no_key "$wow_key"
    expect "installer's key HKLM\\Software\\Orvane removed" no_key 'HKLM\Software\Orvane'
    expect "logon start of orvane-certprop removed" [ -z "$(reg_value "$run_key" 'Orvane certificate propagation')" ]
    expect "no product entry for $version" no_key "$uninstall_key\\$product"
    expect "no product entry for $next_version" no_key "$uninstall_key\\$next_product"
}
# orvane-check as installed, with the PIN given on standard input so that no dialog appears.
check_passes() {
    report=$work/check-$1.txt
    printf '1234\n' | wine "$check_tool" --pin-stdin >"$report" 2>&1
    status=$?
    tr -d '\r' <"$report" | sed 's/^/      /'
    expect "orvane-check --pin-stdin exits 0 ($1)" [ "$status" -eq 0 ]
    expect "orvane-check reached container $key through the provider ($1)" grep -q "$key" "$report"
}

version=$(property "$msi" ProductVersion)
product=$(property "$msi" ProductCode)
next_version=$(property "$next_msi" ProductVersion)
next_product=$(property "$next_msi" ProductCode)
[ -n "$version" ] && [ -n "$next_product" ] || die "cannot read the product properties of $msi and $next_msi"
key=""

step "Fresh Wine prefix in $WINEPREFIX"
start=$(date +%s)
wineboot -i >/dev/null 2>&1 || die "wineboot failed"
# A crashing program prints a backtrace and ends instead of waiting on the crash dialog;
# logLevel 3 shows the registration runs.
wine reg add 'HKCU\Software\Wine\WineDbg' /v ShowCrashDialog /t REG_DWORD /d 0 /f >/dev/null 2>&1
wine reg add 'HKLM\Software\Kestrelon\Orvane' /v logLevel /t REG_DWORD /d 3 /f >/dev/null 2>&1

step "Install $version without the software token, then remove it"
msiexec /i "$(winpath "$msi")" /qn /l*v "$(winpath "$work/install-plain.log")"
provider_in_place
expect "no software token without INSTALLSOFTTOKEN" no_file "$windows/system32/OrvaneDSCLibrary.dll"
expect "product $version installed" [ "$(installed_version "$product")" = "$version" ]
expect "DllRegisterServer ran without a token library" counts_are 0 1
msiexec /x "$(winpath "$msi")" /qn /l*v "$(winpath "$work/remove-plain.log")"
nothing_left

step "Install $version with INSTALLSOFTTOKEN=1"
msiexec /i "$(winpath "$msi")" /qn INSTALLSOFTTOKEN=1 /l*v "$(winpath "$work/install.log")"
provider_in_place
soft_token_in_place
expect "no machine-wide token store" no_file "$WINEPREFIX/drive_c/ProgramData/Orvane"
expect "product $version installed" [ "$(installed_version "$product")" = "$version" ]
expect "DllUnregisterServer ran at removal, DllRegisterServer again at install" counts_are 1 2

step "A token provisioned with the installed orvane-token, checked through the registered provider"
echo 1234 | token create DEPLOY-0001 --label "Deploy test token" --pin-stdin --retries 5 >/dev/null
key=$(token genkey DEPLOY-0001 rsa2048 --label "Deploy test key" --usage 3)
token export-pub DEPLOY-0001 "$key" "$work/key.pub.der" >/dev/null
openssl req -x509 -new -newkey rsa:2048 -nodes -keyout "$work/ca.key" -subj "/CN=Orvane Deploy Test CA" \
    -days 2 -out "$work/ca.pem" >/dev/null 2>&1
openssl x509 -new -subj "/CN=Orvane Deploy Test $key" -force_pubkey "$work/key.pub.der" -CA "$work/ca.pem" \
    -CAkey "$work/ca.key" -days 2 -outform DER -out "$work/key.cert.der" 2>/dev/null
token import-cert DEPLOY-0001 "$work/key.cert.der" >/dev/null
[ -n "$key" ] || die "orvane-token could not provision a token"
wine "$certprop" --once >/dev/null 2>&1
check_passes install
expect "orvane-check finds the certificate propagated to the user's store" \
    grep -q "PASS  certificate in the user's MY store" "$work/check-install.txt"

step "Upgrade to $next_version without the option"
msiexec /i "$(winpath "$next_msi")" /qn /l*v "$(winpath "$work/upgrade.log")"
expect "product $next_version installed" [ "$(installed_version "$next_product")" = "$next_version" ]
expect "product $version replaced" no_key "$uninstall_key\\$product"
provider_in_place
soft_token_in_place
expect "key storage provider unregistered by the old version, registered by the new" \
    counts_are 2 3
check_passes upgrade

step "Downgrade to $version refused"
msiexec /i "$(winpath "$msi")" /qn /l*v "$(winpath "$work/downgrade.log")"
expect "installer saw the newer version" grep -q 'WIX_DOWNGRADE_DETECTED' "$work/downgrade.log"
expect "product $next_version still installed" [ "$(installed_version "$next_product")" = "$next_version" ]
expect "product $version not installed" no_key "$uninstall_key\\$product"
provider_in_place
soft_token_in_place

step "Remove"
msiexec /x "$(winpath "$next_msi")" /qn /l*v "$(winpath "$work/remove.log")"
nothing_left
expect "DllUnregisterServer ran at removal" counts_are 3 3
expect "the token store is kept" store_kept

wineserver -k >/dev/null 2>&1
printf '\n%s failure(s); %s s\n' "$failures" "$(($(date +%s) - start))"
[ "$failures" -eq 0 ]

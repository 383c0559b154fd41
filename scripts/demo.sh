#!/bin/sh
# The main job: build everything, provision a demo software token (keys and a certificate
# issued by a demo CA), and use the provider through CryptoAPI under Wine.
set -eu
cd "$(dirname "$0")/.."
root=$(pwd)
sh scripts/setup.sh
cmake --preset mingw
cmake --build --preset mingw

demo="$root/build/demo"
rm -rf "$demo"
mkdir -p "$demo/store"
export WINEDEBUG=-all
export WINEPREFIX="$demo/prefix"
export ORVANE_TOKEN_STORE="$(echo "Z:$demo/store" | tr / '\\')"
tool() { wine "$root/build/bin/orvane-token.exe" "$@"; }
step() { printf '\n== %s\n' "$*"; }

step "Creating a Wine prefix with the provider registered"
sh scripts/wine-prefix.sh setup "$WINEPREFIX" "$root/build/bin"

step "Provisioning software token DEMO-0001 (PIN 1234) in $demo/store"
echo 1234 | tool create DEMO-0001 --label "Orvane Demo Token" --pin-stdin --retries 10
signing_key=$(tool genkey DEMO-0001 rsa2048 --label "Demo signing key" --usage 3)
ec_key=$(tool genkey DEMO-0001 p256 --label "Demo EC key" --usage 3)
echo "RSA-2048 key pair $signing_key"
echo "P-256 key pair    $ec_key"
tool import-secret DEMO-0001 aes256 "$(openssl rand -hex 32)" --label "Demo KEK" >/dev/null

step "Issuing certificates for the token keys from a demo CA (OpenSSL on the host)"
cd "$demo"
openssl req -x509 -new -newkey rsa:2048 -nodes -keyout ca.key -subj "/CN=Orvane Demo CA" -days 365 -out ca.pem 2>/dev/null
for key in "$signing_key" "$ec_key"; do
    tool export-pub DEMO-0001 "$key" "$demo/$key.pub.der"
    openssl x509 -new -subj "/CN=Orvane Demo $key" -force_pubkey "$key.pub.der" -CA ca.pem -CAkey ca.key \
        -days 365 -outform DER -out "$key.cert.der"
    echo "certificate for $key linked to key pair $(tool import-cert DEMO-0001 "$demo/$key.cert.der")"
done
# The CA's certificate on the token too, so that the container's chain reaches its root.
openssl x509 -in ca.pem -outform DER -out ca.der
tool import-cert DEMO-0001 "$demo/ca.der" --label "Orvane Demo CA" >/dev/null
cd "$root"

step "Token contents"
tool list

step "Listing the containers, signing a file and exporting the chain through CryptoAPI (the PIN dialog is answered on an Xvfb display)"
printf 'Orvane demo document, signed on %s\n' "$(date -u)" > "$demo/document.txt"
# Windows need a wineserver that was started on the display: let the current one exit first.
wineserver -w
xvfb-run -a sh -c "wine '$root/build/bin/orvane-demo.exe' $signing_key '$demo/document.txt' '$demo/document.sig' \
    '$demo/signing-cert.der' '$demo/chain.p7b' --answer-pin 1234; status=\$?; wineserver -w; exit \$status"

step "Verifying the signature with OpenSSL against the certificate that CryptoAPI returned"
openssl x509 -inform DER -in "$demo/signing-cert.der" -noout -subject -issuer
openssl x509 -inform DER -in "$demo/signing-cert.der" -pubkey -noout > "$demo/signing-pub.pem"
openssl dgst -sha256 -verify "$demo/signing-pub.pem" -signature "$demo/document.sig" "$demo/document.txt"
openssl x509 -inform DER -in "$demo/signing-cert.der" -out "$demo/signing-cert.pem"
openssl verify -CAfile "$demo/ca.pem" "$demo/signing-cert.pem"

step "Signing the document through the CNG key storage provider (RSA-2048 and P-256); OpenSSL verifies both"
# The token is signed on with the PIN the CryptoAPI run validated; each process asks afresh,
# so sign on in Token Manager's place for this step.
tool sign-on DEMO-0001 1 1 >/dev/null
for key in "$signing_key" "$ec_key"; do
    wine "$root/build/bin/orvane-ksp-sign.exe" "$key" "$demo/document.txt" "$demo/document.$key.ksp.sig"
    openssl x509 -inform DER -in "$demo/$key.cert.der" -pubkey -noout > "$demo/$key.pub.pem"
    openssl dgst -sha256 -verify "$demo/$key.pub.pem" -signature "$demo/document.$key.ksp.sig" "$demo/document.txt"
done

step "Provider log (logLevel 3) of the demo run"
tail -n 12 "$WINEPREFIX"/drive_c/users/*/Temp/Kestrelon/orvane-demo.exe/*.LOG

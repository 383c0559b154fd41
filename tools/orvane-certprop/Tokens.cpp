// The tokens' side: every library call goes through the core, which matches certificates to
// key pairs exactly as the providers do.
#include <algorithm>
#include <cstring>

#include "encoding/KeyTypes.h"
#include "provider/ProviderName.h"
#include "token/DeviceMonitor.h"
#include "token/Devices.h"
#include "token/KeyCertificate.h"
#include "token/KeyPairFacts.h"
#include "token/KeySearch.h"
#include "token/TokenRequests.h"
#include "tools/orvane-certprop/Propagation.h"

namespace certprop {
namespace {

const orvane::DeviceInitTexts kInitTexts = {"certprop: no token connected", "certprop: Init device failed for "};

void append(std::string& fingerprint, const void* bytes, size_t length) {
    fingerprint.append(static_cast<const char*>(bytes), length);
    fingerprint.push_back('\x1f');
}

// Only the fields that mean something: reserved stretches may hold anything.
void appendKeyPair(std::string& fingerprint, const OrvaneKeyPair& key) {
    orvane::KeyPairSnapshot snapshot{};
    orvane::takeSnapshot(snapshot, key);
    append(fingerprint, snapshot.keyId, sizeof snapshot.keyId);
    append(fingerprint, &snapshot.usage, sizeof snapshot.usage);
    append(fingerprint, &snapshot.keyType, sizeof snapshot.keyType);
    append(fingerprint, snapshot.publicKey, snapshot.publicKeyLength);
    append(fingerprint, snapshot.certLinkId, snapshot.certLinkIdLength);
    append(fingerprint, snapshot.label, std::strlen(snapshot.label));
}

void appendCertificate(std::string& fingerprint, const OrvaneCertificate& certificate) {
    append(fingerprint, certificate.certData, orvane::certificateDerLength(certificate));
    append(fingerprint, certificate.certLinkId,
           static_cast<size_t>(std::max<int32_t>(0, std::min<int32_t>(certificate.certLinkIdLength, 128))));
    append(fingerprint, certificate.label, strnlen(certificate.label, sizeof certificate.label));
}

DWORD keySpecOf(const OrvaneKeyPair& key) {
    orvane::KeyRole role = orvane::KeyRole::kSigning;
    if (!orvane::containerKeyRole(key, role)) return 0;
    return role == orvane::KeyRole::kExchange ? AT_KEYEXCHANGE : AT_SIGNATURE;
}

}  // namespace

TokenView readTokens() {
    TokenView view;
    std::vector<std::string> serials = orvane::sweepUnpluggedTokens();
    orvane::initializeListedDevices(serials, nullptr, kInitTexts);
    for (const std::string& serial : serials) {
        TokenLists lists{serial, orvane::readKeyPairs(serial, nullptr), orvane::readCertificates(serial, nullptr)};
        append(view.fingerprint, serial.data(), serial.size());
        for (const OrvaneKeyPair& key : lists.keyPairs) appendKeyPair(view.fingerprint, key);
        for (const OrvaneCertificate& certificate : lists.certificates) appendCertificate(view.fingerprint, certificate);
        view.tokens.push_back(std::move(lists));
    }
    return view;
}

std::vector<TokenCertificate> classify(const TokenView& view) {
    std::vector<TokenCertificate> found;
    for (const TokenLists& token : view.tokens)
        for (const OrvaneCertificate& certificate : token.certificates) {
            TokenCertificate entry;
            entry.der.assign(certificate.certData, certificate.certData + orvane::certificateDerLength(certificate));
            entry.serial = token.serial;
            if (const OrvaneKeyPair* key = orvane::findCertificateKeyPair(certificate, token.keyPairs)) {
                entry.withKey = true;
                entry.keyName = orvane::containerNameOf(*key);
                entry.rsa = !orvane::isEcKeyType(key->keyType);
                entry.keySpec = keySpecOf(*key);
            }
            if (!entry.der.empty()) found.push_back(std::move(entry));
        }
    return found;
}

bool rsaToCryptoApi() {
    DWORD value = 0, size = sizeof value;
    return RegGetValueA(HKEY_LOCAL_MACHINE, "Software\\Kestrelon\\Orvane", "propagateRsaToCsp", RRF_RT_REG_DWORD,
                        nullptr, &value, &size) == ERROR_SUCCESS &&
           value == 1;
}

Binding bindingFor(const TokenCertificate& certificate, bool rsaToCsp) {
    Binding binding;
    binding.provider = orvane::kProviderNameWide.text;
    binding.container.assign(certificate.keyName.begin(), certificate.keyName.end());
    binding.keySpec = certificate.keySpec;
    // The CryptoAPI provider reaches a key only under the AT_ value it gives it.
    if (rsaToCsp && certificate.rsa && certificate.keySpec != 0) binding.provType = PROV_RSA_FULL;
    return binding;
}

}  // namespace certprop

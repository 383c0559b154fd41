#include "softtoken/Objects.h"

#include <mutex>

#include "softtoken/Asn1.h"
#include "softtoken/Crypto.h"
#include "softtoken/Status.h"

namespace softtoken {
namespace {

size_t secretKeyLength(int keyType) {
    switch (keyType) {
    case 8: return 16;   // AES-128
    case 10: return 32;  // AES-256
    case 11: return 24;  // triple DES
    default: return 0;
    }
}

int checkAccess(const TokenRecord& token, const Access& access) {
    return access.administrative ? static_cast<int>(kOk) : authorise(token, access.pin);
}

int updateToken(const char* serial, const Access& access, const std::function<int(TokenRecord&)>& change) {
    if (serial == nullptr) return kBadArguments;
    return updateStore([&](StoreState& state) {
        TokenRecord* token = state.find(serial);
        if (token == nullptr || (!token->plugged && !access.administrative)) return static_cast<int>(kTokenNotPresent);
        if (int denied = checkAccess(*token, access)) return denied;
        return change(*token);
    });
}

}  // namespace

namespace {

std::mutex lastPinMutex;
std::string lastPin;

}  // namespace

std::string lastPinReceived() {
    std::lock_guard<std::mutex> guard(lastPinMutex);
    return lastPin;
}

int authorise(const TokenRecord& token, const PinCheck& pin) {
    {
        std::lock_guard<std::mutex> guard(lastPinMutex);
        lastPin = pin.text() ? pin.text() : "";
    }
    if (token.signedOn()) return kOk;
    if (token.retriesLeft <= 0) return kPinLocked;
    if (!pin.matches(token.pin)) return kPinIncorrect;
    return kOk;
}

int addKeyPair(const char* serial, const Access& access, KeyPairRecord& key) {
    if (serial == nullptr) return kBadArguments;
    {
        // Refuse early: key generation can take seconds.
        Snapshot state = readStore();
        const TokenRecord* token = state->find(serial);
        if (token == nullptr || (!token->plugged && !access.administrative)) return kTokenNotPresent;
        if (int denied = checkAccess(*token, access)) return denied;
    }
    if (key.type == 0) key.type = 2;
    if (int failed = crypto::generateKeyPair(key.type, key.publicKey, key.privateKey)) return failed;
    key.keyId = crypto::randomBytes(16);
    key.certLinkId = key.keyId;
    return updateToken(serial, access, [&](TokenRecord& token) {
        key.index = token.nextIndex++;
        if (key.label.empty()) key.label = "Key " + std::to_string(key.index);
        token.keyPairs.push_back(key);
        return static_cast<int>(kOk);
    });
}

int addCertificate(const char* serial, const Access& access, CertificateRecord& record, Bytes* linkedKeyId) {
    CertificateFields fields;
    Bytes publicKey;
    if (!parseCertificate(record.der, fields) || !tokenPublicKeyForm(fields.subjectPublicKeyInfo, publicKey))
        return kBadArguments;
    return updateToken(serial, access, [&](TokenRecord& token) {
        for (const KeyPairRecord& key : token.keyPairs)
            if (key.publicKey == publicKey) {
                if (record.certLinkId.empty()) record.certLinkId = key.certLinkId;
                if (record.label.empty()) record.label = key.label;
                if (linkedKeyId) *linkedKeyId = key.keyId;
            }
        record.index = token.nextIndex++;
        if (record.label.empty()) record.label = fields.subject;
        token.certificates.push_back(record);
        return static_cast<int>(kOk);
    });
}

int addSecretKey(const char* serial, const Access& access, SecretKeyRecord& secret, const orvane::SecretBuffer& value) {
    size_t expected = secretKeyLength(secret.type);
    if (expected == 0 || value.size() != expected) return kBadArguments;
    if (!protectSecret(value.data(), value.size(), secret.value)) return kCryptoFailure;
    secret.keyId = crypto::randomBytes(16);
    secret.reference = secret.keyId;
    return updateToken(serial, access, [&](TokenRecord& token) {
        secret.index = token.nextIndex++;
        if (secret.label.empty()) secret.label = "Secret key " + std::to_string(secret.index);
        token.secretKeys.push_back(secret);
        return static_cast<int>(kOk);
    });
}

}  // namespace softtoken

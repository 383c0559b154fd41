#include "softtoken/Secrets.h"

#include <windows.h>
#include <wincrypt.h>

#include <cstring>

#include "softtoken/Crypto.h"
#include "softtoken/StoreFormat.h"

namespace softtoken {
namespace {

const size_t kSaltBytes = 16;
const size_t kHashBytes = 32;

// Our own entropy: another program of the same user that calls CryptUnprotectData on a blob
// without it gets nothing.
const char kEntropy[] = "Orvane software token key";
const wchar_t kDescription[] = L"Orvane software token key";

DATA_BLOB entropy() {
    return DATA_BLOB{sizeof kEntropy - 1, reinterpret_cast<BYTE*>(const_cast<char*>(kEntropy))};
}

bool sameInConstantTime(const unsigned char* a, const unsigned char* b, size_t length) {
    unsigned char difference = 0;
    for (size_t i = 0; i < length; ++i) difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
}

bool protectLegacySecrets(StoreState& state, std::string& reason) {
    for (TokenRecord& token : state.tokens) {
        token.pin = hashPin(token.legacyPin.c_str(), token.legacyPin.size());
        token.legacyPin.clear();
        for (KeyPairRecord& key : token.keyPairs) {
            if (!protectSecret(key.legacyPrivateKey.data(), key.legacyPrivateKey.size(), key.privateKey)) {
                reason = "a private key could not be protected";
                return false;
            }
            key.legacyPrivateKey = orvane::SecretBuffer();
        }
        for (SecretKeyRecord& secret : token.secretKeys) {
            if (!protectSecret(secret.legacyValue.data(), secret.legacyValue.size(), secret.value)) {
                reason = "a secret key could not be protected";
                return false;
            }
            secret.legacyValue = orvane::SecretBuffer();
        }
    }
    return true;
}

}  // namespace

const int kPinIterations = 10000;

PinHash hashPin(const char* pin, size_t length) {
    PinHash hash;
    hash.salt = crypto::randomBytes(kSaltBytes);
    hash.iterations = kPinIterations;
    hash.hash.resize(kHashBytes);
    if (!crypto::derivePinHash(pin, length, hash.salt, hash.iterations, hash.hash.data(), hash.hash.size()))
        hash = PinHash();  // matches no PIN
    return hash;
}

bool PinCheck::matches(const PinHash& stored) const {
    // A record's lengths are fixed: a file that says otherwise cannot make a check run long.
    if (pin_ == nullptr || stored.iterations < 1 || stored.salt.empty() || stored.hash.size() != kHashBytes)
        return false;
    if (derived_.size() != kHashBytes || iterations_ != stored.iterations || salt_ != stored.salt) {
        orvane::SecretBuffer fresh(kHashBytes);
        if (!crypto::derivePinHash(pin_, std::strlen(pin_), stored.salt, stored.iterations, fresh.data(), fresh.size()))
            return false;
        derived_.swap(fresh);
        salt_ = stored.salt;
        iterations_ = stored.iterations;
    }
    return sameInConstantTime(derived_.data(), stored.hash.data(), kHashBytes);
}

bool protectSecret(const unsigned char* data, size_t length, Bytes& sealed) {
    DATA_BLOB in{static_cast<DWORD>(length), const_cast<BYTE*>(data)}, extra = entropy(), out{};
    if (!CryptProtectData(&in, kDescription, &extra, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN, &out)) return false;
    sealed.assign(out.pbData, out.pbData + out.cbData);
    LocalFree(out.pbData);
    return true;
}

bool unprotectSecret(const Bytes& sealed, orvane::SecretBuffer& clear) {
    DATA_BLOB in{static_cast<DWORD>(sealed.size()), const_cast<BYTE*>(sealed.data())}, extra = entropy(), out{};
    if (sealed.empty() ||
        !CryptUnprotectData(&in, nullptr, &extra, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN, &out))
        return false;
    clear.assign(out.pbData, out.pbData + out.cbData);
    orvane::wipeSecret(out.pbData, out.cbData);
    LocalFree(out.pbData);
    return true;
}

bool readStateText(const std::string& text, StoreState& state, std::string& reason) {
    StoreState parsed;
    if (!parseStoreText(text, parsed, reason)) return false;
    if (parsed.legacy && !protectLegacySecrets(parsed, reason)) return false;
    state = std::move(parsed);
    return true;
}

}  // namespace softtoken

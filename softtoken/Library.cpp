// The 23 operations of OrvaneDSCLibrary over the software token's store.
//
// Every operation records its arguments (see softtoken::lastArguments), then asks whether a
// fault is armed for it (see softtoken::consumeFault), so that tests can see what the provider
// asked for and make any call fail with a chosen code. Nothing thrown leaves an operation.
#include <cstring>

#include "softtoken/Asn1.h"
#include "softtoken/Calls.h"
#include "softtoken/Crypto.h"
#include "softtoken/HashHandles.h"
#include "softtoken/Objects.h"
#include "softtoken/Secrets.h"
#include "softtoken/Status.h"
#include "softtoken/Store.h"
#include "softtoken/ThreadLists.h"
#include "token/OrvaneDSCLibrary.h"

using namespace softtoken;

namespace {

bool sameBytes(const Bytes& bytes, const unsigned char* data, size_t length) {
    return data != nullptr && bytes.size() == length && std::memcmp(bytes.data(), data, length) == 0;
}

const KeyPairRecord* findKeyPair(const TokenRecord& token, const unsigned char* keyId) {
    for (const KeyPairRecord& key : token.keyPairs)
        if (sameBytes(key.keyId, keyId, 16)) return &key;
    return nullptr;
}

// Reads the store and finds a connected token, after the fault check for the operation.
int openToken(const char* operation, const char* serial, Snapshot& state, const TokenRecord*& token) {
    if (int fault = consumeFault(operation, &state)) return fault;
    if (serial == nullptr) return kBadArguments;
    token = state->connected(serial);
    return token != nullptr ? kOk : kTokenNotPresent;
}

long long valueAt(const int* pointer) { return pointer ? *pointer : -1; }

// Copies a result into a caller buffer whose capacity is *length; reports the size needed.
int copyOut(const Bytes& result, unsigned char* buffer, int* length) {
    if (length == nullptr) return kBadArguments;
    int capacity = *length;
    *length = static_cast<int>(result.size());
    if (buffer == nullptr) return kOk;
    if (capacity < static_cast<int>(result.size())) return kBufferTooSmall;
    if (!result.empty()) std::memcpy(buffer, result.data(), result.size());
    return kOk;
}

template <typename Buffer>
unsigned char* allocateCopy(const Buffer& bytes) {
    unsigned char* copy = new unsigned char[bytes.empty() ? 1 : bytes.size()];
    if (!bytes.empty()) std::memcpy(copy, bytes.data(), bytes.size());
    return copy;
}

void copyText(char* field, size_t size, const std::string& text) {
    std::memset(field, 0, size);
    std::memcpy(field, text.data(), text.size() < size - 1 ? text.size() : size - 1);
}

void copyBytes(uint8_t* field, size_t size, const Bytes& bytes, int32_t* length) {
    size_t count = bytes.size() < size ? bytes.size() : size;
    std::memset(field, 0, size);
    if (count) std::memcpy(field, bytes.data(), count);
    if (length) *length = static_cast<int32_t>(count);
}

void fillKeyPair(const KeyPairRecord& key, OrvaneKeyPair& out) {
    std::memset(&out, 0, sizeof out);
    out.keyIndex = key.index;
    std::memcpy(out.keyId, key.keyId.data(), key.keyId.size() < 16 ? key.keyId.size() : 16);
    copyBytes(out.publicKey, sizeof out.publicKey, key.publicKey, &out.publicKeyLength);
    copyBytes(out.certLinkId, sizeof out.certLinkId, key.certLinkId, &out.certLinkIdLength);
    copyText(out.label, sizeof out.label, key.label);
    out.keyUsage = key.usage;
    out.keyType = key.type;
    out.tokenFlag = key.flag;
}

void fillCertificate(const CertificateRecord& certificate, OrvaneCertificate& out) {
    std::memset(&out, 0, sizeof out);
    out.certIndex = certificate.index;
    copyBytes(out.certData, sizeof out.certData, certificate.der, &out.certLength);
    copyBytes(out.certLinkId, sizeof out.certLinkId, certificate.certLinkId, &out.certLinkIdLength);
    copyText(out.label, sizeof out.label, certificate.label);
}

void fillSecretKey(const SecretKeyRecord& secret, OrvaneSymmetricKey& out) {
    std::memset(&out, 0, sizeof out);
    out.keyIndex = secret.index;
    std::memcpy(out.keyId, secret.keyId.data(), secret.keyId.size() < 16 ? secret.keyId.size() : 16);
    copyBytes(out.keyData, sizeof out.keyData, secret.reference, &out.keyDataLength);
    copyText(out.label, sizeof out.label, secret.label);
    out.keyType = secret.type;
    out.keyFlag = secret.flag;
}

// Fills one of the library-owned lists (one per thread) from a connected token; a missing
// token or an injected fault gives an empty list.
template <typename Record, typename Stored>
std::vector<Record>& readList(const char* operation, const char* serial, std::vector<Stored> TokenRecord::*objects,
                              void (*fill)(const Stored&, Record&), std::vector<Record> ThreadLists::*kind) noexcept {
    ThreadLists* lists = threadLists();
    if (lists == nullptr) {
        static std::vector<Record> none;  // handed out empty, never filled
        return none;
    }
    std::vector<Record>& list = lists->*kind;
    list.clear();
    try {
        Snapshot state;
        const TokenRecord* token = nullptr;
        if (openToken(operation, serial, state, token) != kOk) return list;
        const std::vector<Stored>& stored = token->*objects;
        list.resize(stored.size());
        for (size_t i = 0; i < list.size(); ++i) fill(stored[i], list[i]);
    } catch (...) {
        noteEscaped(operation);
        list.clear();
    }
    return list;
}

}  // namespace

ORVANE_DSC_API int orvane_init(int mode, void*, int option) {
    return shielded("orvane_init", static_cast<int>(kFailure), [&] {
        recordArguments("orvane_init", {{"mode", mode}, {"option", option}});
        return consumeFault("orvane_init");
    });
}

ORVANE_DSC_API std::vector<std::string> orvane_getConnectedDeviceList(bool flag, void*) {
    return shielded("orvane_getConnectedDeviceList", std::vector<std::string>(), [&] {
        recordArguments("orvane_getConnectedDeviceList", {{"flag", flag}});
        std::vector<std::string> serials;
        Snapshot state;
        if (consumeFault("orvane_getConnectedDeviceList", &state)) return serials;
        for (const TokenRecord& token : state->tokens)
            if (token.plugged) serials.push_back(token.serial);
        return serials;
    });
}

ORVANE_DSC_API int orvane_initDevice(const char* serialNumber, bool flag, void*) {
    return shielded("orvane_initDevice", static_cast<int>(kFailure), [&] {
        recordArguments("orvane_initDevice", {{"flag", flag}});
        Snapshot state;
        const TokenRecord* token = nullptr;
        return openToken("orvane_initDevice", serialNumber, state, token);
    });
}

ORVANE_DSC_API TokenInfo orvane_getTokenInfo(const char* serialNumber, void*) {
    return shielded("orvane_getTokenInfo", TokenInfo(), [&] {
        TokenInfo info;
        Snapshot state;
        const TokenRecord* token = nullptr;
        if (openToken("orvane_getTokenInfo", serialNumber, state, token) != kOk) return info;
        info.label = token->label;
        info.manufacturer = "Orvane";
        info.model = "Software token";
        info.serialNumber = token->serial;
        info.firmwareVersion = "1.0";
        info.hardwareVersion = "1.0";
        info.maxPinLength = 63;
        info.minPinLength = 4;
        info.pinRetriesLeft = token->retriesLeft;
        info.loginState = token->loginState;
        info.ssoState = token->ssoState;
        return info;
    });
}

ORVANE_DSC_API int orvane_validatePassword(const char* serialNumber, const char* pin, int userType,
                                           int* remainingAttempts, void*) {
    return shielded("orvane_validatePassword", static_cast<int>(kFailure), [&] {
        recordArguments("orvane_validatePassword", {{"userType", userType}});
        if (serialNumber == nullptr || pin == nullptr || remainingAttempts == nullptr || userType != 1)
            return static_cast<int>(kBadArguments);
        Snapshot before;
        if (int fault = consumeFault("orvane_validatePassword", &before)) {
            Snapshot state = readStore();
            const TokenRecord* token = state->find(serialNumber);
            *remainingAttempts = token ? token->retriesLeft : 0;
            return fault;
        }
        // The slow hash is made before the writers' lock; under it the check only compares,
        // unless the PIN changed in between.
        PinCheck check(pin);
        if (const TokenRecord* token = before->find(serialNumber)) check.matches(token->pin);
        int outcome = kTokenNotPresent;
        int stored = updateStore([&](StoreState& state) {
            TokenRecord* token = state.find(serialNumber);
            if (token == nullptr || !token->plugged) return static_cast<int>(kTokenNotPresent);
            if (token->retriesLeft <= 0) {
                outcome = kPinLocked;
            } else if (check.matches(token->pin)) {
                token->retriesLeft = token->maxRetries;
                if (token->pin.iterations < kPinIterations) token->pin = hashPin(pin, std::strlen(pin));
                outcome = kOk;
            } else {
                --token->retriesLeft;
                outcome = kPinIncorrect;
            }
            *remainingAttempts = token->retriesLeft;
            return static_cast<int>(kOk);  // the counter is written back whatever the outcome
        });
        return stored != kOk ? stored : outcome;
    });
}

ORVANE_DSC_API std::vector<OrvaneKeyPair>& orvane_getKeyPairList(const char* serialNumber, void*) {
    return readList("orvane_getKeyPairList", serialNumber, &TokenRecord::keyPairs, fillKeyPair, &ThreadLists::keyPairs);
}

ORVANE_DSC_API std::vector<OrvaneCertificate>& orvane_getCertificateList(const char* serialNumber, void*) {
    return readList("orvane_getCertificateList", serialNumber, &TokenRecord::certificates, fillCertificate, &ThreadLists::certificates);
}

ORVANE_DSC_API std::vector<OrvaneSymmetricKey>& orvane_getAesKeyList(const char* serialNumber, void*) {
    return readList("orvane_getAesKeyList", serialNumber, &TokenRecord::secretKeys, fillSecretKey, &ThreadLists::secretKeys);
}

ORVANE_DSC_API int orvane_getCertificateDetails(const unsigned char* certData, int certLength,
                                                CertificateDetails& details, void*) {
    return shielded("orvane_getCertificateDetails", static_cast<int>(kFailure), [&] {
        if (int fault = consumeFault("orvane_getCertificateDetails")) return fault;
        if (certData == nullptr || certLength <= 0) return static_cast<int>(kBadArguments);
        CertificateFields fields;
        Bytes publicKey;
        if (!parseCertificate(Bytes(certData, certData + certLength), fields) ||
            !tokenPublicKeyForm(fields.subjectPublicKeyInfo, publicKey))
            return static_cast<int>(kBadArguments);
        details.subject = fields.subject;
        details.issuer = fields.issuer;
        details.serialNumber = fields.serialNumber;
        details.notBefore = fields.notBefore;
        details.notAfter = fields.notAfter;
        details.publicKey = publicKey;
        return static_cast<int>(kOk);
    });
}

ORVANE_DSC_API int orvane_generateKeyPair(const char* serialNumber, const char* pin, OrvaneKeyPair* keyPair, void*) {
    return shielded("orvane_generateKeyPair", static_cast<int>(kFailure), [&] {
        recordArguments("orvane_generateKeyPair", keyPair ? Arguments{{"keyUsage", keyPair->keyUsage},
                                                                      {"keyType", keyPair->keyType}}
                                                          : Arguments{});
        if (int fault = consumeFault("orvane_generateKeyPair")) return fault;
        if (serialNumber == nullptr || keyPair == nullptr) return static_cast<int>(kBadArguments);
        KeyPairRecord key;
        key.type = keyPair->keyType;
        key.usage = keyPair->keyUsage;
        key.flag = keyPair->tokenFlag;
        key.label.assign(keyPair->label, strnlen(keyPair->label, sizeof keyPair->label));
        int result = addKeyPair(serialNumber, Access{false, PinCheck(pin)}, key);
        if (result == kOk) fillKeyPair(key, *keyPair);
        return result;
    });
}

ORVANE_DSC_API int orvane_deleteKeyPair(const char* serialNumber, const unsigned char* keyId, const char* pin,
                                        bool flag, void*) {
    return shielded("orvane_deleteKeyPair", static_cast<int>(kFailure), [&] {
        recordArguments("orvane_deleteKeyPair", {{"flag", flag}});
        if (int fault = consumeFault("orvane_deleteKeyPair")) return fault;
        if (serialNumber == nullptr || keyId == nullptr) return static_cast<int>(kBadArguments);
        return updateStore([&](StoreState& state) {
            TokenRecord* token = state.find(serialNumber);
            if (token == nullptr || !token->plugged) return static_cast<int>(kTokenNotPresent);
            if (int denied = authorise(*token, PinCheck(pin))) return denied;
            for (auto key = token->keyPairs.begin(); key != token->keyPairs.end(); ++key)
                if (sameBytes(key->keyId, keyId, 16)) {
                    token->keyPairs.erase(key);
                    return static_cast<int>(kOk);
                }
            return static_cast<int>(kObjectNotFound);
        });
    });
}

ORVANE_DSC_API int orvane_importCertificate(const char* serialNumber, const char* pin, OrvaneCertificate* certificate,
                                            void*) {
    return shielded("orvane_importCertificate", static_cast<int>(kFailure), [&] {
        if (int fault = consumeFault("orvane_importCertificate")) return fault;
        if (certificate == nullptr || certificate->certLength <= 0 ||
            certificate->certLength > static_cast<int>(sizeof certificate->certData))
            return static_cast<int>(kBadArguments);
        CertificateRecord record;
        record.der.assign(certificate->certData, certificate->certData + certificate->certLength);
        int linkLength = certificate->certLinkIdLength;
        if (linkLength > 0 && linkLength <= static_cast<int>(sizeof certificate->certLinkId))
            record.certLinkId.assign(certificate->certLinkId, certificate->certLinkId + linkLength);
        record.label.assign(certificate->label, strnlen(certificate->label, sizeof certificate->label));
        int result = addCertificate(serialNumber, Access{false, PinCheck(pin)}, record);
        if (result == kOk) fillCertificate(record, *certificate);
        return result;
    });
}

ORVANE_DSC_API int orvane_importAesKey(const char* serialNumber, const char* pin, OrvaneSymmetricKey* key, void*) {
    return shielded("orvane_importAesKey", static_cast<int>(kFailure), [&] {
        if (int fault = consumeFault("orvane_importAesKey")) return fault;
        if (key == nullptr || key->keyDataLength <= 0 || key->keyDataLength > static_cast<int>(sizeof key->keyData))
            return static_cast<int>(kBadArguments);
        SecretKeyRecord secret;
        secret.type = key->keyType;
        secret.flag = key->keyFlag;
        secret.label.assign(key->label, strnlen(key->label, sizeof key->label));
        int result = addSecretKey(serialNumber, Access{false, PinCheck(pin)}, secret,
                                  orvane::SecretBuffer(key->keyData, key->keyData + key->keyDataLength));
        if (result == kOk) fillSecretKey(secret, *key);
        return result;
    });
}

ORVANE_DSC_API int orvane_signHash(const char* serialNumber, const unsigned char* keyId, const char* pin,
                                   const unsigned char* hash, int hashLength, unsigned char* signature,
                                   int* signatureLength, bool flag, void*) {
    return shielded("orvane_signHash", static_cast<int>(kFailure), [&] {
        recordArguments("orvane_signHash", {{"flag", flag},
                                            {"hashLength", hashLength},
                                            {"signatureCapacity", valueAt(signatureLength)}});
        Snapshot state;
        const TokenRecord* token = nullptr;
        if (int failed = openToken("orvane_signHash", serialNumber, state, token)) return failed;
        if (keyId == nullptr || hash == nullptr || hashLength <= 0 || signatureLength == nullptr)
            return static_cast<int>(kBadArguments);
        if (int denied = authorise(*token, PinCheck(pin))) return denied;
        const KeyPairRecord* key = findKeyPair(*token, keyId);
        if (key == nullptr) return static_cast<int>(kObjectNotFound);
        Bytes result;
        if (int failed = crypto::signDigest(key->type, key->privateKey, Bytes(hash, hash + hashLength), result))
            return failed;
        return copyOut(result, signature, signatureLength);
    });
}

ORVANE_DSC_API int orvane_decrypt(const char* serialNumber, const unsigned char* keyId, const char* pin,
                                  const unsigned char* cipher, int cipherLength, unsigned char** plain,
                                  int* plainLength, bool flag, void*) {
    return shielded("orvane_decrypt", static_cast<int>(kFailure), [&] {
        recordArguments("orvane_decrypt", {{"flag", flag}, {"cipherLength", cipherLength}});
        Snapshot state;
        const TokenRecord* token = nullptr;
        if (int failed = openToken("orvane_decrypt", serialNumber, state, token)) return failed;
        if (keyId == nullptr || cipher == nullptr || cipherLength <= 0 || plain == nullptr || plainLength == nullptr)
            return static_cast<int>(kBadArguments);
        if (int denied = authorise(*token, PinCheck(pin))) return denied;
        const KeyPairRecord* key = findKeyPair(*token, keyId);
        if (key == nullptr) return static_cast<int>(kObjectNotFound);
        if (key->type < ORVANE_KEY_RSA_1024 || key->type > ORVANE_KEY_RSA_4096) return static_cast<int>(kUnsupported);
        Bytes result;
        if (int failed = crypto::decrypt(key->privateKey, Bytes(cipher, cipher + cipherLength), result)) return failed;
        *plain = allocateCopy(result);
        *plainLength = static_cast<int>(result.size());
        return static_cast<int>(kOk);
    });
}

ORVANE_DSC_API int orvane_decryptSymetric(const char*, const unsigned char* cipher, int cipherLength,
                                          unsigned char* plain, int* plainLength, const unsigned char* iv,
                                          int ivLength, const unsigned char* key, int keyLength, void*) {
    return shielded("orvane_decryptSymetric", static_cast<int>(kFailure), [&] {
        recordArguments("orvane_decryptSymetric",
                        {{"ivLength", ivLength}, {"keyLength", keyLength}, {"cipherLength", cipherLength}});
        if (int fault = consumeFault("orvane_decryptSymetric")) return fault;
        if (cipher == nullptr || cipherLength <= 0 || key == nullptr || keyLength <= 0 || ivLength < 0 ||
            (ivLength > 0 && iv == nullptr))
            return static_cast<int>(kBadArguments);
        Bytes result;
        if (int failed = crypto::decryptSymmetric(Bytes(key, key + keyLength), Bytes(iv, iv + ivLength),
                                                  Bytes(cipher, cipher + cipherLength), result))
            return failed;
        return copyOut(result, plain, plainLength);
    });
}

ORVANE_DSC_API int orvane_decrypt_aes(const char* serialNumber, const unsigned char* kekData, int kekDataLength,
                                      const unsigned char* wrapped, int wrappedLength, unsigned char** unwrapped,
                                      int* unwrappedLength, bool kekFlag, const unsigned char*, int ivLength, void*) {
    return shielded("orvane_decrypt_aes", static_cast<int>(kFailure), [&] {
        recordArguments("orvane_decrypt_aes",
                        {{"kekFlag", kekFlag}, {"ivLength", ivLength}, {"wrappedLength", wrappedLength}});
        Snapshot state;
        const TokenRecord* token = nullptr;
        if (int failed = openToken("orvane_decrypt_aes", serialNumber, state, token)) return failed;
        if (kekData == nullptr || kekDataLength <= 0 || wrapped == nullptr || wrappedLength <= 0 ||
            unwrapped == nullptr || unwrappedLength == nullptr)
            return static_cast<int>(kBadArguments);
        const SecretKeyRecord* kek = nullptr;
        for (const SecretKeyRecord& secret : token->secretKeys)
            if (sameBytes(secret.reference, kekData, static_cast<size_t>(kekDataLength))) kek = &secret;
        if (kek == nullptr) return static_cast<int>(kObjectNotFound);
        if (kek->type != ORVANE_KEY_AES_128 && kek->type != ORVANE_KEY_AES_256) return static_cast<int>(kUnsupported);
        orvane::SecretBuffer kekValue, result;
        if (!unprotectSecret(kek->value, kekValue)) return static_cast<int>(kCryptoFailure);
        if (int failed = crypto::unwrapKey(kekValue, Bytes(wrapped, wrapped + wrappedLength), result)) return failed;
        *unwrapped = allocateCopy(result);
        *unwrappedLength = static_cast<int>(result.size());
        return static_cast<int>(kOk);
    });
}

ORVANE_DSC_API int orvane_encrypt(EncryptionType type, PaddingMode padding, const unsigned char* plain,
                                  int plainLength, unsigned char* cipher, int* cipherLength,
                                  const unsigned char* publicKey, int publicKeyLength, void*) {
    return shielded("orvane_encrypt", static_cast<int>(kFailure), [&] {
        recordArguments("orvane_encrypt", {{"type", type},
                                           {"padding", padding},
                                           {"plainLength", plainLength},
                                           {"publicKeyLength", publicKeyLength}});
        if (int fault = consumeFault("orvane_encrypt")) return fault;
        if (plain == nullptr || plainLength < 0 || publicKey == nullptr || publicKeyLength <= 0 ||
            (padding != PADDING_PKCS1 && padding != PADDING_OAEP))
            return static_cast<int>(kBadArguments);
        if (cipher == nullptr || cipherLength == nullptr) return static_cast<int>(kBadArguments);
        Bytes result;
        if (int failed = crypto::encrypt(Bytes(publicKey, publicKey + publicKeyLength), padding == PADDING_OAEP,
                                         Bytes(plain, plain + plainLength), result))
            return failed;
        // *cipherLength is output only: the caller provides a buffer of the modulus size.
        std::memcpy(cipher, result.data(), result.size());
        *cipherLength = static_cast<int>(result.size());
        return static_cast<int>(kOk);
    });
}

ORVANE_DSC_API int orvane_verifySignatureHash(unsigned int mechanism, const char*, const unsigned char* hash,
                                              int hashLength, const unsigned char* publicKey, int publicKeyLength,
                                              const unsigned char* signature, int signatureLength, void*) {
    return shielded("orvane_verifySignatureHash", static_cast<int>(kFailure), [&] {
        recordArguments("orvane_verifySignatureHash", {{"mechanism", mechanism},
                                                       {"hashLength", hashLength},
                                                       {"signatureLength", signatureLength},
                                                       {"publicKeyLength", publicKeyLength}});
        if (int fault = consumeFault("orvane_verifySignatureHash")) return fault;
        if (hash == nullptr || hashLength <= 0 || publicKey == nullptr || publicKeyLength <= 0 ||
            signature == nullptr || signatureLength <= 0)
            return static_cast<int>(kBadArguments);
        return crypto::verifyDigest(Bytes(publicKey, publicKey + publicKeyLength), Bytes(hash, hash + hashLength),
                                    Bytes(signature, signature + signatureLength));
    });
}

ORVANE_DSC_API int orvane_initHash(const char* serialNumber, int mechanism, void** hashHandle, void*) {
    return shielded("orvane_initHash", static_cast<int>(kFailure), [&] {
        recordArguments("orvane_initHash", {{"mechanism", mechanism}});
        Snapshot state;
        const TokenRecord* token = nullptr;
        if (int failed = openToken("orvane_initHash", serialNumber, state, token)) return failed;
        if (hashHandle == nullptr) return static_cast<int>(kBadArguments);
        void* hash = newHashHandle(mechanism);
        if (hash == nullptr) return static_cast<int>(kUnsupported);
        *hashHandle = hash;
        return static_cast<int>(kOk);
    });
}

ORVANE_DSC_API int orvane_updateHash(void* hashHandle, const unsigned char* data, int dataLength, void*) {
    return shielded("orvane_updateHash", static_cast<int>(kFailure), [&] {
        if (int fault = consumeFault("orvane_updateHash")) return fault;
        if (dataLength < 0 || (dataLength > 0 && data == nullptr)) return static_cast<int>(kBadArguments);
        if (!appendToHash(hashHandle, data, static_cast<size_t>(dataLength))) return static_cast<int>(kBadArguments);
        return static_cast<int>(kOk);
    });
}

ORVANE_DSC_API int orvane_finalHash(void* hashHandle, unsigned char* digest, int* digestLength, void*) {
    return shielded("orvane_finalHash", static_cast<int>(kFailure), [&] {
        recordArguments("orvane_finalHash", {{"digestCapacity", valueAt(digestLength)}});
        if (int fault = consumeFault("orvane_finalHash")) return fault;
        if (digest == nullptr || digestLength == nullptr) return static_cast<int>(kBadArguments);
        int needed = static_cast<int>(hashHandleLength(hashHandle));
        if (needed == 0) return static_cast<int>(kBadArguments);
        if (*digestLength < needed) {
            *digestLength = needed;
            return static_cast<int>(kBufferTooSmall);
        }
        Bytes result;
        if (!digestOfHash(hashHandle, result)) return static_cast<int>(kBadArguments);
        return copyOut(result, digest, digestLength);
    });
}

ORVANE_DSC_API int orvane_generateRamdomNumber(const char* serialNumber, int length, unsigned char* buffer, bool flag,
                                               void*) {
    return shielded("orvane_generateRamdomNumber", static_cast<int>(kFailure), [&] {
        recordArguments("orvane_generateRamdomNumber", {{"flag", flag}, {"length", length}});
        Snapshot state;
        const TokenRecord* token = nullptr;
        if (int failed = openToken("orvane_generateRamdomNumber", serialNumber, state, token)) return failed;
        if (buffer == nullptr || length < 0) return static_cast<int>(kBadArguments);
        crypto::randomBytes(buffer, static_cast<size_t>(length));
        return static_cast<int>(kOk);
    });
}

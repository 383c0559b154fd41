#include "token/KeyPairFacts.h"

#include <algorithm>
#include <cstring>

#include "encoding/Hex.h"

namespace orvane {

std::string containerNameOf(const OrvaneKeyPair& keyPair) { return toHex(keyPair.keyId, sizeof keyPair.keyId); }

uint32_t keyTypeBits(int32_t keyType) {
    static const uint32_t bits[] = {0, 1024, 2048, 3072, 4096, 256, 384, 521};
    return keyType >= 1 && keyType <= 7 ? bits[keyType] : 0;
}

const wchar_t* cngAlgorithmName(int32_t keyType) {
    switch (keyType) {
    case ORVANE_KEY_EC_P256: return L"ECDSA_P256";
    case ORVANE_KEY_EC_P384: return L"ECDSA_P384";
    case ORVANE_KEY_EC_P521: return L"ECDSA_P521";
    default: return L"RSA";
    }
}

EncryptionType encryptionTypeForSize(uint32_t size) {
    switch (size) {
    case 1024: return ENCRYPTION_RSA_1024;
    case 3072: return ENCRYPTION_RSA_3072;
    case 4096: return ENCRYPTION_RSA_4096;
    default: return ENCRYPTION_RSA_2048;
    }
}

void takeSnapshot(KeyPairSnapshot& snapshot, const OrvaneKeyPair& keyPair) {
    std::memcpy(snapshot.keyId, keyPair.keyId, sizeof snapshot.keyId);
    snapshot.keyIdLength = 16;
    snapshot.usage = static_cast<uint32_t>(keyPair.keyUsage);
    snapshot.keyType = keyPair.keyType;
    snapshot.certLinkIdLength =
        static_cast<uint32_t>(std::clamp<int32_t>(keyPair.certLinkIdLength, 0, sizeof snapshot.certLinkId));
    std::memcpy(snapshot.certLinkId, keyPair.certLinkId, snapshot.certLinkIdLength);
    std::memcpy(snapshot.label, keyPair.label, sizeof keyPair.label);
    snapshot.label[sizeof snapshot.label - 1] = '\0';
    snapshot.bitLength = keyTypeBits(keyPair.keyType);
    snapshot.tokenFlag = keyPair.tokenFlag != 0;
    snapshot.publicKeyLength =
        static_cast<uint32_t>(std::clamp<int32_t>(keyPair.publicKeyLength, 0, sizeof snapshot.publicKey));
    std::memcpy(snapshot.publicKey, keyPair.publicKey, snapshot.publicKeyLength);
}

}  // namespace orvane

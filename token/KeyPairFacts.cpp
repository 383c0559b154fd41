#include "token/KeyPairFacts.h"

#include <algorithm>
#include <cstring>

#include "encoding/Hex.h"

namespace orvane {

// The table's codes are the library's.
static_assert(rsaKeyTypeForBits(1024) == ORVANE_KEY_RSA_1024 && rsaKeyTypeForBits(2048) == ORVANE_KEY_RSA_2048 &&
                  rsaKeyTypeForBits(3072) == ORVANE_KEY_RSA_3072 && rsaKeyTypeForBits(4096) == ORVANE_KEY_RSA_4096,
              "RSA key types");
static_assert(keyTypeRowFor(KeyFamily::kEc, 256)->code == ORVANE_KEY_EC_P256 &&
                  keyTypeRowFor(KeyFamily::kEc, 384)->code == ORVANE_KEY_EC_P384 &&
                  keyTypeRowFor(KeyFamily::kEc, 521)->code == ORVANE_KEY_EC_P521,
              "EC key types");
static_assert(symmetricKeyTypeForLength(16) == ORVANE_KEY_AES_128 && symmetricKeyTypeForLength(32) == ORVANE_KEY_AES_256 &&
                  symmetricKeyTypeForLength(24) == ORVANE_KEY_DES3,
              "symmetric key types");
static_assert(encryptionTypeCodeForSize(1024) == ENCRYPTION_RSA_1024 &&
                  encryptionTypeCodeForSize(2048) == ENCRYPTION_RSA_2048 &&
                  encryptionTypeCodeForSize(3072) == ENCRYPTION_RSA_3072 &&
                  encryptionTypeCodeForSize(4096) == ENCRYPTION_RSA_4096,
              "encryption types");

std::string keyIdName(const unsigned char* keyId) { return toHex(keyId, kKeyIdLength); }

void takeSnapshot(KeyPairSnapshot& snapshot, const OrvaneKeyPair& keyPair) {
    std::memcpy(snapshot.keyId, keyPair.keyId, sizeof snapshot.keyId);
    snapshot.keyIdLength = kKeyIdLength;
    snapshot.usage = static_cast<uint32_t>(keyPair.keyUsage);
    snapshot.keyType = keyPair.keyType;
    snapshot.certLinkIdLength =
        static_cast<uint32_t>(std::clamp<int32_t>(keyPair.certLinkIdLength, 0, sizeof snapshot.certLinkId));
    std::memcpy(snapshot.certLinkId, keyPair.certLinkId, snapshot.certLinkIdLength);
    std::memcpy(snapshot.label, keyPair.label, sizeof keyPair.label);
    snapshot.label[sizeof snapshot.label - 1] = '\0';
    snapshot.bitLength = keyPairBits(keyPair.keyType);
    snapshot.tokenFlag = keyPair.tokenFlag != 0;
    snapshot.publicKeyLength =
        static_cast<uint32_t>(std::clamp<int32_t>(keyPair.publicKeyLength, 0, sizeof snapshot.publicKey));
    std::memcpy(snapshot.publicKey, keyPair.publicKey, snapshot.publicKeyLength);
}

void takeSnapshot(KeyPairSnapshot& snapshot, const OrvaneSymmetricKey& stored) {
    std::memcpy(snapshot.keyId, stored.keyId, sizeof snapshot.keyId);
    snapshot.keyIdLength = kKeyIdLength;
    std::memcpy(snapshot.label, stored.label, sizeof stored.label);
    snapshot.label[sizeof snapshot.label - 1] = '\0';
    snapshot.tokenFlag = stored.keyFlag;
}

}  // namespace orvane

// What the provider knows about a token key pair, in one place for both faces: its name,
// what it may be used for, its size and algorithm, and the snapshot that a key handle keeps.
#pragma once

#include <cstdint>
#include <string>

#include "token/OrvaneDSCLibrary.h"

namespace orvane {

// The container / key name: upper-case hex of the 16-byte key id.
std::string containerNameOf(const OrvaneKeyPair& keyPair);

// Usage codes: 1 signature, 2 exchange, 3 both.
inline bool usageAllowsSigning(int64_t usage) { return usage == 1 || usage == 3; }
inline bool usageAllowsExchange(int64_t usage) { return usage == 2 || usage == 3; }

// 1024-4096 for RSA types 1-4, 256/384/521 for EC types 5-7, 0 for anything else.
uint32_t keyTypeBits(int32_t keyType);
inline bool isEcKeyType(int32_t keyType) { return keyType >= ORVANE_KEY_EC_P256 && keyType <= ORVANE_KEY_EC_P521; }
// "ECDSA_P256", "ECDSA_P384", "ECDSA_P521" for EC types; "RSA" for every other type.
const wchar_t* cngAlgorithmName(int32_t keyType);
// orvane_encrypt's first argument for a key size; 2048 for any size not in the table.
EncryptionType encryptionTypeForSize(uint32_t size);

// The key-pair fields that a key handle copies from the token's record. keyId comes first:
// the face records derive from this, and their address is handed to the library as a key id.
struct KeyPairSnapshot {
    uint8_t keyId[16];
    uint32_t keyIdLength;
    uint32_t usage;
    int32_t keyType;
    uint8_t certLinkId[128];
    uint32_t certLinkIdLength;
    char label[129];  // always NUL-terminated
    uint32_t bitLength;
    bool tokenFlag;
    uint8_t publicKey[1024];  // bare modulus from the token, or DER (an imported RSA-4096 key is 550 bytes)
    uint32_t publicKeyLength;
};

// Copies a token record into a snapshot, bounding every length by its field.
void takeSnapshot(KeyPairSnapshot& snapshot, const OrvaneKeyPair& keyPair);

inline std::string labelOf(const OrvaneKeyPair& keyPair) {
    size_t length = 0;
    while (length < sizeof keyPair.label && keyPair.label[length] != '\0') ++length;
    return std::string(keyPair.label, length);
}

}  // namespace orvane

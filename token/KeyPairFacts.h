// What the provider knows about a token key pair, in one place for both faces: its name,
// what it may be used for, its size and algorithm, and the snapshot that a key handle keeps.
#pragma once

#include <cstdint>
#include <string>

#include "encoding/KeyTypes.h"
#include "token/OrvaneDSCLibrary.h"

namespace orvane {

const size_t kKeyIdLength = 16;

// The hexadecimal name of a 16-byte key id: the container name, the CNG key name and the
// form in which key ids are logged.
std::string keyIdName(const unsigned char* keyId);
inline std::string containerNameOf(const OrvaneKeyPair& keyPair) { return keyIdName(keyPair.keyId); }

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
// The key id, label and token flag of an AES key the token has just stored; the rest stays.
void takeSnapshot(KeyPairSnapshot& snapshot, const OrvaneSymmetricKey& stored);

inline std::string labelOf(const OrvaneKeyPair& keyPair) {
    size_t length = 0;
    while (length < sizeof keyPair.label && keyPair.label[length] != '\0') ++length;
    return std::string(keyPair.label, length);
}

}  // namespace orvane

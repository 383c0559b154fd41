// The record behind an HCRYPTKEY: a snapshot of what the token reported about one key.
// The record's address is handed to the token library where a key id is expected, so
// keyId must stay the first field.
#pragma once

#include <windows.h>
#include <wincrypt.h>

#include <cstdint>

namespace orvane::csp {

struct CspKey {
    uint8_t keyId[16];
    uint32_t keyIdLength;
    uint32_t algId;
    uint32_t usage;  // 1 signature, 2 exchange, 3 both
    uint8_t certLinkId[128];
    uint32_t certLinkIdLength;
    char label[129];
    uint32_t bitLength;
    bool tokenFlag;
    uint8_t publicKey[515];  // bare modulus from the token, or DER from an imported blob
    uint32_t publicKeyLength;
    uint8_t symmetricKey[32];
    uint32_t symmetricKeyLength;  // 0 while the key material stays on the token
};

inline CspKey* keyFromHandle(HCRYPTKEY handle) { return reinterpret_cast<CspKey*>(handle); }

// Key size in bits of a token key type: RSA 1024-4096 (1-4), EC P-256/384/521 (5-7).
uint32_t keyTypeBits(int32_t keyType);

// Process-wide: once a context was asked for PP_CONTAINER or PP_UNIQUE_CONTAINER,
// CPGetUserKey takes any key pair, whichever AT_ value is requested.
extern bool anyKeySpec;

}  // namespace orvane::csp

// The record behind an HCRYPTKEY: a snapshot of what the token reported about one key.
// The record's address is handed to the token library where a key id is expected, so the
// snapshot, which begins with the key id, must stay the first field.
#pragma once

#include <windows.h>
#include <wincrypt.h>

#include <cstddef>
#include <cstdint>

#include "token/KeyPairFacts.h"

namespace orvane::csp {

struct CspKey {
    KeyPairSnapshot pair;
    uint32_t algId;
    uint8_t symmetricKey[32];
    uint32_t symmetricKeyLength;  // 0 while the key material stays on the token
};
static_assert(offsetof(CspKey, pair) == 0 && offsetof(KeyPairSnapshot, keyId) == 0,
              "a key record's address is its key id");

inline CspKey* keyFromHandle(HCRYPTKEY handle) { return reinterpret_cast<CspKey*>(handle); }

// Wiped first: no key material stays behind, and a stale handle finds no key id.
inline void releaseKey(CspKey* key) {
    SecureZeroMemory(key, sizeof *key);
    delete key;
}

// Process-wide: once a context was asked for PP_CONTAINER or PP_UNIQUE_CONTAINER,
// CPGetUserKey takes any key pair, whichever AT_ value is requested.
extern bool anyKeySpec;

}  // namespace orvane::csp

// The record behind an HCRYPTHASH. The digest is computed by the token library; this keeps
// the library's handle, the finished digest and the signing key that CPSignHash chose.
#pragma once

#include <windows.h>
#include <wincrypt.h>

#include <cstdint>

namespace orvane::csp {

struct HashContext {
    uint32_t mechanism;      // token hash mechanism; CPSignHash overwrites it with the key's type
    uint32_t hashAlgorithm;  // never assigned
    HMAC_INFO hmacInfo;
    void* libraryHash;
    bool valid;
    bool hmacInfoSet;
    bool finished;
    uint8_t hashValue[128];
    uint8_t keyId[16];
    uint32_t keyIdLength;
    uint32_t hashValueLength;
    uint32_t hashLength;
};

inline HashContext* hashFromHandle(HCRYPTHASH handle) { return reinterpret_cast<HashContext*>(handle); }

struct CspContext;

// orvane_finalHash into hashValue with the given capacity; sets hashValueLength (not
// `finished`). False when the library fails or answers a length that cannot be right.
bool finishLibraryHash(const CspContext& context, HashContext& hash, int capacity);

// The digest that CPVerifySignature checks, from the hash object itself: finished by the
// library when it has none yet, under CPGetHashParam's rules (only MD5, SHA-1 and SHA-256
// digests). 0, or the NTE_BAD_HASH to fail with after the failure log line.
DWORD finishDigestForVerification(const CspContext& context, HashContext& hash);

// Wiped first (valid becomes 0), so a stale handle that still finds the memory is refused.
inline void releaseHash(HashContext* hash) {
    SecureZeroMemory(hash, sizeof *hash);
    delete hash;
}

}  // namespace orvane::csp

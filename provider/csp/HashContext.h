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

}  // namespace orvane::csp

// The objects behind NCRYPT_PROV_HANDLE and NCRYPT_KEY_HANDLE, and the handle checks.
#pragma once

#include <windows.h>
#include <ncrypt.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "token/KeyPairFacts.h"

namespace orvane::ksp {

struct KspProvider {
    std::string serialNumber;        // the token the provider works on; KSPOpenKey may move it
    void* libraryContext = nullptr;  // handed to every token library call; never set
    bool isOpen = false;
    HWND parentWindow = nullptr;
    uint32_t reserved32 = 0;
    uint64_t reserved64 = 0;
};

// Written at creation and wiped before release, so a stale key handle is refused.
const uint32_t kLiveKeyMarker = 0x4B53504B;

struct KspKey {
    KeyPairSnapshot pair;  // keyId first: the key id the token library is handed
    std::wstring keyName;  // as the caller gave it
    bool onToken = false;  // opened, generated or imported
    uint8_t symmetricKey[32] = {};
    uint32_t symmetricKeyLength = 0;  // non-zero: a symmetric key for decryption
    uint32_t chainingMode = 0;        // non-zero: ECB; zero: CBC
    uint32_t liveMarker = kLiveKeyMarker;
};

// Null for a null handle or a provider that is not open.
inline KspProvider* providerFromHandle(NCRYPT_PROV_HANDLE handle) {
    KspProvider* provider = reinterpret_cast<KspProvider*>(handle);
    return provider != nullptr && provider->isOpen ? provider : nullptr;
}

// Null for a null or released key handle.
inline KspKey* keyFromHandle(NCRYPT_KEY_HANDLE handle) {
    KspKey* key = reinterpret_cast<KspKey*>(handle);
    return key != nullptr && key->liveMarker == kLiveKeyMarker ? key : nullptr;
}

inline void releaseProvider(KspProvider* provider) {
    provider->isOpen = false;
    delete provider;
}

inline void releaseKey(KspKey* key) {
    SecureZeroMemory(&key->pair, sizeof key->pair);
    SecureZeroMemory(key->symmetricKey, sizeof key->symmetricKey);
    key->liveMarker = 0;
    delete key;
}

}  // namespace orvane::ksp

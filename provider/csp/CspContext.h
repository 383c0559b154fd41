// The record behind an HCRYPTPROV: the token (by serial number) and, optionally, the
// container (key pair) that the handle works on.
#pragma once

#include <windows.h>
#include <wincrypt.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "token/Pin.h"

namespace orvane::csp {

struct CspContext {
    uint64_t reserved = 0;
    std::string serialNumber;
    void* libraryContext = nullptr;  // handed to every token library call; never set
    std::string containerName;       // as given to CPAcquireContext; empty when none
    bool isInitialized = false;
    uint64_t clientHwnd = 0;
    uint32_t keysetType = 0;
    uint32_t algEnumIndex = 0;
    uint64_t containerEnumIndex = 0;
    std::vector<std::string> containerNames;  // hex key ids of the token's key pairs at acquire time
};

// Process-wide: random numbers come from the token's hardware generator unless a caller
// switched it off through PP_USE_HARDWARE_RNG.
extern std::atomic<bool> useHardwareRng;

// The context behind a handle, or null for a null or not yet initialised one.
inline CspContext* contextFromHandle(HCRYPTPROV handle) {
    CspContext* context = reinterpret_cast<CspContext*>(handle);
    return context != nullptr && context->isInitialized ? context : nullptr;
}

// Marked invalid first, so a stale handle that still finds the memory is refused.
inline void releaseContext(CspContext* context) {
    context->isInitialized = false;
    delete context;
}

// The CryptoAPI PIN check of the context's token; a refusal leaves NTE_FAIL as last error.
inline bool ensurePinOrFail(const CspContext& context) {
    if (orvane::ensurePinValidated(context.serialNumber, context.libraryContext, orvane::kCspPinTexts)) return true;
    SetLastError(static_cast<DWORD>(NTE_FAIL));
    return false;
}

}  // namespace orvane::csp

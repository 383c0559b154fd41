// Hash objects: CPCreateHash, CPHashData, CPGetHashParam, CPSetHashParam, CPDuplicateHash,
// CPDestroyHash. The token library computes the digest.
#include <cstdio>
#include <cstring>
#include <new>

#include "diagnostics/Log.h"
#include "provider/csp/CspBuffers.h"
#include "provider/csp/CspContext.h"
#include "provider/csp/CspInterface.h"
#include "provider/csp/CspResult.h"
#include "provider/csp/HashContext.h"
#include "token/OrvaneDSCLibrary.h"
#include "token/TokenRequests.h"

using namespace orvane;
using namespace orvane::csp;

namespace {

const DWORD kInvalidParameter = ERROR_INVALID_PARAMETER;

struct HashAlgorithm {
    ALG_ID algId;
    uint32_t mechanism;
    uint32_t hashLength;
    const char* logLine;
};

const HashAlgorithm kHashAlgorithms[] = {
    {CALG_SHA1, ORVANE_MECH_SHA1, 20, "Crete hash algorithm sha1"},
    {CALG_SHA_256, ORVANE_MECH_SHA256, 32, "Crete hash algorithm 256"},
    {CALG_SHA_384, ORVANE_MECH_SHA384, 48, "Crete hash algorithm 384"},
    {CALG_SHA_512, ORVANE_MECH_SHA512, 64, "Crete hash algorithm 512"},
};

const HashAlgorithm* findHashAlgorithm(ALG_ID algId) {
    for (const HashAlgorithm& candidate : kHashAlgorithms)
        if (candidate.algId == algId) return &candidate;
    return nullptr;
}

// What CPGetHashParam can report for a mechanism: MD5, SHA-1 and SHA-256 only.
bool reportableHash(uint32_t mechanism, ALG_ID& algId, DWORD& digestSize) {
    switch (mechanism) {
    case 1: algId = CALG_MD5; digestSize = 16; return true;
    case ORVANE_MECH_SHA1: algId = CALG_SHA1; digestSize = 20; return true;
    case ORVANE_MECH_SHA256: algId = CALG_SHA_256; digestSize = 32; return true;
    default: return false;
    }
}

const SizeRule kHashParamRule = SizeRule::kNullAsksShortFails;

BOOL answerHashParam(const void* value, DWORD size, BYTE* pbData, DWORD* pdwDataLen) {
    if (std::optional<BOOL> sizeOnly = answerSizeOnly(kHashParamRule, pbData, *pdwDataLen, size, pdwDataLen))
        return *sizeOnly;
    std::memcpy(pbData, value, size);
    *pdwDataLen = size;
    Utils::logMessage("Get hash param success");
    return TRUE;
}

// The checks shared by CPGetHashParam and CPSetHashParam, in their order; 0 when the call may go on.
// An uninitialised context counts as a bad hash here.
DWORD checkHashParamCall(HCRYPTPROV hProv, HCRYPTHASH hHash, const void* data, DWORD dwFlags, CspContext*& context,
                         HashContext*& hash) {
    if (hProv == 0 || hHash == 0 || data == nullptr) return kInvalidParameter;
    if (dwFlags != 0) return static_cast<DWORD>(NTE_BAD_FLAGS);
    context = contextFromHandle(hProv);
    hash = hashFromHandle(hHash);
    if (context == nullptr || !hash->valid) return static_cast<DWORD>(NTE_BAD_HASH);
    return 0;
}

}  // namespace

namespace orvane::csp {

bool finishLibraryHash(const CspContext& context, HashContext& hash, int capacity) {
    int length = capacity;
    if (finishHash(hash.libraryHash, hash.hashValue, &length, context.libraryContext) != 0) return false;
    if (length < 0 || static_cast<size_t>(length) > sizeof hash.hashValue) return false;
    hash.hashValueLength = static_cast<uint32_t>(length);
    return true;
}

}  // namespace orvane::csp

namespace {

BOOL answerHashValue(CspContext& context, HashContext& hash, BYTE* pbData, DWORD* pdwDataLen) {
    ALG_ID algId = 0;
    DWORD expected = 0;
    if (!reportableHash(hash.mechanism, algId, expected)) {
        Utils::logMessage("Unsupported Algorithm : " + std::to_string(hash.mechanism));
        return failWith(NTE_BAD_ALGID);
    }
    if (pbData == nullptr) return answerValue(kHashParamRule, nullptr, expected, nullptr, pdwDataLen);
    if (!hash.finished) {
        if (!finishLibraryHash(context, hash, static_cast<int>(expected))) return failWith(NTE_FAIL);
        hash.finished = true;
    }
    // The digest stays stored, so a retry with a larger buffer does not ask the library again.
    return answerValue(kHashParamRule, hash.hashValue, hash.hashValueLength, pbData, pdwDataLen);
}

}  // namespace

BOOL WINAPI CPCreateHash(HCRYPTPROV hProv, ALG_ID Algid, HCRYPTKEY, DWORD dwFlags, HCRYPTHASH* phHash) {
    return guardEntry("CPCreateHash", [&]() -> BOOL {
        if (phHash == nullptr || hProv == 0) return failWith(kInvalidParameter);
        if (dwFlags != 0) return failWith(NTE_BAD_FLAGS);
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) return failWith(NTE_BAD_UID);

        Utils::logMessage("Crete hash algorithm input : " + std::to_string(Algid));
        const HashAlgorithm* algorithm = findHashAlgorithm(Algid);
        if (algorithm == nullptr) {
            Utils::logMessage("Crete hash algorithm defaukt");
            return failWith(NTE_BAD_ALGID);
        }
        HashContext* hash = new (std::nothrow) HashContext{};
        if (hash == nullptr) return failWith(NTE_NO_MEMORY);
        hash->valid = true;
        Utils::logMessage(algorithm->logLine);
        hash->hashLength = algorithm->hashLength;
        hash->mechanism = algorithm->mechanism;
        Utils::logMessage("Crete hash algorithm : " + std::to_string(hash->mechanism));

        if (startHash(context->serialNumber, static_cast<int>(hash->mechanism), &hash->libraryHash,
                      context->libraryContext) != 0) {
            delete hash;
            return failWith(NTE_FAIL);
        }
        *phHash = reinterpret_cast<HCRYPTHASH>(hash);
        return TRUE;
    });
}

BOOL WINAPI CPHashData(HCRYPTPROV hProv, HCRYPTHASH hHash, const BYTE* pbData, DWORD cbDataLen, DWORD) {
    return guardEntry("CPHashData", [&]() -> BOOL {
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) return failWith(NTE_BAD_UID);
        HashContext* hash = hashFromHandle(hHash);
        if (hash == nullptr) return failWith(NTE_BAD_HASH);
        if (feedHash(hash->libraryHash, pbData, cbDataLen, context->libraryContext) != 0)
            return failWith(NTE_FAIL);
        return TRUE;
    });
}

BOOL WINAPI CPGetHashParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen,
                           DWORD dwFlags) {
    return guardEntry("CPGetHashParam", [&]() -> BOOL {
        CspContext* context = nullptr;
        HashContext* hash = nullptr;
        if (DWORD refused = checkHashParamCall(hProv, hHash, pdwDataLen, dwFlags, context, hash)) return failWith(refused);
        Utils::logMessage("CPGetHashParam dwParam : " + std::to_string(dwParam));
        Utils::logMessage("CPGetHashParam mechanism : " + std::to_string(hash->mechanism));

        ALG_ID algId = 0;
        DWORD digestSize = 0;
        switch (dwParam) {
        case HP_ALGID:
            if (pbData != nullptr && *pdwDataLen >= sizeof(DWORD) && !reportableHash(hash->mechanism, algId, digestSize))
                return failWith(NTE_BAD_ALGID);
            return answerHashParam(&algId, sizeof algId, pbData, pdwDataLen);
        case HP_HASHVAL:
            return answerHashValue(*context, *hash, pbData, pdwDataLen);
        case HP_HASHSIZE:
            if (pbData != nullptr && *pdwDataLen >= sizeof(DWORD)) {
                if (!reportableHash(hash->mechanism, algId, digestSize)) return failWith(NTE_BAD_ALGID);
                Utils::logMessage("Get hash param hashSize : " + std::to_string(digestSize));
            }
            return answerHashParam(&digestSize, sizeof digestSize, pbData, pdwDataLen);
        case HP_HMAC_INFO:
            if (!hash->hmacInfoSet) return failWith(NTE_BAD_TYPE);
            return answerHashParam(&hash->hmacInfo, sizeof hash->hmacInfo, pbData, pdwDataLen);
        default:
            return failWith(NTE_BAD_TYPE);
        }
    });
}

BOOL WINAPI CPSetHashParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, const BYTE* pbData, DWORD dwFlags) {
    return guardEntry("CPSetHashParam", [&]() -> BOOL {
        CspContext* context = nullptr;
        HashContext* hash = nullptr;
        if (DWORD refused = checkHashParamCall(hProv, hHash, pbData, dwFlags, context, hash)) return failWith(refused);
        Utils::logMessage("Set hash param dwParam : " + std::to_string(dwParam));
        Utils::logMessage("Set hash param dwFlags : " + std::to_string(dwFlags));

        if (dwParam == HP_HASHVAL) {
            std::memcpy(hash->hashValue, pbData, hash->hashLength);
            hash->hashValueLength = hash->hashLength;
            hash->finished = true;
            return TRUE;
        }
        if (dwParam == HP_HMAC_INFO) {
            // Stored only: no keyed hashing is done, and the hash starts afresh.
            std::memcpy(&hash->hmacInfo, pbData, sizeof hash->hmacInfo);
            if (startHash(context->serialNumber, static_cast<int>(hash->mechanism), &hash->libraryHash,
                          context->libraryContext) != 0)
                return failWith(NTE_FAIL);
            return TRUE;
        }
        return failWith(NTE_BAD_TYPE);
    });
}

BOOL WINAPI CPDuplicateHash(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD*, DWORD dwFlags, HCRYPTHASH* phHash) {
    return guardEntry("CPDuplicateHash", [&]() -> BOOL {
        if (phHash == nullptr || hProv == 0 || hHash == 0) return failWith(kInvalidParameter);
        if (dwFlags != 0) return failWith(NTE_BAD_FLAGS);
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) return failWith(NTE_BAD_UID);
        HashContext* source = hashFromHandle(hHash);
        if (!source->valid) return failWith(NTE_BAD_HASH);
        HashContext* copy = new (std::nothrow) HashContext{};
        if (copy == nullptr) return failWith(NTE_NO_MEMORY);

        // The library's running state cannot be copied: the duplicate starts an empty hash.
        *copy = *source;
        copy->hashAlgorithm = 0;
        copy->libraryHash = nullptr;
        if (startHash(context->serialNumber, static_cast<int>(source->mechanism), &copy->libraryHash,
                      context->libraryContext) != 0) {
            delete copy;
            return failWith(NTE_FAIL);
        }
        *phHash = reinterpret_cast<HCRYPTHASH>(copy);
        char line[96];
        std::snprintf(line, sizeof line, "CPDuplicateHash - source: 0x%p duplicate: 0x%p", static_cast<void*>(source),
                      static_cast<void*>(copy));
        Utils::logMessage(line);
        return TRUE;
    });
}

BOOL WINAPI CPDestroyHash(HCRYPTPROV hProv, HCRYPTHASH hHash) {
    return guardEntry("CPDestroyHash", [&]() -> BOOL {
        if (contextFromHandle(hProv) == nullptr) return failWith(NTE_BAD_UID);
        if (hHash == 0) return failWith(NTE_BAD_HASH);
        releaseHash(hashFromHandle(hHash));
        return TRUE;
    });
}

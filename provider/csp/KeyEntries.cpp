// Key handles: CPGetUserKey, CPGenKey, CPGetKeyParam, CPSetKeyParam, CPDestroyKey.
// A handle is a snapshot of one token key; nothing is ever written back to the token.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "diagnostics/Log.h"
#include "encoding/Hex.h"
#include "provider/csp/CspBuffers.h"
#include "provider/csp/CspContext.h"
#include "provider/csp/CspInterface.h"
#include "provider/csp/CspKey.h"
#include "provider/csp/CspResult.h"
#include "token/CurrentIv.h"
#include "token/KeyCertificate.h"
#include "token/KeyPairFacts.h"
#include "token/KeySearch.h"
#include "token/TokenRequests.h"

using namespace orvane;
using namespace orvane::csp;

namespace orvane::csp {

bool anyKeySpec = false;

}  // namespace orvane::csp

namespace {

const ALG_ID kEcSignatureAlgId = CALG_DSS_SIGN;  // what an EC signature key pair reports

// The key's certificate: same non-empty label, or the same link bytes (two empty links match).
BOOL answerCertificate(CspContext& context, const CspKey& key, BYTE* pbData, DWORD* pdwDataLen) {
    std::vector<unsigned char> der;
    if (!findKeyCertificate(context.serialNumber, context.libraryContext, key.pair, CertificateSearch::kLabelOrLink,
                            der)) {
        Utils::logError("CPGetKeyParam - Certificate not found");
        return failWith(NTE_NOT_FOUND);
    }
    return answerValue(SizeRule::kNullOrEmptyAsksShortFails, der.data(), static_cast<DWORD>(der.size()), pbData,
                       pdwDataLen, "CPGetKeyParam - Output buffer length for certificate not enough : ");
}

// The first key pair of the container that serves the AT_ value asked for (any, once a
// container parameter was read), with the ALG_ID its handle reports; null when none does.
const OrvaneKeyPair* findUserKeyPair(const std::vector<OrvaneKeyPair>& keyPairs, const std::string& containerName,
                                     DWORD keySpec, ALG_ID& algId) {
    for (const OrvaneKeyPair& keyPair : keyPairs) {
        if (!inContainer(keyPair, containerName)) continue;
        if ((keySpec == AT_SIGNATURE || anyKeySpec) && usageAllowsSigning(keyPair.keyUsage)) {
            Utils::logMessage("Sign key found");
            algId = isEcKeyType(keyPair.keyType) ? kEcSignatureAlgId : CALG_RSA_SIGN;
            return &keyPair;
        }
        if ((keySpec == AT_KEYEXCHANGE || anyKeySpec) && usageAllowsExchange(keyPair.keyUsage)) {
            Utils::logMessage("Encryption key found");
            algId = CALG_RSA_KEYX;
            return &keyPair;
        }
    }
    return nullptr;
}

// The usage a generated key pair is asked for, by its ALG_ID; kUsageNone for any other.
uint32_t usageForGeneratedKey(ALG_ID algId) {
    if (algId == CALG_RSA_SIGN) {
        Utils::logMessage("rsa sign");
        return kUsageSignature;
    }
    if (algId == CALG_RSA_KEYX) {
        Utils::logMessage("key exhange");
        return kUsageExchange;
    }
    return kUsageNone;
}

BOOL generateKey(CspContext& context, std::unique_ptr<CspKey> key, ALG_ID algId, uint32_t usage, DWORD dwFlags,
                 HCRYPTKEY* phKey) {
    // The size is recorded in the handle only; the token generates a key of its own size.
    uint32_t bits = dwFlags >> 16 ? dwFlags >> 16 : kDefaultRsaBits;
    key->algId = algId;
    OrvaneKeyPair request{};
    request.keyUsage = static_cast<int32_t>(usage);
    int result = generateKeyPair(context.serialNumber, context.libraryContext, request);
    if (result != 0) {
        Utils::logError("RSA Keypair Generation Failed, code=" + std::to_string(result));
        return failWith(NTE_TOKEN_KEYSET_STORAGE_FULL);
    }
    takeSnapshot(key->pair, request);
    key->pair.bitLength = bits;
    key->pair.tokenFlag = false;
    *phKey = reinterpret_cast<HCRYPTKEY>(key.release());
    Utils::logMessage("Key generated successfully, Algid=" + std::to_string(algId) + " bits=" + std::to_string(bits));
    return TRUE;
}

}  // namespace

BOOL WINAPI CPGetUserKey(HCRYPTPROV hProv, DWORD dwKeySpec, HCRYPTKEY* phUserKey) {
    return guardEntry("CPGetUserKey", [&]() -> BOOL {
        if (phUserKey == nullptr || hProv == 0) return failWith(NTE_BAD_KEY);
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) return failWith(NTE_BAD_UID);
        Utils::logMessage("CPGetUserKey -> dwKeySpec : " + std::to_string(dwKeySpec));

        std::vector<OrvaneKeyPair> keyPairs = readKeyPairs(context->serialNumber, context->libraryContext);
        if (keyPairs.empty()) return failWith(NTE_NO_KEY);
        Utils::logMessage("CPGetUserKey - Container name : " + escapeControlCharacters(context->containerName));

        ALG_ID algId = 0;
        const OrvaneKeyPair* keyPair = findUserKeyPair(keyPairs, context->containerName, dwKeySpec, algId);
        if (keyPair == nullptr) {
            Utils::logError("Requested key in Get user key not found");
            return failWith(NTE_BAD_KEY);
        }
        CspKey* key = new (std::nothrow) CspKey{};
        if (key == nullptr) return failWith(NTE_NO_MEMORY);
        takeSnapshot(key->pair, *keyPair);
        key->algId = algId;
        Utils::logMessage("CPGetUserKey - return key algorithm : " + std::to_string(algId));
        *phUserKey = reinterpret_cast<HCRYPTKEY>(key);
        return TRUE;
    });
}

BOOL WINAPI CPGenKey(HCRYPTPROV hProv, ALG_ID Algid, DWORD dwFlags, HCRYPTKEY* phKey) {
    return guardEntry("CPGenKey", [&]() -> BOOL {
        if (phKey == nullptr) return failWith(static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        *phKey = 0;
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) {
            Utils::logError("Invalid CSP context");
            return failWith(NTE_BAD_UID);
        }
        uint32_t usage = usageForGeneratedKey(Algid);
        if (usage == kUsageNone) {
            Utils::logError("Unsupported algorithm" + std::to_string(Algid));
            return failWith(NTE_BAD_ALGID);
        }
        std::unique_ptr<CspKey> key(new (std::nothrow) CspKey{});
        if (!key) return failWith(static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
        if (!ensurePinOrFail(*context)) return FALSE;
        return generateKey(*context, std::move(key), Algid, usage, dwFlags, phKey);
    });
}

BOOL WINAPI CPGetKeyParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen, DWORD) {
    return guardEntry("CPGetKeyParam", [&]() -> BOOL {
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) return failWith(NTE_BAD_UID);
        CspKey* key = keyFromHandle(hKey);
        if (key == nullptr) return failWith(NTE_BAD_KEY);
        if (pdwDataLen == nullptr) return failWith(static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        Utils::logMessage("CPGetKeyParam - dwparam : " + std::to_string(dwParam));
        Utils::logMessage("CPGetKeyParam - key id : " + keyIdName(key->pair.keyId));

        const SizeRule rule = SizeRule::kNullOrEmptyAsksShortFails;
        switch (dwParam) {
        case KP_PERMISSIONS:
            return answerDword(rule, usageAllowsExchange(key->pair.usage) ? CRYPT_DECRYPT : 0, pbData, pdwDataLen,
                               "CPGetKeyParam - Output buffer length for permission not enough : ");
        case KP_ALGID:
            if (pbData == nullptr || *pdwDataLen == 0) Utils::logMessage("CPGetKeyParam - input for alg id is null");
            else if (*pdwDataLen >= sizeof(DWORD)) Utils::logMessage("CPGetKeyParam - copying alg id : " + std::to_string(key->algId));
            return answerDword(rule, key->algId, pbData, pdwDataLen, "CPGetKeyParam - Output buffer length for alg not enough : ");
        case KP_BLOCKLEN:
        case KP_KEYLEN:
            return answerDword(rule, key->pair.bitLength, pbData, pdwDataLen,
                               "CPGetKeyParam - Output buffer length for blocklen not enough : ");
        case KP_CERTIFICATE:
            return answerCertificate(*context, *key, pbData, pdwDataLen);
        default:
            Utils::logError("CPGetKeyParam - unsupported input : " + std::to_string(dwParam));
            return failWith(NTE_BAD_TYPE);
        }
    });
}

BOOL WINAPI CPSetKeyParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, const BYTE* pbData, DWORD dwFlags) {
    return guardEntry("CPSetKeyParam", [&]() -> BOOL {
        if (contextFromHandle(hProv) == nullptr) return failWith(NTE_BAD_UID);
        CspKey* key = keyFromHandle(hKey);
        if (key == nullptr) return failWith(NTE_BAD_KEY);
        Utils::logMessage("Set key param key id : " + keyIdName(key->pair.keyId));
        Utils::logMessage("Set key param  dwParam : " + std::to_string(dwParam));
        Utils::logMessage("Set key param  dwFlags : " + std::to_string(dwFlags));
        Utils::logMessage("Set key param key algo : " + std::to_string(key->algId));
        if (pbData == nullptr) return failWith(static_cast<DWORD>(ERROR_INVALID_PARAMETER));

        if (dwParam == KP_IV) {
            // The handle's ALG_ID holds the token type of an imported key; only AES-256 and
            // triple DES keys set the shared IV, AES-128 keys leave it.
            size_t ivLength = key->algId == ORVANE_KEY_AES_128 ? 0 : ivBytesOf(static_cast<int32_t>(key->algId));
            if (ivLength != 0) setCurrentIv(pbData, ivLength);
            return TRUE;
        }
        DWORD firstWord = 0;
        std::memcpy(&firstWord, pbData, sizeof firstWord);
        Utils::logMessage("Set key param default input value : " + std::to_string(firstWord));
        return TRUE;
    });
}

BOOL WINAPI CPDestroyKey(HCRYPTPROV hProv, HCRYPTKEY hKey) {
    return guardEntry("CPDestroyKey", [&]() -> BOOL {
        if (contextFromHandle(hProv) == nullptr) return failWith(NTE_BAD_UID);
        if (hKey == 0) return failWith(NTE_BAD_KEY);
        releaseKey(keyFromHandle(hKey));
        return TRUE;
    });
}

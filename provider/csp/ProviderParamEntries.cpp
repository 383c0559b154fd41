// CPGetProvParam and CPSetProvParam: the provider's name and capabilities, its fixed
// algorithm table, the token's containers, the container's AT_ value and certificate
// chain, the PIN and the hardware random-number switch. The size answers differ per
// parameter on purpose; each variant is written once below.
#include <atomic>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "diagnostics/Log.h"
#include "token/CertificateChain.h"
#include "provider/csp/CspBuffers.h"
#include "provider/csp/CspContext.h"
#include "provider/csp/CspInterface.h"
#include "provider/csp/CspKey.h"
#include "provider/csp/CspResult.h"
#include "provider/ProviderName.h"
#include "token/KeyPairFacts.h"
#include "token/KeySearch.h"
#include "token/Sessions.h"
#include "token/TokenRequests.h"

using namespace orvane;
using namespace orvane::csp;

namespace orvane::csp {

std::atomic<bool> useHardwareRng{true};

}  // namespace orvane::csp

namespace {

const DWORD kImplementationType = CRYPT_IMPL_HARDWARE | CRYPT_IMPL_REMOVABLE;
const DWORD kProviderVersion = 0x100;
const DWORD kKeyStorage = 9;
const size_t kLongestPin = 256;  // the PIN dialog's own limit; a PIN is never longer

struct AlgorithmRow {
    ALG_ID algId;
    DWORD minLength, maxLength, defaultLength;
    DWORD protocols;
    const char* name;
    const char* longName;
};

const AlgorithmRow kAlgorithms[] = {
    {CALG_RSA_SIGN, kSmallestRsaBits, kLargestRsaBits, kDefaultRsaBits, 0x20, "RSA-Sign", "RSA Signature Algorithm"},
    {CALG_RSA_KEYX, kSmallestRsaBits, kLargestRsaBits, kDefaultRsaBits, 0x40, "RSA-KeyX", "RSA Key Exchange Algorithm"},
    {CALG_SHA1, 256, 256, 256, 0x80, "SHA1", "SHA-1 Hash Algorithm"},
    {CALG_SHA_256, 256, 256, 256, 0x80, "SHA256", "SHA-256 Hash Algorithm"},
};
const size_t kAlgorithmCount = sizeof kAlgorithms / sizeof kAlgorithms[0];

void logSuccess(DWORD length) {
    Utils::logMessage("CPGetProvParam out length : " + std::to_string(length));
    Utils::logMessage("CPGetProvParam return success");
}

// The plain provider values: written when there is room, and never a short-buffer report.
// `reportedSize` is the length a written value reports (the name's leaves out its NUL).
BOOL answerWhenRoom(const void* value, DWORD size, BYTE* pbData, DWORD* pdwDataLen, DWORD reportedSize,
                    const char* writtenLogLine = nullptr) {
    if (!answerSizeOnly(SizeRule::kWrittenWhenRoom, pbData, *pdwDataLen, size, pdwDataLen)) {
        std::memcpy(pbData, value, size);
        if (writtenLogLine) Utils::logMessage(writtenLogLine);
        *pdwDataLen = reportedSize;
    }
    logSuccess(*pdwDataLen);
    return TRUE;
}

BOOL answerPlainDword(DWORD value, BYTE* pbData, DWORD* pdwDataLen, const char* writtenLogLine = nullptr) {
    return answerWhenRoom(&value, sizeof value, pbData, pdwDataLen, sizeof value, writtenLogLine);
}

BOOL answerText(const std::string& text, BYTE* pbData, DWORD* pdwDataLen) {
    DWORD size = static_cast<DWORD>(text.size() + 1);
    return answerWhenRoom(text.c_str(), size, pbData, pdwDataLen, size);
}

// The token's answers to queries that never fail for a short buffer: ERROR_MORE_DATA with TRUE.
BOOL answerDwordOrMoreData(DWORD value, BYTE* pbData, DWORD* pdwDataLen, const char* shortLogLine = nullptr) {
    return answerDword(SizeRule::kMissingOrShortIsMoreData, value, pbData, pdwDataLen, shortLogLine);
}

// CRYPT_FIRST restarts a cursor, CRYPT_NEXT moves it on; false for any other flags.
bool moveCursor(DWORD dwFlags, uint64_t& cursor) {
    if (dwFlags == CRYPT_FIRST) {
        cursor = 0;
        return true;
    }
    if (dwFlags == CRYPT_NEXT) {
        ++cursor;
        return true;
    }
    return false;
}

void copyName(char* field, size_t size, const char* name) {
    std::memset(field, 0, size);
    std::strncpy(field, name, size - 1);
}

BOOL enumerateAlgorithms(CspContext& context, bool extended, BYTE* pbData, DWORD* pdwDataLen, DWORD dwFlags) {
    Utils::logMessage(extended ? "CPGetProvParam: PP_ENUMALGS_EX" : "CPGetProvParam: PP_ENUMALGS");
    uint64_t cursor = context.algEnumIndex;
    if (!moveCursor(dwFlags, cursor)) {
        if (extended) Utils::logMessage("Invalid dwFlags for PP_ENUMALGS_EX");
        return failWith(static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    }
    context.algEnumIndex = static_cast<uint32_t>(cursor);
    if (cursor >= kAlgorithmCount) {
        if (extended) Utils::logMessage("No more algorithms");
        return failWith(static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
    }
    const AlgorithmRow& row = kAlgorithms[cursor];
    DWORD size = extended ? sizeof(PROV_ENUMALGS_EX) : sizeof(PROV_ENUMALGS);
    if (std::optional<BOOL> sizeOnly =
            answerSizeOnly(SizeRule::kNullAsksWithMoreDataShortFails, pbData, *pdwDataLen, size, pdwDataLen))
        return *sizeOnly;
    if (extended) {
        PROV_ENUMALGS_EX entry{};
        entry.aiAlgid = row.algId;
        entry.dwDefaultLen = row.defaultLength;
        entry.dwMinLen = row.minLength;
        entry.dwMaxLen = row.maxLength;
        entry.dwProtocols = row.protocols;
        entry.dwNameLen = static_cast<DWORD>(std::strlen(row.name));
        copyName(entry.szName, sizeof entry.szName, row.name);
        entry.dwLongNameLen = static_cast<DWORD>(std::strlen(row.longName));
        copyName(entry.szLongName, sizeof entry.szLongName, row.longName);
        std::memcpy(pbData, &entry, sizeof entry);
        Utils::logMessage(std::string("CPGetProvParam: returned EX algorithm -> ") + row.name);
    } else {
        PROV_ENUMALGS entry{};
        entry.aiAlgid = row.algId;
        entry.dwBitLen = row.defaultLength;
        entry.dwNameLen = static_cast<DWORD>(std::strlen(row.name));
        copyName(entry.szName, sizeof entry.szName, row.name);
        std::memcpy(pbData, &entry, sizeof entry);
        Utils::logMessage(std::string("CPGetProvParam: returned algorithm -> ") + row.name);
    }
    *pdwDataLen = size;
    return TRUE;
}

BOOL enumerateContainers(CspContext& context, BYTE* pbData, DWORD* pdwDataLen, DWORD dwFlags) {
    uint64_t cursor = context.containerEnumIndex;
    if (!moveCursor(dwFlags, cursor)) return failWith(static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    context.containerEnumIndex = cursor;
    if (cursor >= context.containerNames.size()) return failWith(static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
    const std::string& name = context.containerNames[static_cast<size_t>(cursor)];
    DWORD size = static_cast<DWORD>(name.size() + 1);
    if (std::optional<BOOL> sizeOnly =
            answerSizeOnly(SizeRule::kMissingOrShortIsMoreData, pbData, *pdwDataLen, size, pdwDataLen))
        return *sizeOnly;
    std::memcpy(pbData, name.c_str(), size);
    *pdwDataLen = size;
    Utils::logMessage("CPGetProvParam: returned container -> " + name);
    return TRUE;
}

BOOL answerCertificateChain(CspContext& context, BYTE* pbData, DWORD* pdwDataLen) {
    std::vector<OrvaneKeyPair> keyPairs = readKeyPairs(context.serialNumber, context.libraryContext);
    std::vector<OrvaneCertificate> certificates = readCertificates(context.serialNumber, context.libraryContext);
    std::map<std::string, CertificateChain> chains = buildContainerChains(keyPairs, certificates);
    auto chain = chains.find(context.containerName);
    if (chain == chains.end()) {
        *pdwDataLen = 0;
        return failWith(NTE_NO_KEY);
    }
    Pkcs7Outcome encoded = encodeChainAsPkcs7(chain->second, pbData, pdwDataLen);
    if (encoded.lastError != 0) SetLastError(encoded.lastError);
    return encoded.ok ? TRUE : FALSE;
}

BOOL answerKeySpec(const CspContext& context, BYTE* pbData, DWORD* pdwDataLen) {
    std::vector<OrvaneKeyPair> keyPairs = readKeyPairs(context.serialNumber, context.libraryContext);
    const OrvaneKeyPair* keyPair = findKeyPairByName(keyPairs, context.containerName);
    if (keyPair == nullptr) return failWith(NTE_NO_KEY);
    KeyRole role = KeyRole::kSigning;
    DWORD keySpec = !containerKeyRole(*keyPair, role) ? 0 : role == KeyRole::kExchange ? AT_KEYEXCHANGE : AT_SIGNATURE;
    return answerDwordOrMoreData(keySpec, pbData, pdwDataLen, "More Data");
}

// A PIN handed over as NUL-terminated text: checked by the token and cached when accepted.
BOOL setPin(const CspContext& context, const BYTE* pbData) {
    if (pbData == nullptr) {
        Utils::logError("CPSetProvParam: NULL PIN data");
        return failWith(static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    }
    const char* text = reinterpret_cast<const char*>(pbData);
    SecretBytes pin(text, strnlen(text, kLongestPin));
    if (acceptCallerPin(context.serialNumber, pin, context.libraryContext, kCspPinTexts) != 0)
        return failWith(NTE_KEYSET_ENTRY_BAD);
    return TRUE;
}

BOOL setHardwareRng(const BYTE* pbData) {
    if (pbData == nullptr) {
        Utils::logMessage("CPSetProvParam: NULL data for PP_USE_HARDWARE_RNG");
        return failWith(static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    }
    DWORD value = 0;
    std::memcpy(&value, pbData, sizeof value);
    useHardwareRng.store(value != 0);
    Utils::logMessage(std::string("CPSetProvParam: PP_USE_HARDWARE_RNG set to ") + (value != 0 ? "1" : "0"));
    return TRUE;
}

// The answer to one parameter, each under its own size rule.
BOOL answerParameter(CspContext& context, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen, DWORD dwFlags) {
    switch (dwParam) {
    case PP_ENUMALGS: return enumerateAlgorithms(context, false, pbData, pdwDataLen, dwFlags);
    case PP_ENUMALGS_EX: return enumerateAlgorithms(context, true, pbData, pdwDataLen, dwFlags);
    case PP_ENUMCONTAINERS: return enumerateContainers(context, pbData, pdwDataLen, dwFlags);
    case PP_IMPTYPE:
        return answerPlainDword(kImplementationType, pbData, pdwDataLen, "CPGetProvParam not null value provided");
    case PP_NAME:
        // A copied name reports its length without the NUL; a size answer includes it.
        return answerWhenRoom(kProviderName, sizeof kProviderName, pbData, pdwDataLen, sizeof kProviderName - 1);
    case PP_VERSION: return answerPlainDword(kProviderVersion, pbData, pdwDataLen);
    case PP_CONTAINER:
    case PP_UNIQUE_CONTAINER:
        anyKeySpec = true;
        Utils::logMessage("CPGetProvParam - copying container");
        return answerText(context.containerName, pbData, pdwDataLen);
    case PP_CERTCHAIN: return answerCertificateChain(context, pbData, pdwDataLen);
    case PP_PROVTYPE: return answerPlainDword(PROV_RSA_FULL, pbData, pdwDataLen);
    case PP_KEYSTORAGE: return answerDwordOrMoreData(kKeyStorage, pbData, pdwDataLen);
    case PP_KEYSET_TYPE: return answerPlainDword(context.keysetType, pbData, pdwDataLen);
    case PP_ADMIN_PIN:
    case PP_KEYEXCHANGE_PIN:
    case PP_SIGNATURE_PIN:
        Utils::logMessage("CPGetProvParam: PIN query");
        return answerDwordOrMoreData(1, pbData, pdwDataLen);
    case PP_USE_HARDWARE_RNG: {
        DWORD value = useHardwareRng.load() ? 1 : 0;
        Utils::logMessage("CPGetProvParam: PP_USE_HARDWARE_RNG = " + std::to_string(value));
        return answerDwordOrMoreData(value, pbData, pdwDataLen, "Required size is Large");
    }
    case PP_KEYSPEC: return answerKeySpec(context, pbData, pdwDataLen);
    case PP_ENUMEX_SIGNING_PROT:
        Utils::logMessage("CPGetProvParam: PP_ENUMEX_SIGNING_PROT = 1");
        return answerDwordOrMoreData(1, pbData, pdwDataLen);
    default:
        Utils::logMessage("CPGetProvParam default failed");
        return failWith(NTE_BAD_TYPE);
    }
}

}  // namespace

BOOL WINAPI CPGetProvParam(HCRYPTPROV hProv, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen, DWORD dwFlags) {
    return guardEntry("CPGetProvParam", [&]() -> BOOL {
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) {
            SetLastError(static_cast<DWORD>(NTE_BAD_UID));
            Utils::logMessage("CPGetProvParam not initialised");
            return FALSE;
        }
        Utils::logMessage("CPGetProvParam input : " + std::to_string(dwParam));
        Utils::logMessage("CPGetProvParam : " + std::to_string(dwParam));
        if (pdwDataLen == nullptr) return failWith(static_cast<DWORD>(ERROR_INVALID_PARAMETER));

        return answerParameter(*context, dwParam, pbData, pdwDataLen, dwFlags);
    });
}

BOOL WINAPI CPSetProvParam(HCRYPTPROV hProv, DWORD dwParam, const BYTE* pbData, DWORD) {
    return guardEntry("CPSetProvParam", [&]() -> BOOL {
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) return failWith(NTE_BAD_UID);
        Utils::logMessage("CPSetProvParam - input param : " + std::to_string(dwParam));

        switch (dwParam) {
        case PP_CLIENT_HWND: {
            HWND window = nullptr;
            if (pbData != nullptr) std::memcpy(&window, pbData, sizeof window);
            context->clientHwnd = reinterpret_cast<uint64_t>(window);
            return TRUE;
        }
        case PP_KEYEXCHANGE_PIN:
        case PP_SIGNATURE_PIN: return setPin(*context, pbData);
        case PP_USE_HARDWARE_RNG: return setHardwareRng(pbData);
        default: return failWith(NTE_BAD_TYPE);
        }
    });
}

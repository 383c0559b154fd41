// Key properties: KSPGetKeyProperty and KSPSetKeyProperty. Every value leaves through
// copyPropertyValue; values that callers hand in are read by the pure functions of
// encoding/ProviderPropertyValues.
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "diagnostics/Log.h"
#include "encoding/Hex.h"
#include "encoding/ProviderPropertyValues.h"
#include "encoding/WideNames.h"
#include "provider/ksp/KspEntries.h"
#include "provider/ksp/KspObjects.h"
#include "provider/ksp/KspResult.h"
#include "provider/ksp/PinProperty.h"
#include "token/KeyCertificate.h"
#include "token/CurrentIv.h"
#include "token/KeyPairFacts.h"
#include "token/Pin.h"
#include "token/TokenRequests.h"

namespace orvane::ksp {
namespace {

using Bytes = std::vector<unsigned char>;

const DWORD kAllowExport = 0x1;     // NCRYPT_ALLOW_EXPORT_FLAG
// NCRYPT_SUPPORTED_LENGTHS: min, max, step (the token's RSA sizes are 1024 apart), default.
const DWORD kSupportedLengths[4] = {kSmallestRsaBits, kLargestRsaBits, 1024, kDefaultRsaBits};

bool isProperty(LPCWSTR property, const wchar_t* name) { return std::wcscmp(property, name) == 0; }

Bytes wideValue(const std::wstring& text) {
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text.c_str());
    return Bytes(bytes, bytes + (text.size() + 1) * sizeof(wchar_t));
}

Bytes wideValue(const std::string& ascii) { return wideValue(std::wstring(ascii.begin(), ascii.end())); }

template <typename Value>
Bytes plainValue(const Value& value) {
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&value);
    return Bytes(bytes, bytes + sizeof value);
}

// Token usage code to the published key usage flags.
DWORD keyUsageFlags(uint32_t usage) {
    return (usageAllowsSigning(usage) ? properties::kAllowSigningFlag : 0) |
           (usageAllowsExchange(usage) ? properties::kAllowDecryptFlag : 0);
}

// --- Answers ---

SECURITY_STATUS answerCertificate(const KspProvider& provider, const KspKey& key, PBYTE pbOutput, DWORD cbOutput,
                                  DWORD* pcbResult) {
    Bytes der;
    if (!findKeyCertificate(provider.serialNumber, provider.libraryContext, key.pair,
                            CertificateSearch::kLabelOrLinkThenPublicKey, der)) {
        Utils::logError("KSP: Certificate not found for key");
        return NTE_NOT_FOUND;
    }
    return copyPropertyValue(der.data(), static_cast<DWORD>(der.size()), pbOutput, cbOutput, pcbResult);
}

// False for a property the key does not have.
bool keyPropertyValue(NCRYPT_PROV_HANDLE hProvider, const KspKey& key, LPCWSTR property, Bytes& value) {
    const KeyPairSnapshot& pair = key.pair;
    if (isProperty(property, L"Name") || isProperty(property, L"Unique Name"))
        value = wideValue(keyIdName(pair.keyId));
    else if (isProperty(property, L"Algorithm Name"))
        value = wideValue(std::wstring(cngAlgorithmName(pair.keyType)));
    else if (isProperty(property, L"Algorithm Group"))
        value = wideValue(std::wstring(isEcKeyType(pair.keyType) ? L"ECDSA" : L"RSA"));
    else if (isProperty(property, L"Length"))
        value = plainValue<DWORD>(pair.bitLength);
    else if (isProperty(property, L"Lengths"))
        value = plainValue(kSupportedLengths);
    else if (isProperty(property, L"Key Usage"))
        value = plainValue(keyUsageFlags(pair.usage));
    else if (isProperty(property, L"Export Policy"))
        value = plainValue(kAllowExport);
    else if (isProperty(property, L"Block Length"))
        value = plainValue<DWORD>(pair.bitLength / 8);
    else if (isProperty(property, L"Key Type"))
        value = plainValue<DWORD>(0);
    else if (isProperty(property, L"Provider Handle"))
        value = plainValue<uint64_t>(hProvider);
    else if (isProperty(property, L"ChainingMode"))
        value = wideValue(std::wstring(key.chainingMode != 0 ? L"ChainingModeECB" : L"ChainingModeCBC"));
    else
        return false;
    return true;
}

// No range check: KSPFinalizeKey decides what is generated. Fewer than four bytes change nothing.
SECURITY_STATUS setLength(KspKey& key, PBYTE pbInput, DWORD cbInput) {
    uint32_t word = 0;
    if (properties::dwordFromPropertyValue(pbInput, cbInput, word)) {
        key.pair.bitLength = word;
        Utils::logMessage("KSP: Key length set to " + std::to_string(word));
    }
    return ERROR_SUCCESS;
}

SECURITY_STATUS setKeyUsage(KspKey& key, PBYTE pbInput, DWORD cbInput) {
    uint32_t word = 0;
    if (properties::dwordFromPropertyValue(pbInput, cbInput, word))
        key.pair.usage = properties::usageFromKeyUsageFlags(word, key.pair.usage);
    return ERROR_SUCCESS;
}

SECURITY_STATUS setIv(const KspKey& key, PBYTE pbInput, DWORD cbInput) {
    if (pbInput == nullptr || cbInput == 0) {
        setCurrentIv(nullptr, 0);
        Utils::logMessage("KSP: IV cleared");
        return ERROR_SUCCESS;
    }
    size_t expected = properties::expectedIvSize(key.symmetricKeyLength);
    if (expected != 0 && cbInput != expected) {
        Utils::logError("KSP: IV size mismatch: got " + std::to_string(cbInput) + ", expected " +
                        std::to_string(expected));
        return NTE_INVALID_PARAMETER;
    }
    setCurrentIv(pbInput, cbInput);
    Utils::logMessage("KSP: IV set, size: " + std::to_string(cbInput));
    return ERROR_SUCCESS;
}

SECURITY_STATUS setChainingMode(KspKey& key, PBYTE pbInput, DWORD cbInput) {
    if (pbInput == nullptr || cbInput == 0) return ERROR_SUCCESS;
    switch (properties::chainingModeFromPropertyValue(pbInput, cbInput)) {
    case properties::ChainingMode::kCbc:
        key.chainingMode = 0;
        Utils::logMessage("KSP: Chaining mode set to CBC");
        return ERROR_SUCCESS;
    case properties::ChainingMode::kEcb:
        key.chainingMode = 1;
        Utils::logMessage("KSP: Chaining mode set to ECB");
        return ERROR_SUCCESS;
    default:
        Utils::logError("KSP: Unsupported chaining mode");
        return NTE_NOT_SUPPORTED;
    }
}

SECURITY_STATUS storeKeyCertificate(const KspProvider& provider, const KspKey& key, PBYTE pbInput, DWORD cbInput) {
    OrvaneCertificate record{};
    if (pbInput == nullptr || cbInput == 0 || cbInput > sizeof record.certData) return NTE_INVALID_PARAMETER;
    if (!ensurePinValidated(provider.serialNumber, provider.libraryContext, kKspPinTexts)) return NTE_FAIL;
    std::memcpy(record.certData, pbInput, cbInput);
    record.certLength = static_cast<int32_t>(cbInput);
    // The key's identifier goes in the link field, the only named field that can carry it.
    std::memcpy(record.certLinkId, key.pair.keyId, sizeof key.pair.keyId);
    record.certLinkIdLength = static_cast<int32_t>(sizeof key.pair.keyId);
    int result = storeCertificate(provider.serialNumber, provider.libraryContext, record);
    if (result != 0) {
        Utils::logError("KSP: Import certificate failed: " + std::to_string(result));
        return NTE_INTERNAL_ERROR;
    }
    Utils::logMessage("KSP: Certificate stored successfully");
    return ERROR_SUCCESS;
}

}  // namespace

SECURITY_STATUS WINAPI KSPGetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                         PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD) {
    return guardEntry("KSPGetKeyProperty", [&]() -> SECURITY_STATUS {
        KspProvider* provider = providerFromHandle(hProvider);
        KspKey* key = keyFromHandle(hKey);
        if (provider == nullptr || key == nullptr) return NTE_INVALID_HANDLE;
        if (pszProperty == nullptr || pcbResult == nullptr) return NTE_INVALID_PARAMETER;
        Utils::logMessage("KSP: GetKeyProperty: " + escapeControlCharacters(narrowLowBytes(pszProperty)));

        Bytes value;
        if (keyPropertyValue(hProvider, *key, pszProperty, value))
            return copyPropertyValue(value.data(), static_cast<DWORD>(value.size()), pbOutput, cbOutput, pcbResult);
        if (isProperty(pszProperty, L"SmartCardKeyCertificate"))
            return answerCertificate(*provider, *key, pbOutput, cbOutput, pcbResult);
        // Known to CNG but not kept: refused without a log line.
        if (isProperty(pszProperty, L"Security Descr")) return NTE_NOT_SUPPORTED;
        Utils::logMessage("KSP: Unsupported key property");
        return NTE_NOT_SUPPORTED;
    });
}

SECURITY_STATUS WINAPI KSPSetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                         PBYTE pbInput, DWORD cbInput, DWORD) {
    return guardEntry("KSPSetKeyProperty", [&]() -> SECURITY_STATUS {
        KspProvider* provider = providerFromHandle(hProvider);
        KspKey* key = keyFromHandle(hKey);
        if (provider == nullptr || key == nullptr) return NTE_INVALID_HANDLE;
        if (pszProperty == nullptr) return NTE_INVALID_PARAMETER;

        if (isProperty(pszProperty, L"HWND Handle")) return ERROR_SUCCESS;
        if (isProperty(pszProperty, L"Length")) return setLength(*key, pbInput, cbInput);
        if (isProperty(pszProperty, L"Key Usage")) return setKeyUsage(*key, pbInput, cbInput);
        if (isProperty(pszProperty, L"ChainingMode")) return setChainingMode(*key, pbInput, cbInput);
        if (isProperty(pszProperty, L"IV")) return setIv(*key, pbInput, cbInput);
        if (isProperty(pszProperty, L"SmartCardPin")) return acceptPinProperty(*provider, pbInput, cbInput);
        if (isProperty(pszProperty, L"SmartCardKeyCertificate"))
            return storeKeyCertificate(*provider, *key, pbInput, cbInput);
        return NTE_NOT_SUPPORTED;
    });
}

}  // namespace orvane::ksp

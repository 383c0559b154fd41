// The algorithm queries, the sign-on request, and the entries with nothing to do: the token
// offers no secret agreement, key derivation or change notification.
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "diagnostics/Log.h"
#include "provider/ksp/KspEntries.h"
#include "provider/ksp/KspObjects.h"
#include "provider/ksp/KspResult.h"
#include "token/Pin.h"

namespace orvane::ksp {
namespace {

struct AlgorithmEntry {
    const wchar_t* name;
    DWORD algorithmClass;
    DWORD operations;
};

const AlgorithmEntry kAlgorithms[] = {
    {L"RSA", NCRYPT_ASYMMETRIC_ENCRYPTION_INTERFACE,
     NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION | NCRYPT_SIGNATURE_OPERATION},
    {L"ECDSA_P256", NCRYPT_SIGNATURE_INTERFACE, NCRYPT_SIGNATURE_OPERATION},
    {L"ECDSA_P384", NCRYPT_SIGNATURE_INTERFACE, NCRYPT_SIGNATURE_OPERATION},
    {L"ECDSA_P521", NCRYPT_SIGNATURE_INTERFACE, NCRYPT_SIGNATURE_OPERATION},
};

// Wider than the enumeration: the hash names are accepted although the KSP offers no hash object.
const wchar_t* const kSupportedNames[] = {L"RSA",    L"ECDSA_P256", L"ECDSA_P384", L"ECDSA_P521",
                                          L"SHA256", L"SHA1",       L"SHA384",     L"SHA512"};

// One block for the records and their names, so the caller's one KSPFreeBuffer releases both.
NCryptAlgorithmName* allocateAlgorithmList(const std::vector<const AlgorithmEntry*>& selected) {
    size_t recordsSize = selected.size() * sizeof(NCryptAlgorithmName);
    size_t namesSize = 0;
    for (const AlgorithmEntry* entry : selected) namesSize += (std::wcslen(entry->name) + 1) * sizeof(wchar_t);
    auto* records = static_cast<NCryptAlgorithmName*>(allocateForCaller(recordsSize + namesSize));
    if (records == nullptr) return nullptr;

    auto* names = reinterpret_cast<wchar_t*>(reinterpret_cast<unsigned char*>(records) + recordsSize);
    for (size_t i = 0; i < selected.size(); ++i) {
        size_t nameLength = std::wcslen(selected[i]->name) + 1;
        std::memcpy(names, selected[i]->name, nameLength * sizeof(wchar_t));
        records[i].pszName = names;
        records[i].dwClass = selected[i]->algorithmClass;
        records[i].dwAlgOperations = selected[i]->operations;
        records[i].dwFlags = 0;
        names += nameLength;
    }
    return records;
}

}  // namespace

SECURITY_STATUS WINAPI KSPIsAlgSupported(NCRYPT_PROV_HANDLE, LPCWSTR pszAlgId, DWORD) {
    return guardEntry("KSPIsAlgSupported", [&]() -> SECURITY_STATUS {
        if (pszAlgId == nullptr) return NTE_INVALID_PARAMETER;
        for (const wchar_t* name : kSupportedNames)
            if (std::wcscmp(name, pszAlgId) == 0) return ERROR_SUCCESS;
        return NTE_NOT_SUPPORTED;
    });
}

SECURITY_STATUS WINAPI KSPEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations, DWORD* pdwAlgCount,
                                         NCryptAlgorithmName** ppAlgList, DWORD) {
    return guardEntry("KSPEnumAlgorithms", [&]() -> SECURITY_STATUS {
        if (providerFromHandle(hProvider) == nullptr) return NTE_INVALID_HANDLE;
        if (pdwAlgCount == nullptr || ppAlgList == nullptr) return NTE_INVALID_PARAMETER;

        std::vector<const AlgorithmEntry*> selected;
        for (const AlgorithmEntry& entry : kAlgorithms)
            if (dwAlgOperations == 0 || (dwAlgOperations & entry.operations) != 0) selected.push_back(&entry);

        NCryptAlgorithmName* list = allocateAlgorithmList(selected);
        if (list == nullptr) return NTE_NO_MEMORY;
        *pdwAlgCount = static_cast<DWORD>(selected.size());
        *ppAlgList = list;
        Utils::logMessage("KSP: Enumerated " + std::to_string(selected.size()) + " algorithms");
        return ERROR_SUCCESS;
    });
}

SECURITY_STATUS WINAPI KSPPromptUser(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE, LPCWSTR, DWORD) {
    return guardEntry("KSPPromptUser", [&]() -> SECURITY_STATUS {
        KspProvider* provider = providerFromHandle(hProvider);
        if (provider == nullptr) return NTE_INVALID_HANDLE;
        return ensurePinValidated(provider->serialNumber, provider->libraryContext, kKspPinTexts) ? ERROR_SUCCESS
                                                                                                 : NTE_FAIL;
    });
}

SECURITY_STATUS WINAPI KSPNotifyChangeKey(NCRYPT_PROV_HANDLE, HANDLE*, DWORD) {
    return guardEntry("KSPNotifyChangeKey", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPSecretAgreement(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, NCRYPT_KEY_HANDLE,
                                          NCRYPT_SECRET_HANDLE*, DWORD) {
    return guardEntry("KSPSecretAgreement", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPDeriveKey(NCRYPT_PROV_HANDLE, NCRYPT_SECRET_HANDLE, LPCWSTR, NCryptBufferDesc*, PBYTE, DWORD,
                                    DWORD*, ULONG) {
    return guardEntry("KSPDeriveKey", [] { return NTE_NOT_SUPPORTED; });
}

// No secret is ever handed out, so there is nothing to free.
SECURITY_STATUS WINAPI KSPFreeSecret(NCRYPT_PROV_HANDLE, NCRYPT_SECRET_HANDLE) {
    return guardEntry("KSPFreeSecret", [] { return static_cast<SECURITY_STATUS>(ERROR_SUCCESS); });
}

}  // namespace orvane::ksp

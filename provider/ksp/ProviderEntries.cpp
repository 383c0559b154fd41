// The provider object: opening it initialises every connected token once per process and
// binds it to the first one; its properties; the PIN given as a property; KSPFreeBuffer.
#include <cstdint>
#include <cwchar>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "diagnostics/Log.h"
#include "encoding/ProviderPropertyValues.h"
#include "provider/ksp/KeyNameLedger.h"
#include "provider/ksp/KspEntries.h"
#include "provider/ksp/KspObjects.h"
#include "provider/ksp/KspResult.h"
#include "token/OrvaneDSCLibrary.h"
#include "token/Pin.h"
#include "token/Devices.h"
#include "provider/ksp/PinProperty.h"
#include "provider/ProviderName.h"
#include "token/Sessions.h"

namespace orvane::ksp {
namespace {

const wchar_t kRsaAlgorithm[] = L"RSA";
const DWORD kImplType = NCRYPT_IMPL_HARDWARE_FLAG | NCRYPT_IMPL_REMOVABLE_FLAG;
const DWORD kVersion = 0x100;
const DWORD kMaxNameLength = 256;
const DWORD kNoSecurityDescriptors = 0;

struct ProviderPropertyValue {
    const wchar_t* name;
    const void* value;
    DWORD size;
};

const ProviderPropertyValue kProviderProperties[] = {
    {L"Name", kProviderNameWide.text, sizeof kProviderNameWide.text},
    {L"Impl Type", &kImplType, sizeof kImplType},
    {L"Version", &kVersion, sizeof kVersion},
    {L"Algorithm Name", kRsaAlgorithm, sizeof kRsaAlgorithm},
    {L"Max Name Length", &kMaxNameLength, sizeof kMaxNameLength},
    {L"Security Descr Support", &kNoSecurityDescriptors, sizeof kNoSecurityDescriptors},
};

const ProviderPropertyValue* findProviderProperty(LPCWSTR name) {
    for (const ProviderPropertyValue& property : kProviderProperties)
        if (std::wcscmp(property.name, name) == 0) return &property;
    return nullptr;
}

}  // namespace

SECURITY_STATUS WINAPI KSPOpenProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR, DWORD) {
    return guardEntry("KSPOpenProvider", [&]() -> SECURITY_STATUS {
        if (phProvider == nullptr) return NTE_INVALID_PARAMETER;
        std::unique_ptr<KspProvider> provider(new (std::nothrow) KspProvider);
        if (!provider) return NTE_NO_MEMORY;

        std::vector<std::string> serials;
        if (!initializeConnectedDevices(provider->libraryContext, kKspDeviceInitTexts, serials))
            return NTE_DEVICE_NOT_FOUND;
        // The first token even when its initialisation failed: key entries report that later.
        provider->serialNumber = serials.front();
        provider->isOpen = true;
        *phProvider = reinterpret_cast<NCRYPT_PROV_HANDLE>(provider.release());
        Utils::logMessage("KSP: Provider opened successfully");
        return ERROR_SUCCESS;
    });
}

SECURITY_STATUS WINAPI KSPFreeProvider(NCRYPT_PROV_HANDLE hProvider) {
    return guardEntry("KSPFreeProvider", [&]() -> SECURITY_STATUS {
        // Not providerFromHandle: a provider that never opened is still released.
        KspProvider* provider = reinterpret_cast<KspProvider*>(hProvider);
        if (provider == nullptr) return NTE_INVALID_HANDLE;
        // Sessions, the monitor and the library stay: they belong to the process.
        releaseProvider(provider);
        return ERROR_SUCCESS;
    });
}

SECURITY_STATUS WINAPI KSPGetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbOutput,
                                              DWORD cbOutput, DWORD* pcbResult, DWORD) {
    return guardEntry("KSPGetProviderProperty", [&]() -> SECURITY_STATUS {
        if (providerFromHandle(hProvider) == nullptr) return NTE_INVALID_HANDLE;
        if (pszProperty == nullptr || pcbResult == nullptr) return NTE_INVALID_PARAMETER;
        const ProviderPropertyValue* property = findProviderProperty(pszProperty);
        if (property != nullptr)
            return copyPropertyValue(property->value, property->size, pbOutput, cbOutput, pcbResult);
        // A property CNG knows but the provider does not keep: refused without a log line.
        if (std::wcscmp(pszProperty, L"Use Count") == 0) return NTE_NOT_SUPPORTED;
        Utils::logMessage("KSP: Unsupported provider property");
        return NTE_NOT_SUPPORTED;
    });
}

SECURITY_STATUS WINAPI KSPSetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbInput,
                                              DWORD cbInput, DWORD) {
    return guardEntry("KSPSetProviderProperty", [&]() -> SECURITY_STATUS {
        KspProvider* provider = providerFromHandle(hProvider);
        if (provider == nullptr) return NTE_INVALID_HANDLE;
        if (pszProperty == nullptr) return NTE_INVALID_PARAMETER;
        if (std::wcscmp(pszProperty, L"HWND Handle") == 0) {
            uint64_t window = properties::windowHandleFromPropertyValue(pbInput, cbInput);
            provider->parentWindow = reinterpret_cast<HWND>(static_cast<uintptr_t>(window));
            return ERROR_SUCCESS;
        }
        if (std::wcscmp(pszProperty, L"SmartCardPin") == 0) return acceptPinProperty(*provider, pbInput, cbInput);
        return NTE_NOT_SUPPORTED;
    });
}

SECURITY_STATUS WINAPI KSPFreeBuffer(PVOID pvInput) {
    return guardEntry("KSPFreeBuffer", [&]() -> SECURITY_STATUS {
        if (!releaseKeyNameForCaller(pvInput)) releaseForCaller(pvInput);
        return ERROR_SUCCESS;
    });
}

}  // namespace orvane::ksp

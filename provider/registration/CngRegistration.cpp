#include "provider/registration/CngRegistration.h"

#include <string>

#include "diagnostics/Log.h"
#include "provider/ProviderName.h"

namespace orvane::registration {
namespace {

const ULONG kNtStatusFacilityBit = 0x10000000;  // turns an NT status into its HRESULT

HRESULT hresultFromNtStatus(NTSTATUS status) {
    return static_cast<HRESULT>(static_cast<ULONG>(status) | kNtStatusFacilityBit);
}

void clearRegistration(const CngRegistrationApi& api) {
    if (api.removeContextFunctionProvider)
        api.removeContextFunctionProvider(CRYPT_LOCAL, nullptr, NCRYPT_KEY_STORAGE_INTERFACE, kKeyStorageFunction,
                                          kProviderNameWide.text);
    if (api.unregisterProvider) api.unregisterProvider(kProviderNameWide.text);
}

}  // namespace

const wchar_t kImageName[] = L"OrvaneCSP.dll";
const wchar_t kKeyStorageFunction[] = L"KEY_STORAGE";

HRESULT registerKeyStorageProvider(const CngRegistrationApi& api) {
    if (!api.registerProvider || !api.unregisterProvider || !api.addContextFunctionProvider) {
        Utils::logError("Failed to find BCrypt registration functions");
        return E_FAIL;
    }
    clearRegistration(api);

    PWSTR functions[] = {const_cast<PWSTR>(kKeyStorageFunction)};
    CRYPT_INTERFACE_REG keyStorage = {NCRYPT_KEY_STORAGE_INTERFACE, CRYPT_LOCAL, 1, functions};
    PCRYPT_INTERFACE_REG interfaces[] = {&keyStorage};
    CRYPT_IMAGE_REG image = {const_cast<PWSTR>(kImageName), 1, interfaces};
    CRYPT_PROVIDER_REG provider = {0, nullptr, &image, nullptr};

    NTSTATUS status = api.registerProvider(kProviderNameWide.text, 0, &provider);
    if (status != 0) {
        Utils::logError("BCryptRegisterProvider failed: 0x" + std::to_string(static_cast<long>(status)));
        return hresultFromNtStatus(status);
    }
    status = api.addContextFunctionProvider(CRYPT_LOCAL, nullptr, NCRYPT_KEY_STORAGE_INTERFACE, kKeyStorageFunction,
                                            kProviderNameWide.text, CRYPT_PRIORITY_BOTTOM);
    if (status != 0) {
        Utils::logError("BCryptAddContextFunctionProvider failed: 0x" + std::to_string(static_cast<long>(status)));
        return hresultFromNtStatus(status);
    }
    return S_OK;
}

HRESULT unregisterKeyStorageProvider(const CngRegistrationApi& api) {
    clearRegistration(api);
    return S_OK;
}

}  // namespace orvane::registration

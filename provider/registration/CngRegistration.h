// Registration of the key storage provider with CNG, written against a small interface over
// the four CNG registration functions of bcrypt.dll, so that the logic runs the same against
// the real functions (bound at run time) and against a recording stand-in.
#pragma once

#include <windows.h>
#include <bcrypt.h>

#include <functional>

#ifndef NCRYPT_KEY_STORAGE_INTERFACE
#define NCRYPT_KEY_STORAGE_INTERFACE 0x00010001
#endif

namespace orvane::registration {

// An empty function stands for one that bcrypt.dll does not export.
struct CngRegistrationApi {
    std::function<NTSTATUS(LPCWSTR provider, ULONG flags, PCRYPT_PROVIDER_REG registration)> registerProvider;
    std::function<NTSTATUS(LPCWSTR provider)> unregisterProvider;
    std::function<NTSTATUS(ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function, LPCWSTR provider,
                           ULONG position)>
        addContextFunctionProvider;
    std::function<NTSTATUS(ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function, LPCWSTR provider)>
        removeContextFunctionProvider;
};

extern const wchar_t kImageName[];
extern const wchar_t kKeyStorageFunction[];

// Clears an earlier registration, then registers the provider and adds it to the default
// context at the bottom. A CNG failure comes back as the HRESULT of its NT status.
HRESULT registerKeyStorageProvider(const CngRegistrationApi& api);
// Removes what is there; missing functions and failures are passed over.
HRESULT unregisterKeyStorageProvider(const CngRegistrationApi& api);

}  // namespace orvane::registration

// DllRegisterServer and DllUnregisterServer: the CNG registration functions are bound from
// bcrypt.dll at run time, and the library is released before returning.
#include <windows.h>

#include <new>

#include "diagnostics/Log.h"
#include "provider/registration/CngRegistration.h"

using namespace orvane::registration;

namespace {

template <typename Function>
Function lookUp(HMODULE bcrypt, const char* name) {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(bcrypt, name)));
}

using RegisterProviderFn = NTSTATUS(WINAPI*)(LPCWSTR, ULONG, PCRYPT_PROVIDER_REG);
using UnregisterProviderFn = NTSTATUS(WINAPI*)(LPCWSTR);
using AddContextFunctionProviderFn = NTSTATUS(WINAPI*)(ULONG, LPCWSTR, ULONG, LPCWSTR, LPCWSTR, ULONG);
using RemoveContextFunctionProviderFn = NTSTATUS(WINAPI*)(ULONG, LPCWSTR, ULONG, LPCWSTR, LPCWSTR);

CngRegistrationApi bind(HMODULE bcrypt) {
    CngRegistrationApi api;
    if (auto f = lookUp<RegisterProviderFn>(bcrypt, "BCryptRegisterProvider")) api.registerProvider = f;
    if (auto f = lookUp<UnregisterProviderFn>(bcrypt, "BCryptUnregisterProvider")) api.unregisterProvider = f;
    if (auto f = lookUp<AddContextFunctionProviderFn>(bcrypt, "BCryptAddContextFunctionProvider"))
        api.addContextFunctionProvider = f;
    if (auto f = lookUp<RemoveContextFunctionProviderFn>(bcrypt, "BCryptRemoveContextFunctionProvider"))
        api.removeContextFunctionProvider = f;
    return api;
}

// Exceptions never leave an export; the registration tool gets E_FAIL instead.
template <typename Body>
HRESULT guarded(Body&& body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_FAIL;
    }
}

}  // namespace

extern "C" HRESULT WINAPI DllRegisterServer() {
    return guarded([]() -> HRESULT {
        Utils::logMessage("DllRegisterServer: Registering KSP via CNG API");
        HMODULE bcrypt = LoadLibraryW(L"bcrypt.dll");
        if (bcrypt == nullptr) {
            Utils::logError("Failed to load bcrypt.dll");
            return E_FAIL;
        }
        HRESULT result = registerKeyStorageProvider(bind(bcrypt));
        FreeLibrary(bcrypt);
        if (result == S_OK) Utils::logMessage("DllRegisterServer: KSP registered successfully");
        return result;
    });
}

extern "C" HRESULT WINAPI DllUnregisterServer() {
    return guarded([]() -> HRESULT {
        Utils::logMessage("DllUnregisterServer: Unregistering KSP via CNG API");
        HMODULE bcrypt = LoadLibraryW(L"bcrypt.dll");
        if (bcrypt == nullptr) return E_FAIL;
        HRESULT result = unregisterKeyStorageProvider(bind(bcrypt));
        FreeLibrary(bcrypt);
        Utils::logMessage("DllUnregisterServer: KSP unregistered successfully");
        return result;
    });
}

#include "tests/support/KspHarness.h"

#include <stdexcept>
#include <vector>

namespace orvanetest {

const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& ksp() {
    static const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = [] {
        HMODULE module = LoadLibraryA("OrvaneCSP.dll");
        if (module == nullptr) throw std::runtime_error("OrvaneCSP.dll does not load");
        using GetInterface = NTSTATUS(WINAPI*)(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE**, DWORD);
        auto getInterface = reinterpret_cast<GetInterface>(
            reinterpret_cast<void*>(GetProcAddress(module, "GetKeyStorageInterface")));
        NCRYPT_KEY_STORAGE_FUNCTION_TABLE* found = nullptr;
        if (getInterface == nullptr || getInterface(L"Orvane Cryptographic Provider CSP", &found, 0) != 0 ||
            found == nullptr)
            throw std::runtime_error("GetKeyStorageInterface failed");
        return found;
    }();
    return *table;
}

KspProviderHandle::KspProviderHandle() {
    status_ = ksp().OpenProvider(&handle_, L"Orvane Cryptographic Provider CSP", 0);
    if (status_ != 0) handle_ = 0;
}

KspProviderHandle::~KspProviderHandle() {
    if (handle_ != 0) ksp().FreeProvider(handle_);
}

KspKeyHandle::~KspKeyHandle() {
    if (key_ != 0) ksp().FreeKey(provider_, key_);
}

std::wstring widen(const std::string& text) { return std::wstring(text.begin(), text.end()); }

NCRYPT_KEY_HANDLE openKspKey(NCRYPT_PROV_HANDLE provider, const std::string& name, DWORD legacyKeySpec,
                             SECURITY_STATUS* status) {
    NCRYPT_KEY_HANDLE key = 0;
    std::wstring wide = widen(name);
    SECURITY_STATUS result = ksp().OpenKey(provider, &key, wide.c_str(), legacyKeySpec, 0);
    if (status) *status = result;
    return result == 0 ? key : 0;
}

std::string kspKeyProperty(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, const wchar_t* property,
                           SECURITY_STATUS* status) {
    DWORD size = 0;
    SECURITY_STATUS result = ksp().GetKeyProperty(provider, key, property, nullptr, 0, &size, 0);
    std::string value;
    if (result == 0) {
        value.resize(size);
        result = ksp().GetKeyProperty(provider, key, property, reinterpret_cast<PBYTE>(&value[0]), size, &size, 0);
        value.resize(result == 0 ? size : 0);
    }
    if (status) *status = result;
    return value;
}

}  // namespace orvanetest

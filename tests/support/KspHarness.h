// Plays the CNG router for the tests: loads OrvaneCSP.dll, asks GetKeyStorageInterface for the
// function table and drives it as NCrypt would (Wine's ncrypt never routes to a third-party
// key storage provider).
#pragma once

#include <windows.h>

#include <string>

#include "provider/ksp/KspInterface.h"

namespace orvanetest {

// The provider's table, loaded once per process.
const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& ksp();

// An open provider, freed at the end of the scope.
class KspProviderHandle {
public:
    KspProviderHandle();  // opens; status() tells how it went
    ~KspProviderHandle();
    KspProviderHandle(const KspProviderHandle&) = delete;
    KspProviderHandle& operator=(const KspProviderHandle&) = delete;
    NCRYPT_PROV_HANDLE get() const { return handle_; }
    SECURITY_STATUS status() const { return status_; }

private:
    NCRYPT_PROV_HANDLE handle_ = 0;
    SECURITY_STATUS status_ = 0;
};

// A key handle of a provider, freed at the end of the scope.
class KspKeyHandle {
public:
    KspKeyHandle(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key) : provider_(provider), key_(key) {}
    ~KspKeyHandle();
    KspKeyHandle(const KspKeyHandle&) = delete;
    KspKeyHandle& operator=(const KspKeyHandle&) = delete;
    NCRYPT_KEY_HANDLE get() const { return key_; }

private:
    NCRYPT_PROV_HANDLE provider_;
    NCRYPT_KEY_HANDLE key_;
};

// KSPOpenKey by name (hex key id or label); 0 with the status in *status when it fails.
NCRYPT_KEY_HANDLE openKspKey(NCRYPT_PROV_HANDLE provider, const std::string& name, DWORD legacyKeySpec = 0,
                             SECURITY_STATUS* status = nullptr);

// A key property as bytes (size query first, as NCrypt does); empty on failure.
std::string kspKeyProperty(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, const wchar_t* property,
                           SECURITY_STATUS* status = nullptr);

std::wstring widen(const std::string& text);

}  // namespace orvanetest

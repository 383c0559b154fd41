// Not built yet: each entry refuses with NTE_NOT_SUPPORTED.
#include "provider/ksp/KspEntries.h"
#include "provider/ksp/KspResult.h"

namespace orvane::ksp {

SECURITY_STATUS WINAPI KSPGetKeyProperty(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, LPCWSTR, PBYTE, DWORD, DWORD*, DWORD) {
    return guardEntry("KSPGetKeyProperty", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPSetKeyProperty(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, LPCWSTR, PBYTE, DWORD, DWORD) {
    return guardEntry("KSPSetKeyProperty", [] { return NTE_NOT_SUPPORTED; });
}

}  // namespace orvane::ksp

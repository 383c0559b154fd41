// Not built yet: each entry refuses with NTE_NOT_SUPPORTED.
#include "provider/ksp/KspEntries.h"
#include "provider/ksp/KspResult.h"

namespace orvane::ksp {

SECURITY_STATUS WINAPI KSPOpenKey(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE*, LPCWSTR, DWORD, DWORD) {
    return guardEntry("KSPOpenKey", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPCreatePersistedKey(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE*, LPCWSTR, LPCWSTR, DWORD, DWORD) {
    return guardEntry("KSPCreatePersistedKey", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPFinalizeKey(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, DWORD) {
    return guardEntry("KSPFinalizeKey", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPDeleteKey(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, DWORD) {
    return guardEntry("KSPDeleteKey", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPFreeKey(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE) {
    return guardEntry("KSPFreeKey", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPEnumKeys(NCRYPT_PROV_HANDLE, LPCWSTR, NCryptKeyName**, PVOID*, DWORD) {
    return guardEntry("KSPEnumKeys", [] { return NTE_NOT_SUPPORTED; });
}

}  // namespace orvane::ksp

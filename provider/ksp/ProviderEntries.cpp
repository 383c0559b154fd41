// Not built yet: each entry refuses with NTE_NOT_SUPPORTED.
#include "provider/ksp/KspEntries.h"
#include "provider/ksp/KspResult.h"

namespace orvane::ksp {

SECURITY_STATUS WINAPI KSPOpenProvider(NCRYPT_PROV_HANDLE*, LPCWSTR, DWORD) {
    return guardEntry("KSPOpenProvider", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPFreeProvider(NCRYPT_PROV_HANDLE) {
    return guardEntry("KSPFreeProvider", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPGetProviderProperty(NCRYPT_PROV_HANDLE, LPCWSTR, PBYTE, DWORD, DWORD*, DWORD) {
    return guardEntry("KSPGetProviderProperty", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPSetProviderProperty(NCRYPT_PROV_HANDLE, LPCWSTR, PBYTE, DWORD, DWORD) {
    return guardEntry("KSPSetProviderProperty", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPFreeBuffer(PVOID) {
    return guardEntry("KSPFreeBuffer", [] { return NTE_NOT_SUPPORTED; });
}

}  // namespace orvane::ksp

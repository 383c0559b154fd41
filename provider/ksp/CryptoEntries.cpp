// Not built yet: each entry refuses with NTE_NOT_SUPPORTED.
#include "provider/ksp/KspEntries.h"
#include "provider/ksp/KspResult.h"

namespace orvane::ksp {

SECURITY_STATUS WINAPI KSPEncrypt(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, PBYTE, DWORD, VOID*, PBYTE, DWORD, DWORD*, DWORD) {
    return guardEntry("KSPEncrypt", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPDecrypt(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, PBYTE, DWORD, VOID*, PBYTE, DWORD, DWORD*, DWORD) {
    return guardEntry("KSPDecrypt", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPSignHash(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, VOID*, PBYTE, DWORD, PBYTE, DWORD, DWORD*, DWORD) {
    return guardEntry("KSPSignHash", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPVerifySignature(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, VOID*, PBYTE, DWORD, PBYTE, DWORD, DWORD) {
    return guardEntry("KSPVerifySignature", [] { return NTE_NOT_SUPPORTED; });
}

}  // namespace orvane::ksp

// Not built yet: each entry refuses with NTE_NOT_SUPPORTED.
#include "provider/ksp/KspEntries.h"
#include "provider/ksp/KspResult.h"

namespace orvane::ksp {

SECURITY_STATUS WINAPI KSPImportKey(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, LPCWSTR, NCryptBufferDesc*, NCRYPT_KEY_HANDLE*, PBYTE, DWORD, DWORD) {
    return guardEntry("KSPImportKey", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPExportKey(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, NCRYPT_KEY_HANDLE, LPCWSTR, NCryptBufferDesc*, PBYTE, DWORD, DWORD*, DWORD) {
    return guardEntry("KSPExportKey", [] { return NTE_NOT_SUPPORTED; });
}

}  // namespace orvane::ksp

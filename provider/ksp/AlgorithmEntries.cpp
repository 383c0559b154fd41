// Not built yet: each entry refuses with NTE_NOT_SUPPORTED.
#include "provider/ksp/KspEntries.h"
#include "provider/ksp/KspResult.h"

namespace orvane::ksp {

SECURITY_STATUS WINAPI KSPIsAlgSupported(NCRYPT_PROV_HANDLE, LPCWSTR, DWORD) {
    return guardEntry("KSPIsAlgSupported", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPEnumAlgorithms(NCRYPT_PROV_HANDLE, DWORD, DWORD*, NCryptAlgorithmName**, DWORD) {
    return guardEntry("KSPEnumAlgorithms", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPPromptUser(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, LPCWSTR, DWORD) {
    return guardEntry("KSPPromptUser", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPNotifyChangeKey(NCRYPT_PROV_HANDLE, HANDLE*, DWORD) {
    return guardEntry("KSPNotifyChangeKey", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPSecretAgreement(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, NCRYPT_KEY_HANDLE, NCRYPT_SECRET_HANDLE*, DWORD) {
    return guardEntry("KSPSecretAgreement", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPDeriveKey(NCRYPT_PROV_HANDLE, NCRYPT_SECRET_HANDLE, LPCWSTR, NCryptBufferDesc*, PBYTE, DWORD, DWORD*, ULONG) {
    return guardEntry("KSPDeriveKey", [] { return NTE_NOT_SUPPORTED; });
}

SECURITY_STATUS WINAPI KSPFreeSecret(NCRYPT_PROV_HANDLE, NCRYPT_SECRET_HANDLE) {
    return guardEntry("KSPFreeSecret", [] { return NTE_NOT_SUPPORTED; });
}

}  // namespace orvane::ksp

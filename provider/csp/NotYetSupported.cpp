// Entry points that this build does not offer yet: each refuses cleanly with NTE_NOT_SUPPORTED.
#include "provider/csp/CspInterface.h"

namespace {

BOOL notSupported() {
    SetLastError(static_cast<DWORD>(NTE_NOT_SUPPORTED));
    return FALSE;
}

}  // namespace

BOOL WINAPI CPGenKey(HCRYPTPROV, ALG_ID, DWORD, HCRYPTKEY*) { return notSupported(); }
BOOL WINAPI CPDeriveKey(HCRYPTPROV, ALG_ID, HCRYPTHASH, DWORD, HCRYPTKEY*) { return notSupported(); }
BOOL WINAPI CPDestroyKey(HCRYPTPROV, HCRYPTKEY) { return notSupported(); }
BOOL WINAPI CPSetKeyParam(HCRYPTPROV, HCRYPTKEY, DWORD, const BYTE*, DWORD) { return notSupported(); }
BOOL WINAPI CPGetKeyParam(HCRYPTPROV, HCRYPTKEY, DWORD, BYTE*, DWORD*, DWORD) { return notSupported(); }
BOOL WINAPI CPSetProvParam(HCRYPTPROV, DWORD, const BYTE*, DWORD) { return notSupported(); }
BOOL WINAPI CPGetProvParam(HCRYPTPROV, DWORD, BYTE*, DWORD*, DWORD) { return notSupported(); }
BOOL WINAPI CPSetHashParam(HCRYPTPROV, HCRYPTHASH, DWORD, const BYTE*, DWORD) { return notSupported(); }
BOOL WINAPI CPGetHashParam(HCRYPTPROV, HCRYPTHASH, DWORD, BYTE*, DWORD*, DWORD) { return notSupported(); }
BOOL WINAPI CPExportKey(HCRYPTPROV, HCRYPTKEY, HCRYPTKEY, DWORD, DWORD, BYTE*, DWORD*) { return notSupported(); }
BOOL WINAPI CPImportKey(HCRYPTPROV, const BYTE*, DWORD, HCRYPTKEY, DWORD, HCRYPTKEY*) { return notSupported(); }
BOOL WINAPI CPEncrypt(HCRYPTPROV, HCRYPTKEY, HCRYPTHASH, BOOL, DWORD, BYTE*, DWORD*, DWORD) { return notSupported(); }
BOOL WINAPI CPDecrypt(HCRYPTPROV, HCRYPTKEY, HCRYPTHASH, BOOL, DWORD, BYTE*, DWORD*) { return notSupported(); }
BOOL WINAPI CPCreateHash(HCRYPTPROV, ALG_ID, HCRYPTKEY, DWORD, HCRYPTHASH*) { return notSupported(); }
BOOL WINAPI CPHashData(HCRYPTPROV, HCRYPTHASH, const BYTE*, DWORD, DWORD) { return notSupported(); }
BOOL WINAPI CPHashSessionKey(HCRYPTPROV, HCRYPTHASH, HCRYPTKEY, DWORD) { return notSupported(); }
BOOL WINAPI CPSignHash(HCRYPTPROV, HCRYPTHASH, DWORD, LPCWSTR, DWORD, BYTE*, DWORD*) { return notSupported(); }
BOOL WINAPI CPDestroyHash(HCRYPTPROV, HCRYPTHASH) { return notSupported(); }
BOOL WINAPI CPVerifySignature(HCRYPTPROV, HCRYPTHASH, const BYTE*, DWORD, HCRYPTKEY, LPCWSTR, DWORD) {
    return notSupported();
}
BOOL WINAPI CPGenRandom(HCRYPTPROV, DWORD, BYTE*) { return notSupported(); }
BOOL WINAPI CPGetUserKey(HCRYPTPROV, DWORD, HCRYPTKEY*) { return notSupported(); }
BOOL WINAPI CPDuplicateHash(HCRYPTPROV, HCRYPTHASH, DWORD*, DWORD, HCRYPTHASH*) { return notSupported(); }
BOOL WINAPI CPDuplicateKey(HCRYPTPROV, HCRYPTKEY, DWORD*, DWORD, HCRYPTKEY*) { return notSupported(); }

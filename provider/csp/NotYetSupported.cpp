// Entry points that this build does not offer yet: each refuses cleanly with NTE_NOT_SUPPORTED.
#include "provider/csp/CspInterface.h"

namespace {

BOOL notSupported() {
    SetLastError(static_cast<DWORD>(NTE_NOT_SUPPORTED));
    return FALSE;
}

}  // namespace

BOOL WINAPI CPDeriveKey(HCRYPTPROV, ALG_ID, HCRYPTHASH, DWORD, HCRYPTKEY*) { return notSupported(); }
BOOL WINAPI CPSetProvParam(HCRYPTPROV, DWORD, const BYTE*, DWORD) { return notSupported(); }
BOOL WINAPI CPGetProvParam(HCRYPTPROV, DWORD, BYTE*, DWORD*, DWORD) { return notSupported(); }
BOOL WINAPI CPExportKey(HCRYPTPROV, HCRYPTKEY, HCRYPTKEY, DWORD, DWORD, BYTE*, DWORD*) { return notSupported(); }
BOOL WINAPI CPImportKey(HCRYPTPROV, const BYTE*, DWORD, HCRYPTKEY, DWORD, HCRYPTKEY*) { return notSupported(); }
BOOL WINAPI CPHashSessionKey(HCRYPTPROV, HCRYPTHASH, HCRYPTKEY, DWORD) { return notSupported(); }
BOOL WINAPI CPGenRandom(HCRYPTPROV, DWORD, BYTE*) { return notSupported(); }
BOOL WINAPI CPDuplicateKey(HCRYPTPROV, HCRYPTKEY, DWORD*, DWORD, HCRYPTKEY*) { return notSupported(); }

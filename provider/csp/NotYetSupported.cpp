// Entry points that this build does not offer yet: each refuses cleanly with NTE_NOT_SUPPORTED.
#include "provider/csp/CspInterface.h"
#include "provider/csp/CspResult.h"

using namespace orvane::csp;

namespace {

BOOL notSupported(const char* entryName) {
    return guardEntry(entryName, [] { return failWith(NTE_NOT_SUPPORTED); });
}

}  // namespace

BOOL WINAPI CPDeriveKey(HCRYPTPROV, ALG_ID, HCRYPTHASH, DWORD, HCRYPTKEY*) { return notSupported("CPDeriveKey"); }
BOOL WINAPI CPSetProvParam(HCRYPTPROV, DWORD, const BYTE*, DWORD) { return notSupported("CPSetProvParam"); }
BOOL WINAPI CPGetProvParam(HCRYPTPROV, DWORD, BYTE*, DWORD*, DWORD) { return notSupported("CPGetProvParam"); }
BOOL WINAPI CPExportKey(HCRYPTPROV, HCRYPTKEY, HCRYPTKEY, DWORD, DWORD, BYTE*, DWORD*) {
    return notSupported("CPExportKey");
}
BOOL WINAPI CPImportKey(HCRYPTPROV, const BYTE*, DWORD, HCRYPTKEY, DWORD, HCRYPTKEY*) {
    return notSupported("CPImportKey");
}
BOOL WINAPI CPHashSessionKey(HCRYPTPROV, HCRYPTHASH, HCRYPTKEY, DWORD) { return notSupported("CPHashSessionKey"); }
BOOL WINAPI CPGenRandom(HCRYPTPROV, DWORD, BYTE*) { return notSupported("CPGenRandom"); }
BOOL WINAPI CPDuplicateKey(HCRYPTPROV, HCRYPTKEY, DWORD*, DWORD, HCRYPTKEY*) { return notSupported("CPDuplicateKey"); }

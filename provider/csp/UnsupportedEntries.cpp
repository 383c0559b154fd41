// The entries that exist only to complete the set and always refuse, each with its own code.
// CPDuplicateKey is not offered: advapi32 copes with its absence, and a key handle is a
// snapshot that a caller can take again with CPGetUserKey.
#include "provider/csp/CspInterface.h"
#include "provider/csp/CspResult.h"

using namespace orvane::csp;

BOOL WINAPI CPDeriveKey(HCRYPTPROV, ALG_ID, HCRYPTHASH, DWORD, HCRYPTKEY*) {
    return guardEntry("CPDeriveKey", [] { return failWith(NTE_NOT_SUPPORTED); });
}

BOOL WINAPI CPHashSessionKey(HCRYPTPROV, HCRYPTHASH, HCRYPTKEY, DWORD) {
    return guardEntry("CPHashSessionKey", [] { return failWith(static_cast<DWORD>(ERROR_CALL_NOT_IMPLEMENTED)); });
}

BOOL WINAPI CPDuplicateKey(HCRYPTPROV, HCRYPTKEY, DWORD*, DWORD, HCRYPTKEY*) {
    return guardEntry("CPDuplicateKey", [] { return failWith(NTE_NOT_SUPPORTED); });
}

// CPDuplicateKey is not offered: advapi32 copes with its absence, and a key handle is a
// snapshot that a caller can take again with CPGetUserKey.
#include "provider/csp/CspInterface.h"
#include "provider/csp/CspResult.h"

using namespace orvane::csp;

BOOL WINAPI CPDuplicateKey(HCRYPTPROV, HCRYPTKEY, DWORD*, DWORD, HCRYPTKEY*) {
    return guardEntry("CPDuplicateKey", [] { return failWith(NTE_NOT_SUPPORTED); });
}

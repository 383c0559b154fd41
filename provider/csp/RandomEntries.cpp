// CPGenRandom, filled by the token's generator, and the two entries that exist only to
// complete the set and always refuse, each with its own code.
#include "diagnostics/Log.h"
#include "provider/csp/CspContext.h"
#include "provider/csp/CspInterface.h"
#include "provider/csp/CspResult.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvane::csp;

BOOL WINAPI CPGenRandom(HCRYPTPROV hProv, DWORD dwLen, BYTE* pbBuffer) {
    return guardEntry("CPGenRandom", [&]() -> BOOL {
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) return failWith(NTE_BAD_UID);
        if (pbBuffer == nullptr || dwLen == 0 || dwLen > 0x7FFFFFFF)
            return failWith(static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        int result = orvane_generateRamdomNumber(context->serialNumber.c_str(), static_cast<int>(dwLen), pbBuffer,
                                                 !useHardwareRng.load(), context->libraryContext);
        if (result != 0) {
            Utils::logError("Random number generation failed: " + std::to_string(result));
            return failWith(NTE_PROVIDER_DLL_FAIL);
        }
        return TRUE;
    });
}

BOOL WINAPI CPDeriveKey(HCRYPTPROV, ALG_ID, HCRYPTHASH, DWORD, HCRYPTKEY*) {
    return guardEntry("CPDeriveKey", [] { return failWith(NTE_NOT_SUPPORTED); });
}

BOOL WINAPI CPHashSessionKey(HCRYPTPROV, HCRYPTHASH, HCRYPTKEY, DWORD) {
    return guardEntry("CPHashSessionKey", [] { return failWith(static_cast<DWORD>(ERROR_CALL_NOT_IMPLEMENTED)); });
}

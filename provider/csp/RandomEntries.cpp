// CPGenRandom, filled by the token's generator.
#include "diagnostics/Log.h"
#include "provider/csp/CspContext.h"
#include "provider/csp/CspInterface.h"
#include "provider/csp/CspResult.h"
#include "token/TokenRequests.h"

using namespace orvane;
using namespace orvane::csp;

BOOL WINAPI CPGenRandom(HCRYPTPROV hProv, DWORD dwLen, BYTE* pbBuffer) {
    return guardEntry("CPGenRandom", [&]() -> BOOL {
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) return failWith(NTE_BAD_UID);
        if (pbBuffer == nullptr || dwLen == 0 || dwLen > 0x7FFFFFFF)
            return failWith(static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        int result = generateRandom(context->serialNumber, pbBuffer, dwLen, !useHardwareRng.load(), context->libraryContext);
        if (result != 0) {
            Utils::logError("Random number generation failed: " + std::to_string(result));
            return failWith(NTE_PROVIDER_DLL_FAIL);
        }
        return TRUE;
    });
}

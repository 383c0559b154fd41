// CPAcquireContext and CPReleaseContext: opening a context initialises every connected token
// once per process, starts the device monitor and binds the context to the token that holds
// the named container.
#include <memory>
#include <new>

#include "diagnostics/Log.h"
#include "provider/csp/CspContext.h"
#include "provider/csp/CspInterface.h"
#include "provider/csp/CspResult.h"
#include "token/KeyPairFacts.h"
#include "token/OrvaneDSCLibrary.h"
#include "token/Devices.h"
#include "token/KeySearch.h"
#include "token/Sessions.h"

using namespace orvane;
using namespace orvane::csp;

namespace {

// The provider's answer when no usable token is connected.
const HRESULT kNoUsableToken = NTE_TOKEN_KEYSET_STORAGE_FULL;
const uint32_t kKeysetType = 0x1000;

std::string loggedContainerName(LPCSTR szContainer) {
    if (szContainer == nullptr) {
        Utils::logMessage("CPAcquireContext - Container name not provided");
        return std::string();
    }
    std::string containerName = szContainer;
    Utils::logMessage("CPAcquireContext - Container name : " + escapeControlCharacters(containerName));
    return containerName;
}

// The names PP_ENUMCONTAINERS hands out for the context's life, each logged as it is read.
std::vector<std::string> listContainerNames(const CspContext& context) {
    std::vector<OrvaneKeyPair> keyPairs = readKeyPairs(context.serialNumber, context.libraryContext);
    if (keyPairs.empty()) Utils::logMessage("Acquire Context :: Key List is empty");
    std::vector<std::string> names;
    for (const OrvaneKeyPair& keyPair : keyPairs) {
        names.push_back(containerNameOf(keyPair));
        Utils::logMessage(names.back());
    }
    return names;
}

}  // namespace

BOOL WINAPI CPAcquireContext(HCRYPTPROV* phProv, LPCSTR szContainer, DWORD dwFlags, VTableProvStruc* pVTable) {
    return guardEntry("CPAcquireContext", [&]() -> BOOL {
        if (phProv == nullptr || pVTable == nullptr) return failWith(static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        // No flag changes the behaviour: key sets live on the token and are neither created nor deleted here.
        Utils::logMessage("CPAcquireContext - dwFlags : " + std::to_string(dwFlags));

        std::unique_ptr<CspContext> context(new (std::nothrow) CspContext);
        if (!context) return failWith(NTE_NO_MEMORY);
        if (!initializeConnectedDevices(context->libraryContext, kCspDeviceInitTexts)) return failWith(kNoUsableToken);

        std::string containerName = loggedContainerName(szContainer);
        context->serialNumber = findSerialForContainer(containerName);
        if (context->serialNumber.empty()) {
            Utils::logError("No initialized device found");
            return failWith(kNoUsableToken);
        }

        context->containerNames = listContainerNames(*context);
        context->containerName = containerName;
        context->keysetType = kKeysetType;
        context->isInitialized = true;
        *phProv = reinterpret_cast<HCRYPTPROV>(context.release());
        return TRUE;
    });
}

BOOL WINAPI CPReleaseContext(HCRYPTPROV hProv, DWORD dwFlags) {
    return guardEntry("CPReleaseContext", [&]() -> BOOL {
        if (dwFlags != 0) return failWith(NTE_BAD_FLAGS);
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) return failWith(NTE_BAD_UID);
        // The token stays initialised and its PIN cached: sessions outlive contexts.
        releaseContext(context);
        return TRUE;
    });
}

// The DER public key of a key handle, with the form decision logged in the caller's words.
#pragma once

#include "diagnostics/Log.h"
#include "encoding/PublicKeyForm.h"
#include "provider/csp/CspKey.h"

namespace orvane::csp {

inline Bytes publicKeyDerOf(const CspKey& key, const char* alreadyDerLogLine, const char* convertingLogLine) {
    bool isDer = isStoredPublicKeyDer(key.pair.publicKey, key.pair.publicKeyLength);
    Utils::logMessage(isDer ? alreadyDerLogLine : convertingLogLine);
    return publicKeyAsDer(key.pair.publicKey, key.pair.publicKeyLength);
}

}  // namespace orvane::csp

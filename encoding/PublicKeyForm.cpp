#include "encoding/PublicKeyForm.h"

#include "diagnostics/Utils.h"
#include "encoding/Hex.h"

namespace orvane {

const PublicKeyFormLog kCspPublicKeyFormLog = {"CSP: Public key is already DER encoded",
                                               "CSP: Public key is raw modulus, converting to DER"};
const PublicKeyFormLog kVerifyPublicKeyFormLog = {"Public key is already DER encoded",
                                                  "Public key is not DER encoded, converting to DER"};

bool isStoredPublicKeyDer(const unsigned char* stored, size_t length) { return length < 1 || stored[0] == 0x30; }

Bytes publicKeyAsDer(const unsigned char* stored, size_t length, const PublicKeyFormLog& log) {
    if (isStoredPublicKeyDer(stored, length)) {
        Utils::logMessage(log.alreadyDer);
        return Bytes(stored, stored + length);
    }
    Utils::logMessage(log.converting);
    return modulusAsDer(stored, length);
}

Bytes modulusAsDer(const unsigned char* modulus, size_t length) {
    return encodeRsaPublicKeyDer(toHex(modulus, length), "010001");
}

}  // namespace orvane

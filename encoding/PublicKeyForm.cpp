#include "encoding/PublicKeyForm.h"


namespace orvane {

const Bytes kRsaPublicExponent = {0x01, 0x00, 0x01};

bool isStoredPublicKeyDer(const unsigned char* stored, size_t length) { return length < 1 || stored[0] == 0x30; }

Bytes publicKeyAsDer(const unsigned char* stored, size_t length) {
    if (isStoredPublicKeyDer(stored, length)) return Bytes(stored, stored + length);
    return modulusAsDer(stored, length);
}

Bytes modulusAsDer(const unsigned char* modulus, size_t length) {
    return encodeRsaPublicKeyDer(Bytes(modulus, modulus + length), kRsaPublicExponent);
}

}  // namespace orvane

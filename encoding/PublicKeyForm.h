// The token keeps a public key either as DER or as a bare big-endian RSA modulus. A stored
// key counts as DER when it is empty or begins with 0x30; anything else is a modulus and is
// encoded as SubjectPublicKeyInfo with exponent 65537.
#pragma once

#include <cstddef>

#include "encoding/Der.h"

namespace orvane {

bool isStoredPublicKeyDer(const unsigned char* stored, size_t length);

// Each caller logs the decision in its own words.
struct PublicKeyFormLog {
    const char* alreadyDer;
    const char* converting;
};
extern const PublicKeyFormLog kCspPublicKeyFormLog;     // encryption
extern const PublicKeyFormLog kVerifyPublicKeyFormLog;  // signature verification

Bytes publicKeyAsDer(const unsigned char* stored, size_t length, const PublicKeyFormLog& log);
// A stored modulus, always encoded (no form decision).
Bytes modulusAsDer(const unsigned char* modulus, size_t length);

}  // namespace orvane

// The token keeps a public key either as DER or as a bare big-endian RSA modulus. A stored
// key counts as DER when it is empty or begins with 0x30; anything else is a modulus and is
// encoded as SubjectPublicKeyInfo with exponent 65537. The provider and the software token
// share this rule; each provider face logs the decision in its own words.
#pragma once

#include <cstddef>

#include "encoding/Der.h"

namespace orvane {

// 65537, big-endian: the exponent of every key the token keeps as a bare modulus.
extern const Bytes kRsaPublicExponent;

bool isStoredPublicKeyDer(const unsigned char* stored, size_t length);

// The DER form of a stored public key, whichever form it is kept in.
Bytes publicKeyAsDer(const unsigned char* stored, size_t length);
// A stored modulus, always encoded (no form decision).
Bytes modulusAsDer(const unsigned char* modulus, size_t length);

}  // namespace orvane

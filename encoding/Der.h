// Minimal DER writing over byte vectors: enough for SubjectPublicKeyInfo.
#pragma once

#include <cstddef>
#include <vector>

namespace orvane {

using Bytes = std::vector<unsigned char>;

// Definite-form length: one byte below 128, else 0x80 + count followed by the big-endian count.
Bytes derLength(size_t length);

// INTEGER of a big-endian magnitude: 0x00 goes in front when the top bit is set;
// leading zero bytes already present are kept.
Bytes derInteger(const Bytes& magnitude);

// tag, length, content.
Bytes derWrap(unsigned char tag, const Bytes& content);

// SubjectPublicKeyInfo (rsaEncryption, NULL parameters) for a big-endian modulus and exponent.
Bytes encodeRsaPublicKeyDer(const Bytes& modulus, const Bytes& exponent);

// ECDSA-Sig-Value (SEQUENCE of INTEGER r, INTEGER s) of a signature given as r || s with
// halves of equal length, as the token makes it: the form OpenSSL and X.509 expect.
Bytes encodeEcdsaSignatureDer(const Bytes& rs);

}  // namespace orvane

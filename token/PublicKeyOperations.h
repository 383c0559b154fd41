// Encryption and signature verification with the public half of a key, for both faces. The
// token library does the arithmetic on a DER SubjectPublicKeyInfo; the ciphertext it writes
// is modulus-sized and stays in a buffer of ours until its length is known to be sound.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "token/KeyPairFacts.h"
#include "token/OrvaneDSCLibrary.h"

namespace orvane {

// The CryptoAPI face always hands orvane_verifySignatureHash a 2 as its first argument, where
// the CNG face hands its key's type. What the library makes of the 2 is its own business.
const unsigned int kCspVerifyFirstArgument = 2;

// The DER public key of a key handle, whichever form the token keeps it in, with the form
// decision logged in the face's own words.
std::vector<unsigned char> publicKeyDerOf(const KeyPairSnapshot& key, const char* alreadyDerLogLine,
                                          const char* convertingLogLine);

// orvane_encrypt's first argument for a key size in bits; RSA-2048's for any size not in the table.
EncryptionType encryptionTypeForSize(uint32_t bits);

struct PublicKeyEncryption {
    int libraryResult = 0;          // what orvane_encrypt answered
    bool lengthImpossible = false;  // it answered success with a length it cannot have written
    std::vector<unsigned char> cipher;  // big-endian, as the token wrote it
    bool ok() const { return libraryResult == 0 && !lengthImpossible; }
};

// orvane_encrypt of plain under the DER public key; `size` picks the encryption type, and the
// library writes into at least `capacity` bytes.
PublicKeyEncryption encryptWithPublicKey(uint32_t size, size_t capacity, PaddingMode padding, const unsigned char* plain,
                                         size_t plainLength, const std::vector<unsigned char>& derPublicKey,
                                         void* libraryContext);

// orvane_verifySignatureHash of a big-endian signature over a digest, with a null library
// context as both faces pass it; 0 when the signature is valid.
int verifyWithPublicKey(unsigned int firstArgument, const std::string& serial, const unsigned char* digest,
                        size_t digestLength, const std::vector<unsigned char>& derPublicKey,
                        const unsigned char* signature, size_t signatureLength);

}  // namespace orvane

// Symmetric keys on the token, for both faces: decrypting with a key the caller imported
// (the key bytes are handed to the token with the data) and storing an AES key on the token.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "token/OrvaneDSCLibrary.h"
#include "token/SecretBytes.h"

namespace orvane {

struct SymmetricDecryption {
    int result = 0;  // the library's result, or kImpossibleLibraryAnswer
    SecretBuffer plain;
};

// orvane_decryptSymetric into `capacity` bytes; an empty IV goes to the library as null.
SymmetricDecryption decryptSymmetric(const std::string& serial, const unsigned char* cipher, size_t cipherLength,
                                     size_t capacity, const std::vector<unsigned char>& iv, const unsigned char* key,
                                     size_t keyLength, void* libraryContext);

// orvane_importAesKey of raw key bytes (at most the record's 128) as a key of the given type,
// with the token's cached PIN. The record comes back as the library filled it; it is wiped
// when the token refuses it. Returns the library's result.
int storeAesKey(const std::string& serial, void* libraryContext, const unsigned char* keyBytes, size_t keyLength,
                int32_t keyType, OrvaneSymmetricKey& stored);

}  // namespace orvane

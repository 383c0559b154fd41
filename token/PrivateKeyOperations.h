// Signing and decryption with a private key on the token, for both faces: the cached PIN,
// the single retry after an expired sign-on, and the buffers the library writes or hands
// out, which stay here so that nothing the library returns can overrun a caller's buffer.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "token/SecretBytes.h"

namespace orvane {

// Answer given when the library reports success with a length it cannot have produced.
const int kImpossibleLibraryAnswer = -1;

struct PrivateKeyResult {
    bool pinCheckFailed = false;  // the renewed PIN check after an expired sign-on failed
    int result = 0;               // the library's final result, or kImpossibleLibraryAnswer
    SecretBuffer output;  // a signature, or plaintext: wiped when released either way
};

struct PrivateKeyCall {
    const std::string& serial;
    void* libraryContext;
    const unsigned char* keyId;  // 16 bytes
    bool tokenFlag;
    const char* expiredLogLine;  // written when the sign-on expired; null: no retry at all
    std::function<bool()> ensurePinValidated;
};

// orvane_signHash of a bare digest, the library told `capacity` as the signature length, or
// twice the token's largest signature when `capacity` is longer.
PrivateKeyResult signWithTokenKey(const PrivateKeyCall& call, const std::vector<unsigned char>& digest, size_t capacity);

// orvane_decrypt of big-endian ciphertext; afterCallLogLine (may be null) follows each call.
PrivateKeyResult decryptOnToken(const PrivateKeyCall& call, const std::vector<unsigned char>& cipher,
                                const char* afterCallLogLine);

}  // namespace orvane

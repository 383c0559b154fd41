// A symmetric key wrapped under a key-encryption key that already lives on the token: every
// AES key of the token is tried as KEK, in token order, until the token accepts one; the
// unwrapped key is then stored on the token as a new AES key. Both faces use it with their
// own log wording and their own rule for the stored key's type.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "token/OrvaneDSCLibrary.h"
#include "token/SecretBytes.h"

namespace orvane {

struct UnwrapTexts {
    const char* wrappedLengthPrefix;  // followed by the wrapped length
    const char* noKek;                // failure line when no AES key unwraps it
    const char* successPrefix;        // followed by the KEK's hex id
    const char* importFailed;         // failure line when the token refuses the new key
};
extern const UnwrapTexts kCspUnwrapTexts;
extern const UnwrapTexts kKspUnwrapTexts;

enum class UnwrapOutcome { kStored, kNoKek, kImportFailed };

struct UnwrappedKey {
    UnwrapOutcome outcome = UnwrapOutcome::kNoKek;
    SecretRecord<OrvaneSymmetricKey> stored;  // the record the token filled in, when stored
};

// keyTypeFor maps the unwrapped key's length to the token key type to store it as.
UnwrappedKey unwrapAndStoreAesKey(const std::string& serial, void* libraryContext,
                                  const std::vector<unsigned char>& wrapped, const UnwrapTexts& texts,
                                  const std::function<int32_t(size_t unwrappedLength)>& keyTypeFor);

}  // namespace orvane

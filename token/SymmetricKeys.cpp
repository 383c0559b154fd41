#include "token/SymmetricKeys.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "token/PrivateKeyOperations.h"
#include "token/Sessions.h"

namespace orvane {

SymmetricDecryption decryptSymmetric(const std::string& serial, const unsigned char* cipher, size_t cipherLength,
                                     size_t capacity, const std::vector<unsigned char>& iv, const unsigned char* key,
                                     size_t keyLength, void* libraryContext) {
    SymmetricDecryption outcome;
    SecretBuffer plain(capacity);
    int plainLength = static_cast<int>(std::min<size_t>(plain.size(), 0x7FFFFFFF));
    outcome.result = orvane_decryptSymetric(serial.c_str(), cipher, static_cast<int>(cipherLength), plain.data(),
                                            &plainLength, iv.empty() ? nullptr : iv.data(), static_cast<int>(iv.size()),
                                            key, static_cast<int>(keyLength), libraryContext);
    if (outcome.result == 0 && (plainLength < 0 || static_cast<size_t>(plainLength) > plain.size()))
        outcome.result = kImpossibleLibraryAnswer;
    if (outcome.result == 0) {
        plain.resize(static_cast<size_t>(plainLength));  // shrinks in place; the whole block is wiped on release
        outcome.plain = std::move(plain);
    }
    return outcome;
}

int storeAesKey(const std::string& serial, void* libraryContext, const unsigned char* keyBytes, size_t keyLength,
                int32_t keyType, OrvaneSymmetricKey& stored) {
    stored = OrvaneSymmetricKey{};
    size_t length = std::min(keyLength, sizeof stored.keyData);
    if (length != 0) std::memcpy(stored.keyData, keyBytes, length);
    stored.keyDataLength = static_cast<int32_t>(length);
    stored.keyType = keyType;
    stored.keyFlag = false;
    int result = orvane_importAesKey(serial.c_str(), getCachedPin(serial).c_str(), &stored, libraryContext);
    if (result != 0) wipeSecret(&stored, sizeof stored);
    return result;
}

}  // namespace orvane

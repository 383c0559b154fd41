#include "token/PublicKeyOperations.h"

#include <windows.h>

#include <algorithm>

#include "diagnostics/Log.h"
#include "encoding/PublicKeyForm.h"
#include "encoding/KeyTypes.h"

namespace orvane {
namespace {

// The largest ciphertext the token makes (RSA-4096): the library writes a modulus-sized
// ciphertext whatever size the caller's key records.
const size_t kLargestCiphertext = 512;

}  // namespace

std::vector<unsigned char> publicKeyDerOf(const KeyPairSnapshot& key, const char* alreadyDerLogLine,
                                          const char* convertingLogLine) {
    size_t length = std::min<size_t>(key.publicKeyLength, sizeof key.publicKey);
    bool isDer = isStoredPublicKeyDer(key.publicKey, length);
    Utils::logMessage(isDer ? alreadyDerLogLine : convertingLogLine);
    return publicKeyAsDer(key.publicKey, length);
}

EncryptionType encryptionTypeForSize(uint32_t bits) { return static_cast<EncryptionType>(encryptionTypeCodeForSize(bits)); }

PublicKeyEncryption encryptWithPublicKey(uint32_t size, size_t capacity, PaddingMode padding, const unsigned char* plain,
                                         size_t plainLength, const std::vector<unsigned char>& derPublicKey,
                                         void* libraryContext) {
    PublicKeyEncryption outcome;
    std::vector<unsigned char> cipher(std::max(capacity, kLargestCiphertext));
    int cipherLength = 0;
    outcome.libraryResult = orvane_encrypt(encryptionTypeForSize(size), padding, plain, static_cast<int>(plainLength),
                                           cipher.data(), &cipherLength, derPublicKey.data(),
                                           static_cast<int>(derPublicKey.size()), libraryContext);
    outcome.lengthImpossible = cipherLength < 0 || static_cast<size_t>(cipherLength) > cipher.size();
    if (outcome.ok()) outcome.cipher.assign(cipher.begin(), cipher.begin() + cipherLength);
    SecureZeroMemory(cipher.data(), cipher.size());
    return outcome;
}

int verifyWithPublicKey(unsigned int firstArgument, const std::string& serial, const unsigned char* digest,
                        size_t digestLength, const std::vector<unsigned char>& derPublicKey,
                        const unsigned char* signature, size_t signatureLength) {
    return orvane_verifySignatureHash(firstArgument, serial.c_str(), digest, static_cast<int>(digestLength),
                                      derPublicKey.data(), static_cast<int>(derPublicKey.size()), signature,
                                      static_cast<int>(signatureLength), nullptr);
}

}  // namespace orvane

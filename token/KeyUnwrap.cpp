#include "token/KeyUnwrap.h"

#include "diagnostics/Log.h"
#include "encoding/Hex.h"
#include "token/Sessions.h"
#include "token/KeyPairFacts.h"
#include "token/SecretBytes.h"
#include "token/SymmetricKeys.h"

namespace orvane {
namespace {

bool isKekCandidate(const OrvaneSymmetricKey& key) {
    return key.keyType == ORVANE_KEY_AES_128 || key.keyType == ORVANE_KEY_AES_256;
}

}  // namespace

const UnwrapTexts kCspUnwrapTexts = {"SYMMETRICWRAPKEYBLOB: wrapped key length = ",
                                     "Failed to unwrap SYMMETRICWRAPKEYBLOB with any available KEK",
                                     "Successfully unwrapped key with KEK: ", "Import of unwrapped AES key failed"};
const UnwrapTexts kKspUnwrapTexts = {"KSP: BCRYPT_OPAQUE_KEY_BLOB: wrapped key length = ",
                                     "KSP: Failed to unwrap BCRYPT_OPAQUE_KEY_BLOB with any available KEK",
                                     "KSP: Successfully unwrapped key with KEK: ",
                                     "KSP: Import of unwrapped AES key failed"};

UnwrappedKey unwrapAndStoreAesKey(const std::string& serial, void* libraryContext,
                                  const std::vector<unsigned char>& wrapped, const UnwrapTexts& texts,
                                  const std::function<int32_t(size_t unwrappedLength)>& keyTypeFor) {
    UnwrappedKey result;
    Utils::logMessage(texts.wrappedLengthPrefix + std::to_string(wrapped.size()));
    // Our copy of the list holds every AES key of the token in clear.
    const std::vector<OrvaneSymmetricKey>& listed = orvane_getAesKeyList(serial.c_str(), libraryContext);
    const SecretVector<OrvaneSymmetricKey> candidates(listed.begin(), listed.end());
    LibrarySecret unwrapped;
    const OrvaneSymmetricKey* kek = nullptr;
    for (const OrvaneSymmetricKey& candidate : candidates) {
        if (!isKekCandidate(candidate)) continue;
        int kekLength = candidate.keyDataLength;
        if (kekLength < 0 || kekLength > static_cast<int>(sizeof candidate.keyData)) continue;
        unwrapped.release();
        if (orvane_decrypt_aes(serial.c_str(), candidate.keyData, kekLength, wrapped.data(),
                               static_cast<int>(wrapped.size()), &unwrapped.data, &unwrapped.length, candidate.keyFlag,
                               nullptr, 0, libraryContext) == 0) {
            kek = &candidate;
            break;
        }
    }
    // A key that does not fit the token's record cannot be stored: no KEK gave a usable key.
    if (kek == nullptr || unwrapped.length <= 0 || unwrapped.data == nullptr ||
        unwrapped.length > static_cast<int>(sizeof result.stored.value.keyData)) {
        Utils::logError(texts.noKek);
        result.outcome = UnwrapOutcome::kNoKek;
        return result;
    }
    Utils::logMessage(texts.successPrefix + keyIdName(kek->keyId));

    if (storeAesKey(serial, libraryContext, unwrapped.data, static_cast<size_t>(unwrapped.length),
                    keyTypeFor(static_cast<size_t>(unwrapped.length)), result.stored.value) != 0) {
        Utils::logError(texts.importFailed);
        result.outcome = UnwrapOutcome::kImportFailed;
        return result;
    }
    result.outcome = UnwrapOutcome::kStored;
    return result;
}

}  // namespace orvane

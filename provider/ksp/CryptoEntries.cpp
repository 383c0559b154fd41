// KSPEncrypt, KSPDecrypt, KSPSignHash and KSPVerifySignature. CNG hands signatures and
// ciphertexts big-endian, as the token does, so nothing is reversed on this face.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "diagnostics/Log.h"
#include "encoding/CngBlobs.h"
#include "encoding/Der.h"
#include "encoding/Hex.h"
#include "provider/ksp/KspEntries.h"
#include "provider/ksp/KspObjects.h"
#include "provider/ksp/KspResult.h"
#include "token/CurrentIv.h"
#include "token/KeyPairFacts.h"
#include "token/Pin.h"
#include "token/PrivateKeyOperations.h"
#include "token/PublicKeyOperations.h"
#include "token/Sessions.h"
#include "token/SymmetricKeys.h"

namespace orvane::ksp {
namespace {

// Room beyond the ciphertext for a library that writes a block more than it was given.
const size_t kSymmetricSlack = 32;

// A PIN already accepted, or Token Manager's sign-on: either way no dialog would appear.
bool signedOnAlready(const KspProvider& provider) {
    return (isPinValidated(provider.serialNumber) && !getCachedPin(provider.serialNumber).empty()) ||
           isTokenSignedOn(provider.serialNumber, provider.libraryContext);
}

// The silent test, then the sign-on step; 0 when the operation may go on. The token can lose
// its sign-on between the two (unplugged, signed off): a silent call still never prompts.
SECURITY_STATUS signOn(KspProvider& provider, DWORD flags) {
    bool silent = (flags & cng::kSilentFlag) != 0;
    if (silent && !signedOnAlready(provider)) return NTE_SILENT_CONTEXT;
    if (!ensurePinValidated(provider.serialNumber, provider.libraryContext, kKspPinTexts, !silent))
        return silent ? NTE_SILENT_CONTEXT : NTE_FAIL;
    return ERROR_SUCCESS;
}

PrivateKeyCall privateKeyCall(KspProvider& provider, const KspKey& key, bool tokenFlag, DWORD flags,
                              const char* expiredLogLine) {
    bool mayPrompt = (flags & cng::kSilentFlag) == 0;
    return PrivateKeyCall{provider.serialNumber, provider.libraryContext, key.pair.keyId, tokenFlag, expiredLogLine,
                          [&provider, mayPrompt] {
                              return ensurePinValidated(provider.serialNumber, provider.libraryContext, kKspPinTexts,
                                                        mayPrompt);
                          }};
}

Bytes publicKeyDerOf(const KspKey& key) {
    return orvane::publicKeyDerOf(key.pair, "KSP: Public key is already DER encoded",
                                  "KSP: Public key is raw modulus, converting to DER");
}

SECURITY_STATUS decryptWithImportedKey(KspProvider& provider, KspKey& key, const BYTE* pbInput, DWORD cbInput,
                                 PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult) {
    bool ecb = key.chainingMode != 0;
    Utils::logMessage(ecb ? "KSP: Symmetric decrypt ECB mode" : "KSP: Symmetric decrypt CBC mode");
    const std::vector<unsigned char> iv = ecb ? std::vector<unsigned char>() : currentIv();
    size_t keyLength = std::min<size_t>(key.symmetricKeyLength, sizeof key.symmetricKey);
    Utils::logMessage("KSP: Decrypt input iv : " + toHex(iv));
    Utils::logMessage("KSP: Decrypt input key : " + toHex(key.symmetricKey, keyLength));

    SymmetricDecryption decrypted = decryptSymmetric(provider.serialNumber, pbInput, cbInput, size_t{cbInput} + kSymmetricSlack,
                                                     iv, key.symmetricKey, keyLength, provider.libraryContext);
    if (decrypted.result != 0) {
        Utils::logError("KSP: Symmetric decryption failed: " + std::to_string(decrypted.result));
        return NTE_INTERNAL_ERROR;
    }
    DWORD length = static_cast<DWORD>(decrypted.plain.size());
    // A null or short buffer learns the length only after the whole decryption.
    if (pbOutput == nullptr || cbOutput < length) Utils::logMessage("pbOutput == NULL ");
    else Utils::logMessage("KSP: Symmetric decrypt success, length: " + std::to_string(length));
    return copyPropertyValue(decrypted.plain.data(), length, pbOutput, cbOutput, pcbResult);
}

SECURITY_STATUS decryptWithTokenKey(KspProvider& provider, KspKey& key, const BYTE* pbInput, DWORD cbInput,
                                    PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD flags) {
    PrivateKeyResult plain =
        decryptOnToken(privateKeyCall(provider, key, key.pair.tokenFlag, flags, "KSP: Decrypt SSO expired, re-prompting for PIN"),
                       std::vector<unsigned char>(pbInput, pbInput + cbInput), nullptr);
    if (plain.pinCheckFailed) return NTE_FAIL;
    if (plain.result != 0) {
        Utils::logError("KSP: Decrypt failed: " + std::to_string(plain.result));
        return NTE_INTERNAL_ERROR;
    }
    SECURITY_STATUS status =
        copyPropertyValue(plain.output.data(), static_cast<DWORD>(plain.output.size()), pbOutput, cbOutput, pcbResult);
    if (status == ERROR_SUCCESS) Utils::logMessage("KSP: Decrypt success");
    return status;
}

SECURITY_STATUS signDigest(KspProvider& provider, KspKey& key, const BYTE* pbHashValue, DWORD cbHashValue,
                           PBYTE pbSignature, DWORD cbSignature, DWORD* pcbResult, DWORD flags) {
    Utils::logMessage("KSP: SignHash - credential: " + keyIdName(key.pair.keyId));
    Utils::logMessage("KSP: SignHash - hash length: " + std::to_string(cbHashValue));
    // The token's flag is not handed on here: signing always passes false.
    PrivateKeyResult signature =
        signWithTokenKey(privateKeyCall(provider, key, false, flags, "KSP: SignHash SSO expired, re-prompting for PIN"),
                         std::vector<unsigned char>(pbHashValue, pbHashValue + cbHashValue), cbSignature);
    if (signature.pinCheckFailed) return NTE_FAIL;
    if (signature.result != 0) {
        Utils::logError("KSP: Sign hash failed: " + std::to_string(signature.result));
        return NTE_INTERNAL_ERROR;
    }
    SECURITY_STATUS status = copyPropertyValue(signature.output.data(), static_cast<DWORD>(signature.output.size()),
                                               pbSignature, cbSignature, pcbResult);
    if (status == ERROR_SUCCESS) Utils::logMessage("KSP: SignHash success, signature length=" + std::to_string(*pcbResult));
    return status;
}

}  // namespace

SECURITY_STATUS WINAPI KSPEncrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                                  VOID*, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    return guardEntry("KSPEncrypt", [&]() -> SECURITY_STATUS {
        KspProvider* provider = providerFromHandle(hProvider);
        if (provider == nullptr) return NTE_INVALID_HANDLE;
        KspKey* key = keyFromHandle(hKey);
        if (key == nullptr || pcbResult == nullptr) return NTE_INVALID_PARAMETER;

        // The ciphertext is modulus-sized, whatever length the plaintext has.
        DWORD size = key->pair.bitLength / 8;
        if (std::optional<SECURITY_STATUS> sizeOnly = answerSizeOnly(size, pbOutput, cbOutput, pcbResult)) return *sizeOnly;
        if (pbInput == nullptr || cbInput == 0) return NTE_INVALID_PARAMETER;
        if (SECURITY_STATUS refused = signOn(*provider, dwFlags)) return refused;

        PublicKeyEncryption encrypted =
            encryptWithPublicKey(key->pair.bitLength, size, static_cast<PaddingMode>(cng::paddingModeForFlags(dwFlags)),
                                 pbInput, cbInput, publicKeyDerOf(*key), provider->libraryContext);
        if (!encrypted.ok()) {
            int result = encrypted.libraryResult != 0 ? encrypted.libraryResult : kImpossibleLibraryAnswer;
            Utils::logError("KSP: Encrypt failed: " + std::to_string(result));
            return NTE_INTERNAL_ERROR;
        }
        // The key object may record a smaller size than the key really has: the buffer decides.
        SECURITY_STATUS status = copyPropertyValue(encrypted.cipher.data(), static_cast<DWORD>(encrypted.cipher.size()),
                                                   pbOutput, cbOutput, pcbResult);
        if (status == ERROR_SUCCESS) Utils::logMessage("KSP: Encrypt success");
        return status;
    });
}

SECURITY_STATUS WINAPI KSPDecrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                                  VOID*, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    return guardEntry("KSPDecrypt", [&]() -> SECURITY_STATUS {
        KspProvider* provider = providerFromHandle(hProvider);
        if (provider == nullptr) return NTE_INVALID_HANDLE;
        KspKey* key = keyFromHandle(hKey);
        if (key == nullptr || pcbResult == nullptr) return NTE_INVALID_PARAMETER;

        bool symmetric = key->symmetricKeyLength > 0;
        // Only a token key's size is known beforehand: its modulus.
        if (!symmetric && pbOutput == nullptr) return *answerSizeOnly(key->pair.bitLength / 8, pbOutput, cbOutput, pcbResult);
        if (pbInput == nullptr || cbInput == 0) return NTE_INVALID_PARAMETER;
        if (SECURITY_STATUS refused = signOn(*provider, dwFlags)) return refused;

        return symmetric ? decryptWithImportedKey(*provider, *key, pbInput, cbInput, pbOutput, cbOutput, pcbResult)
                         : decryptWithTokenKey(*provider, *key, pbInput, cbInput, pbOutput, cbOutput, pcbResult, dwFlags);
    });
}

SECURITY_STATUS WINAPI KSPSignHash(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID*, PBYTE pbHashValue,
                                   DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature, DWORD* pcbResult,
                                   DWORD dwFlags) {
    return guardEntry("KSPSignHash", [&]() -> SECURITY_STATUS {
        KspProvider* provider = providerFromHandle(hProvider);
        if (provider == nullptr) return NTE_INVALID_HANDLE;
        KspKey* key = keyFromHandle(hKey);
        if (key == nullptr || pcbResult == nullptr) return NTE_INVALID_PARAMETER;

        // bitLength / 8 also for EC keys, although their signatures are twice as long.
        DWORD size = key->pair.bitLength / 8;
        if (pbSignature == nullptr) {
            *pcbResult = size;
            Utils::logMessage("KSP: SignHash size query, returning " + std::to_string(size));
            return ERROR_SUCCESS;
        }
        if (pbHashValue == nullptr || cbHashValue == 0) return NTE_INVALID_PARAMETER;
        if (cbSignature < size) {
            *pcbResult = size;
            return NTE_BUFFER_TOO_SMALL;
        }
        if (SECURITY_STATUS refused = signOn(*provider, dwFlags)) return refused;
        if (cng::asksForPssOnly(dwFlags)) {
            Utils::logError("KSP: PSS padding not supported");
            return NTE_NOT_SUPPORTED;
        }
        return signDigest(*provider, *key, pbHashValue, cbHashValue, pbSignature, cbSignature, pcbResult, dwFlags);
    });
}

SECURITY_STATUS WINAPI KSPVerifySignature(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID*,
                                          PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                          DWORD) {
    return guardEntry("KSPVerifySignature", [&]() -> SECURITY_STATUS {
        KspProvider* provider = providerFromHandle(hProvider);
        KspKey* key = keyFromHandle(hKey);
        if (provider == nullptr || key == nullptr) return NTE_INVALID_HANDLE;
        if (pbHashValue == nullptr || cbHashValue == 0 || pbSignature == nullptr || cbSignature == 0)
            return NTE_INVALID_PARAMETER;
        if (key->pair.publicKeyLength == 0) {
            Utils::logError("KSP: No public key for verification");
            return NTE_BAD_KEY;
        }

        Bytes der = publicKeyDerOf(*key);
        Utils::logMessage("KSP: VerifySignature - hash length: " + std::to_string(cbHashValue));
        Utils::logMessage("KSP: VerifySignature - public key length: " + std::to_string(der.size()));
        Utils::logMessage("KSP: VerifySignature - signature length: " + std::to_string(cbSignature));
        int result = verifyWithPublicKey(static_cast<unsigned int>(key->pair.keyType), provider->serialNumber,
                                         pbHashValue, cbHashValue, der, pbSignature, cbSignature);
        if (result != 0) {
            Utils::logError("KSP: Verify signature failed: " + std::to_string(result));
            return NTE_BAD_SIGNATURE;
        }
        Utils::logMessage("KSP: Verify signature success");
        return ERROR_SUCCESS;
    });
}

}  // namespace orvane::ksp

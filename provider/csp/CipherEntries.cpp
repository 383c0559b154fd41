// CPEncrypt (RSA with the key's public half) and CPDecrypt (RSA on the token, or AES with an
// imported key). RSA ciphertext is little-endian for CryptoAPI and big-endian at the token.
#include <algorithm>
#include <cstring>
#include <vector>

#include "diagnostics/Log.h"
#include "encoding/ByteOrder.h"
#include "encoding/Hex.h"
#include "provider/csp/CspBuffers.h"
#include "provider/csp/CspContext.h"
#include "provider/csp/CspInterface.h"
#include "provider/csp/CspKey.h"
#include "provider/csp/CspPublicKey.h"
#include "provider/csp/CspResult.h"
#include "token/OrvaneDSCLibrary.h"
#include "token/KeyPairFacts.h"
#include "token/PrivateKeyOperations.h"
#include "token/SharedKeyState.h"

using namespace orvane;
using namespace orvane::csp;

namespace {

// The largest ciphertext the token can return (RSA-4096). The library writes a modulus-sized
// ciphertext whatever size the handle records, so the buffer is never smaller than this.
const size_t kLargestCiphertext = 512;

BOOL decryptWithTokenKey(CspContext& context, CspKey& key, BYTE* pbData, DWORD* pdwDataLen) {
    Utils::logMessage("Before reversing encrypted data");
    Bytes cipher = reversedCopy(pbData, *pdwDataLen);
    Utils::logMessage("After reversing encrypted data");
    Utils::logMessage("Before decrypting data");

    PrivateKeyCall call{context.serialNumber, context.libraryContext, reinterpret_cast<const unsigned char*>(&key),
                        key.pair.tokenFlag, "CPDecrypt: SSO expired, re-prompting for PIN",
                        [&context] { return ensurePinOrFail(context); }};
    PrivateKeyResult plain = decryptOnToken(call, cipher, "After decrypting data");
    if (plain.pinCheckFailed) return FALSE;
    // The plaintext replaces the ciphertext in the caller's buffer, so it must not be longer.
    if (plain.result == 0 && plain.output.size() > *pdwDataLen) plain.result = kImpossibleLibraryAnswer;
    if (plain.result != 0) {
        Utils::logError("Decrypt data failed : " + std::to_string(plain.result));
        return failWith(NTE_PROVIDER_DLL_FAIL);
    }
    if (!plain.output.empty()) std::memcpy(pbData, plain.output.data(), plain.output.size());
    *pdwDataLen = static_cast<DWORD>(plain.output.size());
    SecureZeroMemory(plain.output.data(), plain.output.size());
    return TRUE;
}

BOOL decryptWithImportedKey(CspContext& context, CspKey& key, BYTE* pbData, DWORD* pdwDataLen) {
    std::vector<BYTE> plain(*pdwDataLen);
    const std::vector<unsigned char> iv = currentIv();
    Utils::logMessage("CPDecrypt input iv : " + toHex(iv));
    Utils::logMessage("CPDecrypt input key : " + toHex(key.symmetricKey, key.symmetricKeyLength));
    int plainLength = static_cast<int>(plain.size());
    int result = orvane_decryptSymetric(context.serialNumber.c_str(), pbData, static_cast<int>(*pdwDataLen),
                                        plain.data(), &plainLength, iv.empty() ? nullptr : iv.data(),
                                        static_cast<int>(iv.size()), key.symmetricKey,
                                        static_cast<int>(key.symmetricKeyLength), nullptr);
    if (result == 0 && (plainLength < 0 || static_cast<size_t>(plainLength) > plain.size()))
        result = kImpossibleLibraryAnswer;
    if (result != 0) {
        Utils::logError("Symetric decryption failed : " + std::to_string(result));
        return failWith(NTE_PROVIDER_DLL_FAIL);
    }
    plain.resize(static_cast<size_t>(plainLength));
    Utils::logMessage("CPDecrypt - decrypted data : " + toHex(plain));
    std::memcpy(pbData, plain.data(), plain.size());
    *pdwDataLen = static_cast<DWORD>(plain.size());
    SecureZeroMemory(plain.data(), plain.size());
    return TRUE;
}

}  // namespace

BOOL WINAPI CPEncrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTHASH, BOOL, DWORD dwFlags, BYTE* pbData,
                      DWORD* pdwDataLen, DWORD cbBufLen) {
    return guardEntry("CPEncrypt", [&]() -> BOOL {
        if (pdwDataLen == nullptr) return failWith(static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) return failWith(NTE_BAD_UID);
        CspKey* key = keyFromHandle(hKey);
        if (key == nullptr) return failWith(NTE_BAD_KEY);

        DWORD outputSize = key->pair.bitLength / 8;
        if (pbData == nullptr) {
            *pdwDataLen = outputSize;
            return TRUE;
        }
        if (cbBufLen < outputSize) {
            *pdwDataLen = outputSize;
            return failWith(static_cast<DWORD>(ERROR_MORE_DATA));
        }
        if (*pdwDataLen == 0) {
            Utils::logError("Invalid data length for encrypt: 0");
            return failWith(NTE_BAD_LEN);
        }
        if (!ensurePinOrFail(*context)) return FALSE;

        Bytes publicKey = publicKeyDerOf(*key, "CSP: Public key is already DER encoded",
                                         "CSP: Public key is raw modulus, converting to DER");
        PaddingMode padding = (dwFlags & CRYPT_OAEP) ? PADDING_OAEP : PADDING_PKCS1;
        // The comparison is made on the stored key's byte count, which is never a bit size in practice.
        EncryptionType type = encryptionTypeForSize(key->pair.publicKeyLength);
        Bytes cipher(std::max<size_t>(outputSize, kLargestCiphertext));
        int cipherLength = 0;
        int result = orvane_encrypt(type, padding, pbData, static_cast<int>(*pdwDataLen), cipher.data(), &cipherLength,
                                    publicKey.data(), static_cast<int>(publicKey.size()), context->libraryContext);
        if (result != 0 || cipherLength < 0 || static_cast<size_t>(cipherLength) > cipher.size()) {
            Utils::logError("Encrypt data failed: " + std::to_string(result));
            SecureZeroMemory(cipher.data(), cipher.size());
            return failWith(NTE_PROVIDER_DLL_FAIL);
        }
        // The handle may record a smaller size than the token's real key: the caller's buffer decides.
        if (static_cast<DWORD>(cipherLength) > cbBufLen) {
            SecureZeroMemory(cipher.data(), cipher.size());
            *pdwDataLen = static_cast<DWORD>(cipherLength);
            return failWith(static_cast<DWORD>(ERROR_MORE_DATA));
        }
        cipher.resize(static_cast<size_t>(cipherLength));
        reverseBytes(cipher.data(), cipher.size());
        std::memcpy(pbData, cipher.data(), cipher.size());
        *pdwDataLen = static_cast<DWORD>(cipherLength);
        SecureZeroMemory(cipher.data(), cipher.size());
        Utils::logMessage("CPEncrypt - return success");
        return TRUE;
    });
}

BOOL WINAPI CPDecrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTHASH, BOOL, DWORD dwFlags, BYTE* pbData,
                      DWORD* pdwDataLen) {
    return guardEntry("CPDecrypt", [&]() -> BOOL {
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) return failWith(NTE_BAD_UID);
        CspKey* key = keyFromHandle(hKey);
        if (key == nullptr) return failWith(NTE_BAD_KEY);
        Utils::logMessage("CPDecrypt - dwFlags : " + std::to_string(dwFlags));
        Utils::logMessage("CPDecrypt - key id : " + toHex(key->pair.keyId, std::min<size_t>(key->pair.keyIdLength, 16)));
        Utils::logMessage("CPDecrypt - usage : " + std::to_string(key->pair.usage));
        if (pbData == nullptr || pdwDataLen == nullptr || *pdwDataLen == 0) {
            Utils::logError("Invalid data length for decrypt : " + std::to_string(pdwDataLen ? *pdwDataLen : 0));
            return failWith(NTE_BAD_DATA);
        }
        if (!ensurePinOrFail(*context)) return FALSE;

        BOOL decrypted = key->symmetricKeyLength < 1 ? decryptWithTokenKey(*context, *key, pbData, pdwDataLen)
                                                     : decryptWithImportedKey(*context, *key, pbData, pdwDataLen);
        if (!decrypted) return FALSE;
        Utils::logMessage("CPDecrypt- return");
        return TRUE;
    });
}

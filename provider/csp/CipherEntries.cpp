// CPEncrypt (RSA with the key's public half) and CPDecrypt (RSA on the token, or AES with an
// imported key). RSA ciphertext is little-endian for CryptoAPI and big-endian at the token.
#include <algorithm>
#include <cstring>
#include <vector>

#include "diagnostics/Log.h"
#include "encoding/ByteOrder.h"
#include "encoding/Der.h"
#include "encoding/Hex.h"
#include "provider/csp/CspBuffers.h"
#include "provider/csp/CspContext.h"
#include "provider/csp/CspInterface.h"
#include "provider/csp/CspKey.h"
#include "provider/csp/CspResult.h"
#include "token/CurrentIv.h"
#include "token/KeyPairFacts.h"
#include "token/PrivateKeyOperations.h"
#include "token/PublicKeyOperations.h"
#include "token/SymmetricKeys.h"

using namespace orvane;
using namespace orvane::csp;

namespace {

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
    return TRUE;
}

BOOL decryptWithImportedKey(CspContext& context, CspKey& key, BYTE* pbData, DWORD* pdwDataLen) {
    const std::vector<unsigned char> iv = currentIv();
    Utils::logMessage("CPDecrypt input iv : " + toHex(iv));
    Utils::logMessage("CPDecrypt input key : " + toHex(key.symmetricKey, key.symmetricKeyLength));
    // The plaintext replaces the ciphertext in the caller's buffer, so it is never longer.
    SymmetricDecryption decrypted = decryptSymmetric(context.serialNumber, pbData, *pdwDataLen, *pdwDataLen, iv,
                                                     key.symmetricKey, key.symmetricKeyLength, nullptr);
    if (decrypted.result != 0) {
        Utils::logError("Symetric decryption failed : " + std::to_string(decrypted.result));
        return failWith(NTE_PROVIDER_DLL_FAIL);
    }
    Utils::logMessage("CPDecrypt - decrypted data : " + toHex(decrypted.plain.data(), decrypted.plain.size()));
    if (!decrypted.plain.empty()) std::memcpy(pbData, decrypted.plain.data(), decrypted.plain.size());
    *pdwDataLen = static_cast<DWORD>(decrypted.plain.size());
    return TRUE;
}

// RSA encryption under the key's public half; the ciphertext goes out little-endian.
BOOL encryptWithKey(CspContext& context, CspKey& key, DWORD dwFlags, BYTE* pbData, DWORD* pdwDataLen, DWORD cbBufLen) {
    Bytes publicKey = publicKeyDerOf(key.pair, "CSP: Public key is already DER encoded",
                                     "CSP: Public key is raw modulus, converting to DER");
    PaddingMode padding = (dwFlags & CRYPT_OAEP) ? PADDING_OAEP : PADDING_PKCS1;
    // The type is chosen by the stored key's byte count, which is never a bit size in practice.
    PublicKeyEncryption encrypted = encryptWithPublicKey(key.pair.publicKeyLength, key.pair.bitLength / 8, padding,
                                                         pbData, *pdwDataLen, publicKey, context.libraryContext);
    if (!encrypted.ok()) {
        Utils::logError("Encrypt data failed: " + std::to_string(encrypted.libraryResult));
        return failWith(NTE_PROVIDER_DLL_FAIL);
    }
    Bytes& cipher = encrypted.cipher;
    // The handle may record a smaller size than the token's real key: the caller's buffer decides.
    if (std::optional<BOOL> sizeOnly = answerSizeOnly(SizeRule::kNullAsksShortFails, pbData, cbBufLen,
                                                      static_cast<DWORD>(cipher.size()), pdwDataLen)) {
        SecureZeroMemory(cipher.data(), cipher.size());
        return *sizeOnly;
    }
    reverseBytes(cipher.data(), cipher.size());
    if (!cipher.empty()) std::memcpy(pbData, cipher.data(), cipher.size());
    *pdwDataLen = static_cast<DWORD>(cipher.size());
    SecureZeroMemory(cipher.data(), cipher.size());
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

        // The ciphertext is modulus-sized, whatever length the plaintext has.
        if (std::optional<BOOL> sizeOnly = answerSizeOnly(SizeRule::kNullAsksShortFails, pbData, cbBufLen,
                                                          key->pair.bitLength / 8, pdwDataLen))
            return *sizeOnly;
        if (*pdwDataLen == 0) {
            Utils::logError("Invalid data length for encrypt: 0");
            return failWith(NTE_BAD_LEN);
        }
        if (!ensurePinOrFail(*context)) return FALSE;
        if (!encryptWithKey(*context, *key, dwFlags, pbData, pdwDataLen, cbBufLen)) return FALSE;
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
        Utils::logMessage("CPDecrypt - key id : " + keyIdName(key->pair.keyId));
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

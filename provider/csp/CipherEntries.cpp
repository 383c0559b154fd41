// CPEncrypt (RSA with the key's public half) and CPDecrypt (RSA on the token, or AES with an
// imported key). RSA ciphertext is little-endian for CryptoAPI and big-endian at the token.
#include <cstring>
#include <vector>

#include "diagnostics/Utils.h"
#include "encoding/Hex.h"
#include "encoding/PublicKeyForm.h"
#include "provider/csp/CspBuffers.h"
#include "provider/csp/CspContext.h"
#include "provider/csp/CspInterface.h"
#include "provider/csp/CspKey.h"
#include "provider/csp/CspResult.h"
#include "token/OrvaneDSCLibrary.h"
#include "token/Pin.h"
#include "token/SharedKeyState.h"

using namespace orvane;
using namespace orvane::csp;

namespace {

// Chosen from the stored public key's byte count, which the table compares with bit sizes.
EncryptionType encryptionTypeFor(uint32_t publicKeyLength) {
    switch (publicKeyLength) {
    case 1024: return ENCRYPTION_RSA_1024;
    case 3072: return ENCRYPTION_RSA_3072;
    case 4096: return ENCRYPTION_RSA_4096;
    default: return ENCRYPTION_RSA_2048;
    }
}

BOOL decryptOnToken(CspContext& context, CspKey& key, BYTE* pbData, DWORD* pdwDataLen) {
    Utils::logMessage("Before reversing encrypted data");
    std::vector<BYTE> cipher(pbData, pbData + *pdwDataLen);
    reverseBytes(cipher.data(), cipher.size());
    Utils::logMessage("After reversing encrypted data");
    Utils::logMessage("Before decrypting data");

    const std::string& serial = context.serialNumber;
    unsigned char* plain = nullptr;
    int plainLength = 0;
    auto ensurePin = [&] { return ensurePinValidatedCsp(serial, context.libraryContext); };
    SignOnRetryOutcome outcome =
        runWithSignOnRetry(serial, "CPDecrypt: SSO expired, re-prompting for PIN", ensurePin, [&](const std::string& pin) {
            delete[] plain;
            plain = nullptr;
            plainLength = 0;
            int result = orvane_decrypt(serial.c_str(), reinterpret_cast<const unsigned char*>(&key), pin.c_str(),
                                        cipher.data(), static_cast<int>(cipher.size()), &plain, &plainLength,
                                        key.tokenFlag, context.libraryContext);
            Utils::logMessage("After decrypting data");
            return result;
        });
    if (outcome.pinCheckFailed) {
        delete[] plain;
        return FALSE;
    }
    if (outcome.result != 0) {
        Utils::logError("Decrypt data failed : " + std::to_string(outcome.result));
        delete[] plain;
        return failWith(NTE_PROVIDER_DLL_FAIL);
    }
    // The plaintext never exceeds the ciphertext, whose buffer it replaces.
    DWORD length = static_cast<DWORD>(plainLength) <= *pdwDataLen ? static_cast<DWORD>(plainLength) : *pdwDataLen;
    if (length) std::memcpy(pbData, plain, length);
    *pdwDataLen = length;
    SecureZeroMemory(plain, static_cast<size_t>(plainLength));
    delete[] plain;
    return TRUE;
}

BOOL decryptWithImportedKey(CspContext& context, CspKey& key, BYTE* pbData, DWORD* pdwDataLen) {
    std::vector<BYTE> plain(*pdwDataLen);
    const std::vector<unsigned char>& iv = currentIv();
    Utils::logMessage("CPDecrypt input iv : " + toHex(iv));
    Utils::logMessage("CPDecrypt input key : " + toHex(key.symmetricKey, key.symmetricKeyLength));
    int plainLength = static_cast<int>(plain.size());
    int result = orvane_decryptSymetric(context.serialNumber.c_str(), pbData, static_cast<int>(*pdwDataLen),
                                        plain.data(), &plainLength, iv.empty() ? nullptr : iv.data(),
                                        static_cast<int>(iv.size()), key.symmetricKey,
                                        static_cast<int>(key.symmetricKeyLength), nullptr);
    if (result != 0) {
        Utils::logError("Symetric decryption failed : " + std::to_string(result));
        return failWith(NTE_PROVIDER_DLL_FAIL);
    }
    plain.resize(static_cast<size_t>(plainLength) <= plain.size() ? static_cast<size_t>(plainLength) : plain.size());
    Utils::logMessage("CPDecrypt - decrypted data : " + toHex(plain));
    std::memcpy(pbData, plain.data(), plain.size());
    *pdwDataLen = static_cast<DWORD>(plain.size());
    SecureZeroMemory(plain.data(), plain.size());
    return TRUE;
}

}  // namespace

BOOL WINAPI CPEncrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTHASH, BOOL, DWORD dwFlags, BYTE* pbData,
                      DWORD* pdwDataLen, DWORD cbBufLen) {
    Utils::logMessage("CPEncrypt");
    return guardEntry("CPEncrypt", [&]() -> BOOL {
        if (pdwDataLen == nullptr) return failWith(static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) return failWith(NTE_BAD_UID);
        CspKey* key = keyFromHandle(hKey);
        if (key == nullptr) return failWith(NTE_BAD_KEY);

        DWORD outputSize = key->bitLength / 8;
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
        if (!ensurePinValidatedCsp(context->serialNumber, context->libraryContext)) return FALSE;

        Bytes publicKey = publicKeyAsDer(key->publicKey, key->publicKeyLength, kCspPublicKeyFormLog);
        PaddingMode padding = (dwFlags & CRYPT_OAEP) ? PADDING_OAEP : PADDING_PKCS1;
        std::vector<BYTE> cipher(outputSize);
        int cipherLength = 0;
        int result = orvane_encrypt(encryptionTypeFor(key->publicKeyLength), padding, pbData, static_cast<int>(*pdwDataLen),
                                    cipher.data(), &cipherLength, publicKey.data(), static_cast<int>(publicKey.size()),
                                    context->libraryContext);
        if (result != 0 || cipherLength < 0 || static_cast<DWORD>(cipherLength) > outputSize) {
            Utils::logError("Encrypt data failed: " + std::to_string(result));
            SecureZeroMemory(cipher.data(), cipher.size());
            return failWith(NTE_PROVIDER_DLL_FAIL);
        }
        for (int i = 0; i < cipherLength; ++i) pbData[i] = cipher[static_cast<size_t>(cipherLength - 1 - i)];
        *pdwDataLen = static_cast<DWORD>(cipherLength);
        SecureZeroMemory(cipher.data(), cipher.size());
        Utils::logMessage("CPEncrypt - return success");
        return TRUE;
    });
}

BOOL WINAPI CPDecrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTHASH, BOOL, DWORD dwFlags, BYTE* pbData,
                      DWORD* pdwDataLen) {
    Utils::logMessage("CPDecrypt");
    return guardEntry("CPDecrypt", [&]() -> BOOL {
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) return failWith(NTE_BAD_UID);
        CspKey* key = keyFromHandle(hKey);
        if (key == nullptr) return failWith(NTE_BAD_KEY);
        Utils::logMessage("CPDecrypt - dwFlags : " + std::to_string(dwFlags));
        Utils::logMessage("CPDecrypt - key id : " + toHex(key->keyId, key->keyIdLength <= 16 ? key->keyIdLength : 16));
        Utils::logMessage("CPDecrypt - usage : " + std::to_string(key->usage));
        if (pbData == nullptr || pdwDataLen == nullptr || *pdwDataLen == 0) {
            Utils::logError("Invalid data length for decrypt : " + std::to_string(pdwDataLen ? *pdwDataLen : 0));
            return failWith(NTE_BAD_DATA);
        }
        if (!ensurePinValidatedCsp(context->serialNumber, context->libraryContext)) return FALSE;

        BOOL decrypted = key->symmetricKeyLength < 1 ? decryptOnToken(*context, *key, pbData, pdwDataLen)
                                                     : decryptWithImportedKey(*context, *key, pbData, pdwDataLen);
        if (!decrypted) return FALSE;
        Utils::logMessage("CPDecrypt- return");
        return TRUE;
    });
}

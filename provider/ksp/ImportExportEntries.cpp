// KSPImportKey and KSPExportKey. Only public keys leave; what comes in is a public RSA key
// (kept in the key object), an AES key in clear or wrapped under a token AES key (stored on
// the token), or a key encrypted under a token key pair (decrypted on the token, kept here).
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "diagnostics/Log.h"
#include "encoding/CngBlobs.h"
#include "encoding/Der.h"
#include "encoding/Hex.h"
#include "encoding/KeyBlobs.h"
#include "encoding/WindowsLayouts.h"
#include "provider/ksp/KspEntries.h"
#include "provider/ksp/KspObjects.h"
#include "provider/ksp/KspResult.h"
#include "token/KeyPairFacts.h"
#include "token/KeySearch.h"
#include "token/KeyUnwrap.h"
#include "token/PrivateKeyOperations.h"
#include "token/SecretBytes.h"
#include "token/SymmetricKeys.h"

namespace orvane::ksp {
namespace {

// The blob readers' own declarations of the published layouts agree with the SDK's.
static_assert(sizeof(layouts::BcryptRsaKeyBlob) == sizeof(BCRYPT_RSAKEY_BLOB) &&
                  offsetof(layouts::BcryptRsaKeyBlob, cbModulus) == offsetof(BCRYPT_RSAKEY_BLOB, cbModulus),
              "BCRYPT_RSAKEY_BLOB");
static_assert(sizeof(layouts::BcryptKeyDataBlobHeader) == sizeof(BCRYPT_KEY_DATA_BLOB_HEADER) &&
                  offsetof(layouts::BcryptKeyDataBlobHeader, cbKeyData) ==
                      offsetof(BCRYPT_KEY_DATA_BLOB_HEADER, cbKeyData),
              "BCRYPT_KEY_DATA_BLOB_HEADER");
static_assert(layouts::kBcryptRsaPublicMagic == BCRYPT_RSAPUBLIC_MAGIC &&
                  layouts::kBcryptKeyDataBlobMagic == BCRYPT_KEY_DATA_BLOB_MAGIC,
              "magic numbers");

struct KeyRelease {
    void operator()(KspKey* key) const { releaseKey(key); }
};
using NewKey = std::unique_ptr<KspKey, KeyRelease>;

NewKey newKey() { return NewKey(new KspKey()); }

SECURITY_STATUS handOut(NewKey key, NCRYPT_KEY_HANDLE* phKey) {
    key->onToken = true;
    *phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(key.release());
    return ERROR_SUCCESS;
}

bool sameType(LPCWSTR type, const wchar_t* name) { return std::wcscmp(type, name) == 0; }

void setPublicKey(KspKey& key, const Bytes& publicKey, uint32_t bits) {
    // The parsers bound every key they accept well below the field.
    size_t length = std::min(publicKey.size(), sizeof key.pair.publicKey);
    std::memcpy(key.pair.publicKey, publicKey.data(), length);
    key.pair.publicKeyLength = static_cast<uint32_t>(length);
    key.pair.bitLength = bits;
    key.pair.keyType = rsaKeyTypeForBits(bits);
}

// The key object of an AES key the token stored, from the record as the library filled it.
NewKey keyOfStoredSecret(const OrvaneSymmetricKey& stored) {
    NewKey key = newKey();
    takeSnapshot(key->pair, stored);
    key->pair.keyType = stored.keyType;
    return key;
}

SECURITY_STATUS importRsaPublicBlob(const BYTE* pbData, DWORD cbData, NCRYPT_KEY_HANDLE* phKey) {
    cng::RsaPublicKey parsed;
    cng::BlobRefusal refusal = cng::parseRsaPublicBlob(pbData, cbData, parsed);
    if (refusal == cng::BlobRefusal::kBadData) return NTE_BAD_DATA;
    if (refusal == cng::BlobRefusal::kUnsupportedSize) {
        Utils::logError("KSP: Unsupported RSA key size: " + std::to_string(parsed.bitLength));
        return NTE_NOT_SUPPORTED;
    }
    NewKey key = newKey();
    setPublicKey(*key, parsed.modulus, parsed.bitLength);
    SECURITY_STATUS status = handOut(std::move(key), phKey);
    Utils::logMessage("KSP: RSA public key imported, bits=" + std::to_string(parsed.bitLength));
    return status;
}

SECURITY_STATUS importCapiPublicBlob(const BYTE* pbData, DWORD cbData, NCRYPT_KEY_HANDLE* phKey) {
    blobs::RsaPublicKey parsed;
    blobs::RsaBlobRefusal refusal = blobs::parseRsaPublicKeyBlob(pbData, cbData, parsed);
    if (refusal == blobs::RsaBlobRefusal::kBadMagic || refusal == blobs::RsaBlobRefusal::kModulusBeyondBlob)
        return NTE_BAD_DATA;
    Utils::logMessage("KSP: Public exponent : " + toHex(parsed.exponent, sizeof parsed.exponent));
    if (refusal == blobs::RsaBlobRefusal::kUnsupportedSize) {
        Utils::logError("KSP: Unsupported RSA key size");
        return NTE_NOT_SUPPORTED;
    }
    NewKey key = newKey();
    setPublicKey(*key, encodeRsaPublicKeyDer(parsed.modulus, Bytes(parsed.exponent, parsed.exponent + sizeof parsed.exponent)),
                 parsed.bitLength);
    SECURITY_STATUS status = handOut(std::move(key), phKey);
    Utils::logMessage("KSP: Legacy RSA public key imported successfully");
    return status;
}

SECURITY_STATUS importKeyData(KspProvider& provider, const BYTE* pbData, DWORD cbData, NCRYPT_KEY_HANDLE* phKey) {
    Bytes parsed;
    cng::BlobRefusal refusal = cng::parseKeyDataBlob(pbData, cbData, parsed);
    SecretBuffer value = takeSecret(std::move(parsed));
    if (refusal == cng::BlobRefusal::kBadData) return NTE_BAD_DATA;
    if (refusal == cng::BlobRefusal::kUnsupportedSize) {
        Utils::logError("KSP: Unsupported key size for BCRYPT_KEY_DATA_BLOB: " + std::to_string(value.size()));
        return NTE_NOT_SUPPORTED;
    }
    SecretRecord<OrvaneSymmetricKey> record;
    int result = storeAesKey(provider.serialNumber, provider.libraryContext, value.data(), value.size(),
                             symmetricKeyTypeForLength(value.size()), record.value);
    NewKey key = result == 0 ? keyOfStoredSecret(record.value) : nullptr;
    if (result != 0) {
        Utils::logError("KSP: BCRYPT_KEY_DATA_BLOB import failed");
        return NTE_BAD_TYPE;
    }
    SECURITY_STATUS status = handOut(std::move(key), phKey);
    Utils::logMessage("KSP: BCRYPT_KEY_DATA_BLOB imported successfully (AES)");
    return status;
}

SECURITY_STATUS importWrappedKey(KspProvider& provider, const BYTE* pbData, DWORD cbData, NCRYPT_KEY_HANDLE* phKey) {
    UnwrappedKey unwrapped =
        unwrapAndStoreAesKey(provider.serialNumber, provider.libraryContext, Bytes(pbData, pbData + cbData),
                             kKspUnwrapTexts, aesKeyTypeForLength);
    if (unwrapped.outcome == UnwrapOutcome::kNoKek) return NTE_BAD_KEY;
    if (unwrapped.outcome == UnwrapOutcome::kImportFailed) return NTE_BAD_TYPE;
    NewKey key = keyOfStoredSecret(unwrapped.stored.value);
    SECURITY_STATUS status = handOut(std::move(key), phKey);
    Utils::logMessage("KSP: BCRYPT_OPAQUE_KEY_BLOB imported successfully");
    return status;
}

SECURITY_STATUS importEncryptedKey(KspProvider& provider, const KspKey& importKey, const BYTE* pbData, DWORD cbData,
                                   NCRYPT_KEY_HANDLE* phKey) {
    Utils::logMessage("KSP: Input key id : " + keyIdName(importKey.pair.keyId));
    // No expiry retry on this path: a single call with the credential held now.
    PrivateKeyCall call{provider.serialNumber, provider.libraryContext, importKey.pair.keyId, importKey.pair.tokenFlag,
                        nullptr, nullptr};
    PrivateKeyResult plain = decryptOnToken(call, Bytes(pbData, pbData + cbData), nullptr);
    if (plain.result != 0) {
        Utils::logError("KSP: Encrypted key decryption failed");
        return NTE_BAD_DATA;
    }
    int32_t type = symmetricKeyTypeForLength(plain.output.size());
    if (type == 0) {
        Utils::logError("KSP: Unsupported decrypted key length: " + std::to_string(plain.output.size()));
        return NTE_NOT_SUPPORTED;
    }
    NewKey key = newKey();
    std::memcpy(key->symmetricKey, plain.output.data(), plain.output.size());
    key->symmetricKeyLength = static_cast<uint32_t>(plain.output.size());
    key->pair.keyIdLength = kKeyIdLength;
    key->pair.keyType = type;
    SECURITY_STATUS status = handOut(std::move(key), phKey);
    Utils::logMessage("KSP: Encrypted key imported successfully");
    return status;
}

// A key opened before its public key was known (created, not yet finalized) looks it up.
bool fillPublicKeyFromToken(KspProvider& provider, KspKey& key) {
    std::vector<OrvaneKeyPair> keyPairs = readKeyPairs(provider.serialNumber, provider.libraryContext);
    if (const OrvaneKeyPair* keyPair = findKeyPairById(keyPairs, key.pair.keyId)) {
        size_t length = static_cast<size_t>(std::clamp<int32_t>(keyPair->publicKeyLength, 0, sizeof key.pair.publicKey));
        std::memcpy(key.pair.publicKey, keyPair->publicKey, length);
        key.pair.publicKeyLength = static_cast<uint32_t>(length);
    }
    return key.pair.publicKeyLength != 0;
}

}  // namespace

SECURITY_STATUS WINAPI KSPImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey, LPCWSTR pszBlobType,
                                    NCryptBufferDesc*, NCRYPT_KEY_HANDLE* phKey, PBYTE pbData, DWORD cbData, DWORD) {
    return guardEntry("KSPImportKey", [&]() -> SECURITY_STATUS {
        KspProvider* provider = providerFromHandle(hProvider);
        if (provider == nullptr) return NTE_INVALID_HANDLE;
        if (pszBlobType == nullptr || phKey == nullptr || pbData == nullptr || cbData == 0)
            return NTE_INVALID_PARAMETER;

        if (sameType(pszBlobType, L"RSAPUBLICBLOB") || sameType(pszBlobType, L"PUBLICBLOB"))
            return importRsaPublicBlob(pbData, cbData, phKey);
        if (sameType(pszBlobType, L"OpaqueKeyBlob")) return importWrappedKey(*provider, pbData, cbData, phKey);
        if (sameType(pszBlobType, L"KeyDataBlob")) return importKeyData(*provider, pbData, cbData, phKey);
        if (sameType(pszBlobType, L"CAPIPUBLICBLOB")) return importCapiPublicBlob(pbData, cbData, phKey);

        // Any other type with an import key is taken as a key encrypted under it.
        KspKey* importKey = keyFromHandle(hImportKey);
        bool encryptedType = sameType(pszBlobType, L"OpaqueTransport") || sameType(pszBlobType, L"PKCS8_PRIVATEKEY");
        if (importKey == nullptr && !encryptedType) {
            Utils::logError("KSP: Unsupported blob type for import");
            return NTE_NOT_SUPPORTED;
        }
        if (importKey == nullptr) {
            Utils::logError("KSP: Encrypted key import requires import key handle");
            return NTE_BAD_KEY;
        }
        return importEncryptedKey(*provider, *importKey, pbData, cbData, phKey);
    });
}

SECURITY_STATUS WINAPI KSPExportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, NCRYPT_KEY_HANDLE,
                                    LPCWSTR pszBlobType, NCryptBufferDesc*, PBYTE pbOutput, DWORD cbOutput,
                                    DWORD* pcbResult, DWORD) {
    return guardEntry("KSPExportKey", [&]() -> SECURITY_STATUS {
        KspProvider* provider = providerFromHandle(hProvider);
        if (provider == nullptr) return NTE_INVALID_HANDLE;
        KspKey* key = keyFromHandle(hKey);
        if (key == nullptr || pszBlobType == nullptr || pcbResult == nullptr) return NTE_INVALID_PARAMETER;

        // Private key material never leaves the token.
        if (sameType(pszBlobType, L"PRIVATEBLOB") || sameType(pszBlobType, L"CAPIPRIVATEBLOB")) return NTE_NOT_SUPPORTED;
        bool capi = sameType(pszBlobType, L"CAPIPUBLICBLOB");
        if (!capi && !sameType(pszBlobType, L"RSAPUBLICBLOB") && !sameType(pszBlobType, L"PUBLICBLOB")) {
            Utils::logError("KSP: Unsupported blob type for export");
            return NTE_NOT_SUPPORTED;
        }
        if (key->pair.publicKeyLength == 0 && !fillPublicKeyFromToken(*provider, *key)) {
            Utils::logError("KSP: No public key data available for export");
            return NTE_BAD_KEY;
        }

        // The stored bytes are taken as the modulus whatever form they have.
        size_t modulusLength = std::min<size_t>(key->pair.publicKeyLength, sizeof key->pair.publicKey);
        Bytes blob = capi ? blobs::encodeRsaPublicKeyBlob(layouts::kCalgRsaKeyx, key->pair.publicKey, modulusLength)
                          : cng::encodeRsaPublicBlob(key->pair.publicKey, modulusLength);
        SECURITY_STATUS status = copyPropertyValue(blob.data(), static_cast<DWORD>(blob.size()), pbOutput, cbOutput, pcbResult);
        if (status == ERROR_SUCCESS && pbOutput != nullptr && !capi)
            Utils::logMessage("KSP: Public key exported, bits=" + std::to_string(modulusLength * 8));
        return status;
    });
}

}  // namespace orvane::ksp

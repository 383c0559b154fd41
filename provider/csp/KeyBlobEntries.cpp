// CPExportKey (the public half of a token RSA-2048 key pair as a PUBLICKEYBLOB) and
// CPImportKey (RSA public keys, session keys encrypted to a token key, plaintext AES keys
// and AES keys wrapped under a token KEK). The blob reading itself is in encoding/KeyBlobs.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include "diagnostics/Log.h"
#include "encoding/ByteOrder.h"
#include "encoding/Der.h"
#include "encoding/Hex.h"
#include "encoding/KeyBlobs.h"
#include "encoding/WindowsLayouts.h"
#include "provider/csp/CspContext.h"
#include "provider/csp/CspInterface.h"
#include "provider/csp/CspKey.h"
#include "provider/csp/CspResult.h"
#include "provider/csp/CspBuffers.h"
#include "token/KeyPairFacts.h"
#include "token/KeySearch.h"
#include "token/KeyUnwrap.h"
#include "token/PrivateKeyOperations.h"
#include "token/SecretBytes.h"
#include "token/SymmetricKeys.h"

using namespace orvane;
using namespace orvane::csp;
namespace blobs = orvane::blobs;

namespace {

// The blob readers' own declarations of the published layouts agree with the SDK's.
static_assert(sizeof(layouts::BlobHeader) == sizeof(BLOBHEADER) &&
                  offsetof(layouts::BlobHeader, aiKeyAlg) == offsetof(BLOBHEADER, aiKeyAlg),
              "BLOBHEADER");
static_assert(sizeof(layouts::RsaPubKey) == sizeof(RSAPUBKEY) &&
                  offsetof(layouts::RsaPubKey, bitlen) == offsetof(RSAPUBKEY, bitlen) &&
                  offsetof(layouts::RsaPubKey, pubexp) == offsetof(RSAPUBKEY, pubexp),
              "RSAPUBKEY");
static_assert(layouts::kSimpleBlob == SIMPLEBLOB && layouts::kPublicKeyBlob == PUBLICKEYBLOB &&
                  layouts::kPrivateKeyBlob == PRIVATEKEYBLOB && layouts::kPlaintextKeyBlob == PLAINTEXTKEYBLOB &&
                  layouts::kOpaqueKeyBlob == OPAQUEKEYBLOB && layouts::kPublicKeyBlobEx == PUBLICKEYBLOBEX &&
                  layouts::kSymmetricWrapKeyBlob == SYMMETRICWRAPKEYBLOB &&
                  layouts::kCurrentBlobVersion == CUR_BLOB_VERSION,
              "blob types");
static_assert(layouts::kCalgRsaKeyx == CALG_RSA_KEYX && layouts::kCalg3Des == CALG_3DES &&
                  layouts::kCalgAes128 == CALG_AES_128 && layouts::kCalgAes256 == CALG_AES_256,
              "ALG_IDs");

const int32_t kExportableKeyType = ORVANE_KEY_RSA_2048;  // only RSA-2048 public keys are handed out

BOOL exportPublicKey(CspContext& context, const CspKey& key, BYTE* pbData, DWORD* pdwDataLen) {
    std::vector<OrvaneKeyPair> keyPairs = readKeyPairs(context.serialNumber, context.libraryContext);
    const OrvaneKeyPair* keyPair = findKeyPairById(keyPairs, key.pair.keyId);
    if (keyPair == nullptr || keyPair->keyType != kExportableKeyType) return failWith(NTE_BAD_KEY);
    size_t modulusLength = static_cast<size_t>(std::clamp<int32_t>(keyPair->publicKeyLength, 0, sizeof keyPair->publicKey));
    DWORD size = static_cast<DWORD>(layouts::kRsaPubKeyModulusOffset + modulusLength);
    if (std::optional<BOOL> sizeOnly =
            answerSizeOnly(SizeRule::kNullAsksWithMoreDataShortFails, pbData, *pdwDataLen, size, pdwDataLen)) {
        if (pbData == nullptr) Utils::logMessage("Emport public key more data required");
        return *sizeOnly;
    }
    Utils::logMessage("key usage : " + std::to_string(key.algId));
    blobs::Bytes blob = blobs::encodeRsaPublicKeyBlob(key.algId, keyPair->publicKey, modulusLength);
    std::memcpy(pbData, blob.data(), blob.size());
    *pdwDataLen = size;
    SetLastError(0);
    return TRUE;
}

std::unique_ptr<CspKey> newKey() {
    std::unique_ptr<CspKey> key(new CspKey{});
    key->pair.keyIdLength = kKeyIdLength;
    return key;
}

BOOL handOut(std::unique_ptr<CspKey> key, HCRYPTKEY* phKey, const char* successLogLine) {
    *phKey = reinterpret_cast<HCRYPTKEY>(key.release());
    Utils::logMessage(successLogLine);
    return TRUE;
}

// A handle for a symmetric key the token has just stored.
std::unique_ptr<CspKey> keyForStoredSecret(const OrvaneSymmetricKey& stored, uint32_t algId) {
    std::unique_ptr<CspKey> key = newKey();
    takeSnapshot(key->pair, stored);
    key->algId = algId;
    return key;
}

BOOL importPublicKey(const BYTE* pbData, DWORD dwDataLen, HCRYPTKEY* phKey) {
    blobs::RsaPublicKey parsed;
    blobs::RsaBlobRefusal refusal = blobs::parseRsaPublicKeyBlob(pbData, dwDataLen, parsed);
    if (refusal == blobs::RsaBlobRefusal::kBadMagic || refusal == blobs::RsaBlobRefusal::kModulusBeyondBlob)
        return failWith(NTE_BAD_DATA);
    Utils::logMessage("Public exponent : " + toHex(parsed.exponent, sizeof parsed.exponent));
    Bytes der = encodeRsaPublicKeyDer(parsed.modulus, Bytes(parsed.exponent, parsed.exponent + sizeof parsed.exponent));
    if (refusal == blobs::RsaBlobRefusal::kUnsupportedSize) {
        Utils::logError("Unsupported RSA key size");
        return failWith(NTE_BAD_DATA);
    }
    std::unique_ptr<CspKey> key = newKey();
    if (der.size() > sizeof key->pair.publicKey) return failWith(NTE_BAD_DATA);
    std::memcpy(key->pair.publicKey, der.data(), der.size());
    key->pair.publicKeyLength = static_cast<uint32_t>(der.size());
    key->pair.bitLength = parsed.bitLength;
    key->algId = static_cast<uint32_t>(rsaKeyTypeForBits(parsed.bitLength));
    return handOut(std::move(key), phKey, "PUBLICKEYBLOB imported successfully");
}

BOOL importSessionKey(CspContext& context, const blobs::BlobHeader& header, const BYTE* pbData, DWORD dwDataLen,
                      HCRYPTKEY hPubKey, HCRYPTKEY* phKey) {
    CspKey* unwrapping = keyFromHandle(hPubKey);
    if (unwrapping == nullptr) {
        Utils::logError("SIMPLEBLOB requires public key handle");
        return failWith(NTE_BAD_TYPE);
    }
    Utils::logMessage("Input key id : " + keyIdName(unwrapping->pair.keyId));
    Bytes encrypted = blobs::simpleBlobPayload(pbData, dwDataLen);
    // CryptoAPI order first; a key encrypted in the token's own order is accepted as well.
    PrivateKeyCall call{context.serialNumber, context.libraryContext, reinterpret_cast<const unsigned char*>(unwrapping),
                        unwrapping->pair.tokenFlag, nullptr, nullptr};
    PrivateKeyResult decrypted = decryptOnToken(call, reversedCopy(encrypted.data(), encrypted.size()), nullptr);
    if (decrypted.result != 0) {
        Utils::logError("SIMPLEBLOB decryption failed");
        decrypted = decryptOnToken(call, encrypted, nullptr);
        if (decrypted.result != 0) {
            Utils::logError("SIMPLEBLOB decryption failed");
            return failWith(NTE_PROVIDER_DLL_FAIL);
        }
    }
    int32_t keyType = blobs::sessionKeyTypeForAlgId(header.algId);
    if (keyType == 0) {
        Utils::logError("Unsupported algorithm for SIMPLEBLOB: " + std::to_string(header.algId));
        return failWith(NTE_BAD_ALGID);
    }
    std::unique_ptr<CspKey> key = newKey();
    if (decrypted.output.size() > sizeof key->symmetricKey) return failWith(NTE_BAD_DATA);
    std::memcpy(key->symmetricKey, decrypted.output.data(), decrypted.output.size());
    key->symmetricKeyLength = static_cast<uint32_t>(decrypted.output.size());
    key->algId = static_cast<uint32_t>(keyType);
    Utils::logMessage("Output key id : " + keyIdName(key->pair.keyId));
    return handOut(std::move(key), phKey, "SIMPLEBLOB imported successfully (AES)");
}

BOOL importPlaintextKey(CspContext& context, const blobs::BlobHeader& header, const BYTE* pbData, DWORD dwDataLen,
                        HCRYPTKEY* phKey) {
    int32_t keyType = header.algId == CALG_AES_128 || header.algId == CALG_AES_256 ? blobs::sessionKeyTypeForAlgId(header.algId) : 0;
    if (keyType == 0) {
        Utils::logError("Unsupported algorithm for PLAINTEXTKEYBLOB: " + std::to_string(header.algId));
        return failWith(NTE_BAD_ALGID);
    }
    SecretBuffer keyBytes = takeSecret(blobs::simpleBlobPayload(pbData, dwDataLen));
    SecretRecord<OrvaneSymmetricKey> record;
    if (keyBytes.size() > sizeof record.value.keyData) return failWith(NTE_BAD_DATA);
    int result =
        storeAesKey(context.serialNumber, context.libraryContext, keyBytes.data(), keyBytes.size(), keyType, record.value);
    if (result != 0) {
        Utils::logError("PLAINTEXTKEYBLOB import failed");
        return failWith(NTE_BAD_TYPE);
    }
    std::unique_ptr<CspKey> key = keyForStoredSecret(record.value, header.algId);
    return handOut(std::move(key), phKey, "PLAINTEXTKEYBLOB imported successfully (AES)");
}

BOOL importWrappedKey(CspContext& context, const blobs::BlobHeader& header, const BYTE* pbData, DWORD dwDataLen,
                      HCRYPTKEY* phKey) {
    // Any ALG_ID but AES-128's stores an AES-256 key.
    int32_t keyType = blobs::sessionKeyTypeForAlgId(header.algId == CALG_AES_128 ? CALG_AES_128 : CALG_AES_256);
    UnwrappedKey unwrapped =
        unwrapAndStoreAesKey(context.serialNumber, context.libraryContext, blobs::symmetricWrapPayload(pbData, dwDataLen),
                             kCspUnwrapTexts, [keyType](size_t) { return keyType; });
    if (unwrapped.outcome == UnwrapOutcome::kNoKek) return failWith(NTE_BAD_KEY);
    if (unwrapped.outcome == UnwrapOutcome::kImportFailed) return failWith(NTE_BAD_TYPE);
    std::unique_ptr<CspKey> key = keyForStoredSecret(unwrapped.stored.value, header.algId);
    return handOut(std::move(key), phKey, "SYMMETRICWRAPKEYBLOB imported successfully");
}

blobs::BlobHeader loggedBlobHeader(const BYTE* pbData, DWORD dwDataLen) {
    blobs::BlobHeader header;
    if (blobs::readBlobHeader(pbData, dwDataLen, header)) {
        Utils::logMessage("CPImportKey - input type : " + std::to_string(header.type));
        Utils::logMessage("CPImportKey - input version : " + std::to_string(header.version));
        Utils::logMessage("CPImportKey - input alg : " + std::to_string(header.algId));
        Utils::logMessage("CPImportKey - input data length : " + std::to_string(static_cast<long long>(dwDataLen) - 12));
    }
    return header;
}

BOOL importBlob(CspContext& context, const blobs::BlobHeader& header, const BYTE* pbData, DWORD dwDataLen,
                HCRYPTKEY hPubKey, HCRYPTKEY* phKey) {
    switch (blobs::classifyImportType(header.type)) {
    case blobs::ImportType::kNotImplemented:
        Utils::logError("Key Block Not Implemented yet");
        return failWith(NTE_BAD_TYPE);
    case blobs::ImportType::kUnsupported:
        Utils::logError("CPImportKey - Unsupported type : " + std::to_string(header.type));
        return failWith(NTE_BAD_TYPE);
    case blobs::ImportType::kAccepted: break;
    }
    switch (header.type) {
    case layouts::kPublicKeyBlob: return importPublicKey(pbData, dwDataLen, phKey);
    case layouts::kSimpleBlob: return importSessionKey(context, header, pbData, dwDataLen, hPubKey, phKey);
    case layouts::kPlaintextKeyBlob: return importPlaintextKey(context, header, pbData, dwDataLen, phKey);
    default: return importWrappedKey(context, header, pbData, dwDataLen, phKey);
    }
}

}  // namespace

BOOL WINAPI CPExportKey(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTKEY, DWORD dwBlobType, DWORD dwFlags, BYTE* pbData,
                        DWORD* pdwDataLen) {
    return guardEntry("CPExportKey", [&]() -> BOOL {
        Utils::logMessage("dwBlobType : " + std::to_string(dwBlobType));
        Utils::logMessage("dwFlags : " + std::to_string(dwFlags));
        if (hKey == 0 || pdwDataLen == nullptr) return failWith(static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) return failWith(NTE_BAD_UID);

        BOOL exported = FALSE;
        if (dwBlobType == PRIVATEKEYBLOB)
            exported = failWith(static_cast<DWORD>(ERROR_ACCESS_DENIED));
        else if (dwBlobType != PUBLICKEYBLOB)
            exported = failWith(NTE_BAD_TYPE);
        else
            exported = exportPublicKey(*context, *keyFromHandle(hKey), pbData, pdwDataLen);
        Utils::logMessage("Exportkey return status : " + std::to_string(exported ? 1 : 0));
        return exported;
    });
}

BOOL WINAPI CPImportKey(HCRYPTPROV hProv, const BYTE* pbData, DWORD dwDataLen, HCRYPTKEY hPubKey, DWORD dwFlags,
                        HCRYPTKEY* phKey) {
    return guardEntry("CPImportKey", [&]() -> BOOL {
        Utils::logMessage("Input length : " + std::to_string(dwDataLen));
        Utils::logMessage("Input flag : " + std::to_string(dwFlags));
        if (pbData == nullptr) {
            Utils::logError("CPImportKey - Input data is null");
            return failWith(static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        }
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) {
            Utils::logError("CPImportKey - Contest null or not initialised");
            return failWith(NTE_BAD_UID);
        }
        if (phKey == nullptr) return failWith(static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        blobs::BlobHeader header = loggedBlobHeader(pbData, dwDataLen);
        // Nothing follows the fixed part (a blob shorter than that holds nothing either).
        if (dwDataLen <= blobs::kPayloadOffset) {
            Utils::logError("CPImportKey - Input data to import is empty");
            return failWith(NTE_INVALID_PARAMETER);
        }
        return importBlob(*context, header, pbData, dwDataLen, hPubKey, phKey);
    });
}

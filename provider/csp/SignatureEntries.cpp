// CPSignHash and CPVerifySignature. The token signs the bare digest; signatures are
// big-endian at the token and little-endian for CryptoAPI, so both directions reverse them.
#include <cstring>
#include <vector>

#include "diagnostics/Log.h"
#include "encoding/ByteOrder.h"
#include "encoding/PublicKeyForm.h"
#include "provider/csp/CspBuffers.h"
#include "provider/csp/CspContext.h"
#include "provider/csp/CspInterface.h"
#include "provider/csp/CspKey.h"
#include "provider/csp/CspResult.h"
#include "provider/csp/HashContext.h"
#include "token/KeyPairFacts.h"
#include "token/KeySearch.h"
#include "token/PrivateKeyOperations.h"
#include "token/PublicKeyOperations.h"

using namespace orvane;
using namespace orvane::csp;

namespace {

// The signing key that CPSignHash chose stays with the hash object, its type in `mechanism`.
bool chooseSigningKey(const CspContext& context, HashContext& hash) {
    hash.keyIdLength = 0;
    std::vector<OrvaneKeyPair> keyPairs = readKeyPairs(context.serialNumber, context.libraryContext);
    const OrvaneKeyPair* keyPair = chooseSigningKeyPair(keyPairs, context.containerName);
    if (keyPair == nullptr) return false;
    std::memcpy(hash.keyId, keyPair->keyId, sizeof hash.keyId);
    hash.keyIdLength = kKeyIdLength;
    hash.mechanism = static_cast<uint32_t>(keyPair->keyType);
    return true;
}

// DER public key of the container's first signing key pair; its stored key is a modulus.
DWORD containerPublicKey(const CspContext& context, Bytes& der) {
    std::vector<OrvaneKeyPair> keyPairs = readKeyPairs(context.serialNumber, context.libraryContext);
    if (keyPairs.empty()) return static_cast<DWORD>(NTE_BAD_KEY);
    const OrvaneKeyPair* keyPair = findKeyPairFor(keyPairs, context.containerName, KeyRole::kSigning);
    if (keyPair == nullptr) return static_cast<DWORD>(NTE_BAD_KEY);
    der = modulusAsDer(keyPair->publicKey, static_cast<size_t>(keyPair->publicKeyLength));
    return 0;
}

// The digest signed with the chosen key; the signature goes out little-endian.
BOOL signDigest(CspContext& context, const HashContext& hash, BYTE* pbSignature, DWORD* pdwSigLen) {
    PrivateKeyCall call{context.serialNumber, context.libraryContext, hash.keyId, false,
                        "CPSignHash: SSO expired, re-prompting for PIN", [&context] { return ensurePinOrFail(context); }};
    PrivateKeyResult signature = signWithTokenKey(
        call, std::vector<unsigned char>(hash.hashValue, hash.hashValue + hash.hashValueLength), *pdwSigLen);
    if (signature.pinCheckFailed) return FALSE;
    if (signature.result != 0) {
        Utils::logError("Sign hash failed : " + std::to_string(signature.result));
        return failWith(NTE_PROVIDER_DLL_FAIL);
    }
    reverseBytes(signature.output.data(), signature.output.size());
    if (!signature.output.empty()) std::memcpy(pbSignature, signature.output.data(), signature.output.size());
    *pdwSigLen = static_cast<DWORD>(signature.output.size());
    return TRUE;
}

// The digest of a hash object that has none yet, through CPGetHashParam as an application
// would ask for it (its log lines included): its size first, then the value.
DWORD fetchDigest(HCRYPTPROV hProv, HCRYPTHASH hHash, HashContext& hash) {
    DWORD size = 0;
    if (!CPGetHashParam(hProv, hHash, HP_HASHVAL, nullptr, &size, 0)) {
        Utils::logError("CPGetHashParam failed to get hash size");
        return static_cast<DWORD>(NTE_BAD_HASH);
    }
    if (size > hash.hashLength) {
        Utils::logError("Hash size larger than expected");
        return static_cast<DWORD>(NTE_BAD_HASH);
    }
    std::vector<BYTE> digest(size, 0);
    if (!CPGetHashParam(hProv, hHash, HP_HASHVAL, digest.data(), &size, 0)) {
        Utils::logError("CPGetHashParam failed to get hash value");
        return static_cast<DWORD>(NTE_BAD_HASH);
    }
    std::memcpy(hash.hashValue, digest.data(), size);
    hash.hashValueLength = size;
    Utils::logMessage("Hash obtained using CPGetHashParam");
    return 0;
}

// The public key CPVerifySignature checks against: the key handle's, or the container's
// first signing key pair's. 0, or the code to fail with.
DWORD publicKeyForVerification(const CspContext& context, HCRYPTKEY hPubKey, Bytes& publicKey) {
    CspKey* key = keyFromHandle(hPubKey);
    if (key != nullptr && key->pair.publicKeyLength != 0) {
        Utils::logMessage("key handle available");
        publicKey = publicKeyDerOf(key->pair, "Public key is already DER encoded",
                                   "Public key is not DER encoded, converting to DER");
        return 0;
    }
    Utils::logError("Key Handle Not Initialized or Public Key Length is zero");
    Utils::logMessage("Container name : " + escapeControlCharacters(context.containerName));
    return containerPublicKey(context, publicKey);
}

// The signature comes little-endian and goes to the token reversed.
BOOL verifyDigest(const CspContext& context, const HashContext& hash, const Bytes& publicKey, const BYTE* pbSignature,
                  DWORD cbSigLen) {
    Bytes signature = reversedCopy(pbSignature, cbSigLen);
    int result = verifyWithPublicKey(kCspVerifyFirstArgument, context.serialNumber, hash.hashValue,
                                     hash.hashValueLength, publicKey, signature.data(), signature.size());
    Utils::logMessage("pContext->serialNumber: " + context.serialNumber);
    Utils::logMessage("pHashContext->hashLength: " + std::to_string(hash.hashValueLength));
    Utils::logMessage("PublicKeyLength: " + std::to_string(publicKey.size()));
    Utils::logMessage("Signature Length: " + std::to_string(cbSigLen));
    if (result != 0) {
        Utils::logError("VERIFY SIGNATURE FAILED :: " + std::to_string(result));
        return failWith(NTE_BAD_SIGNATURE);
    }
    return TRUE;
}

}  // namespace

BOOL WINAPI CPSignHash(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD, LPCWSTR, DWORD dwFlags, BYTE* pbSignature,
                       DWORD* pdwSigLen) {
    return guardEntry("CPSignHash", [&]() -> BOOL {
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) return failWith(NTE_BAD_UID);
        HashContext* hash = hashFromHandle(hHash);
        if (hash == nullptr) return failWith(NTE_BAD_HASH);
        if (pdwSigLen == nullptr) return failWith(static_cast<DWORD>(ERROR_INVALID_PARAMETER));

        if (hash->hashValueLength == 0 && !finishLibraryHash(*context, *hash, sizeof hash->hashValue))
            return failWith(NTE_FAIL);
        // A key chosen by an earlier call on this hash (the size query) is kept.
        if (hash->keyIdLength != kKeyIdLength && !chooseSigningKey(*context, *hash)) {
            Utils::logMessage("Sign certificate not found");
            return failWith(NTE_NO_KEY);
        }
        // Only a missing buffer asks for the size: the token is told the caller's length.
        if (pbSignature == nullptr)
            return answerValue(SizeRule::kNullAsksShortFails, nullptr, cspSignatureSize(hash->mechanism), nullptr, pdwSigLen);

        if (!ensurePinOrFail(*context)) return FALSE;
        Utils::logMessage("CPSignHash dwFlags : " + std::to_string(dwFlags));
        Utils::logMessage("CPSignHash hashAlgorithm : " + std::to_string(hash->hashAlgorithm));
        Utils::logMessage("CPSignHash key mechanism : " + std::to_string(hash->mechanism));
        return signDigest(*context, *hash, pbSignature, pdwSigLen);
    });
}

BOOL WINAPI CPVerifySignature(HCRYPTPROV hProv, HCRYPTHASH hHash, const BYTE* pbSignature, DWORD cbSigLen,
                              HCRYPTKEY hPubKey, LPCWSTR, DWORD) {
    return guardEntry("CPVerifySignature", [&]() -> BOOL {
        CspContext* context = contextFromHandle(hProv);
        if (context == nullptr) {
            Utils::logError("CSP Context Not Initialized");
            return failWith(NTE_BAD_UID);
        }
        HashContext* hash = hashFromHandle(hHash);
        if (hash == nullptr) {
            Utils::logError("Hash Context is not Initialized");
            return failWith(NTE_BAD_HASH);
        }
        if (pbSignature == nullptr && cbSigLen != 0) return failWith(static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        if (hash->hashValueLength == 0)
            if (DWORD failure = fetchDigest(hProv, hHash, *hash)) return failWith(failure);

        Bytes publicKey;
        if (DWORD failure = publicKeyForVerification(*context, hPubKey, publicKey)) return failWith(failure);

        return verifyDigest(*context, *hash, publicKey, pbSignature, cbSigLen);
    });
}

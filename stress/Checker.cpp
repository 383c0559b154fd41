#include "stress/Checker.h"

#include <algorithm>
#include <cstring>

namespace stress {
namespace {

bool succeeded(NTSTATUS status) { return status == 0; }

// The decoded SubjectPublicKeyInfo, freed with LocalFree.
CERT_PUBLIC_KEY_INFO* decodePublicKeyInfo(const Bytes& der) {
    CERT_PUBLIC_KEY_INFO* info = nullptr;
    DWORD size = 0;
    if (!CryptDecodeObjectEx(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, der.data(), static_cast<DWORD>(der.size()),
                             CRYPT_DECODE_ALLOC_FLAG, nullptr, &info, &size))
        return nullptr;
    return info;
}

// CryptoAPI's PUBLICKEYBLOB (little-endian modulus) as bcrypt's RSAPUBLICBLOB (big-endian).
Bytes bcryptRsaBlob(const Bytes& capiBlob, DWORD& modulusBytes) {
    const size_t header = sizeof(BLOBHEADER) + sizeof(RSAPUBKEY);
    if (capiBlob.size() < header) return {};
    RSAPUBKEY rsa;
    std::memcpy(&rsa, capiBlob.data() + sizeof(BLOBHEADER), sizeof rsa);
    modulusBytes = rsa.bitlen / 8;
    if (capiBlob.size() < header + modulusBytes) return {};
    Bytes exponent;
    for (DWORD value = rsa.pubexp; value != 0; value >>= 8) exponent.insert(exponent.begin(), static_cast<unsigned char>(value));
    BCRYPT_RSAKEY_BLOB head{BCRYPT_RSAPUBLIC_MAGIC, rsa.bitlen, static_cast<ULONG>(exponent.size()), modulusBytes, 0, 0};
    Bytes blob(reinterpret_cast<const unsigned char*>(&head), reinterpret_cast<const unsigned char*>(&head) + sizeof head);
    blob.insert(blob.end(), exponent.begin(), exponent.end());
    blob.insert(blob.end(), capiBlob.rbegin() + static_cast<long>(capiBlob.size() - header - modulusBytes),
                capiBlob.rend() - static_cast<long>(header));
    return blob;
}

}  // namespace

Checker::Checker(const Bytes& rsaPublicKey, const Bytes& ecPublicKey) {
    CERT_PUBLIC_KEY_INFO* rsaInfo = decodePublicKeyInfo(rsaPublicKey);
    CERT_PUBLIC_KEY_INFO* ecInfo = decodePublicKeyInfo(ecPublicKey);
    bool ok = rsaInfo != nullptr && ecInfo != nullptr;

    // RSA: rsaenh takes the key as it is; bcrypt gets it through rsaenh's public blob.
    ok = ok && CryptAcquireContextA(&rsaenh_, nullptr, MS_ENH_RSA_AES_PROV_A, PROV_RSA_AES, CRYPT_VERIFYCONTEXT);
    ok = ok && CryptImportPublicKeyInfo(rsaenh_, X509_ASN_ENCODING, rsaInfo, &rsaenhKey_);
    Bytes capiBlob(2048);
    DWORD capiSize = static_cast<DWORD>(capiBlob.size());
    ok = ok && CryptExportKey(rsaenhKey_, 0, PUBLICKEYBLOB, 0, capiBlob.data(), &capiSize);
    capiBlob.resize(ok ? capiSize : 0);
    Bytes rsaBlob = bcryptRsaBlob(capiBlob, rsaBytes_);
    ok = ok && !rsaBlob.empty() &&
         succeeded(BCryptOpenAlgorithmProvider(&rsaAlgorithm_, BCRYPT_RSA_ALGORITHM, nullptr, 0)) &&
         succeeded(BCryptImportKeyPair(rsaAlgorithm_, nullptr, BCRYPT_RSAPUBLIC_BLOB, &rsaKey_, rsaBlob.data(),
                                       static_cast<ULONG>(rsaBlob.size()), 0));

    // P-256: the uncompressed point 04 || X || Y of the SubjectPublicKeyInfo.
    ok = ok && ecInfo->PublicKey.cbData == 65 && ecInfo->PublicKey.pbData[0] == 0x04;
    if (ok) {
        BCRYPT_ECCKEY_BLOB head{BCRYPT_ECDSA_PUBLIC_P256_MAGIC, 32};
        Bytes blob(reinterpret_cast<const unsigned char*>(&head), reinterpret_cast<const unsigned char*>(&head) + sizeof head);
        blob.insert(blob.end(), ecInfo->PublicKey.pbData + 1, ecInfo->PublicKey.pbData + 65);
        ok = succeeded(BCryptOpenAlgorithmProvider(&ecAlgorithm_, BCRYPT_ECDSA_P256_ALGORITHM, nullptr, 0)) &&
             succeeded(BCryptImportKeyPair(ecAlgorithm_, nullptr, BCRYPT_ECCPUBLIC_BLOB, &ecKey_, blob.data(),
                                           static_cast<ULONG>(blob.size()), 0));
    }
    if (rsaInfo) LocalFree(rsaInfo);
    if (ecInfo) LocalFree(ecInfo);
    ready_ = ok;
}

Checker::~Checker() {
    if (rsaKey_) BCryptDestroyKey(rsaKey_);
    if (ecKey_) BCryptDestroyKey(ecKey_);
    if (rsaAlgorithm_) BCryptCloseAlgorithmProvider(rsaAlgorithm_, 0);
    if (ecAlgorithm_) BCryptCloseAlgorithmProvider(ecAlgorithm_, 0);
    if (rsaenhKey_) CryptDestroyKey(rsaenhKey_);
    if (rsaenh_) CryptReleaseContext(rsaenh_, 0);
}

bool Checker::digest(LPCWSTR algorithm, const Bytes& data, Bytes& out) const {
    BCRYPT_ALG_HANDLE provider = nullptr;
    BCRYPT_HASH_HANDLE hash = nullptr;
    DWORD length = 0, size = 0;
    bool ok = succeeded(BCryptOpenAlgorithmProvider(&provider, algorithm, nullptr, 0)) &&
              succeeded(BCryptGetProperty(provider, BCRYPT_HASH_LENGTH, reinterpret_cast<PUCHAR>(&length), sizeof length,
                                          &size, 0)) &&
              succeeded(BCryptCreateHash(provider, &hash, nullptr, 0, nullptr, 0, 0)) &&
              succeeded(BCryptHashData(hash, const_cast<PUCHAR>(data.data()), static_cast<ULONG>(data.size()), 0));
    if (ok) {
        out.assign(length, 0);
        ok = succeeded(BCryptFinishHash(hash, out.data(), length, 0));
    }
    if (hash) BCryptDestroyHash(hash);
    if (provider) BCryptCloseAlgorithmProvider(provider, 0);
    return ok;
}

bool Checker::verifyRsa(LPCWSTR algorithm, const Bytes& digest, const Bytes& signature) const {
    BCRYPT_PKCS1_PADDING_INFO padding{algorithm};
    return succeeded(BCryptVerifySignature(rsaKey_, &padding, const_cast<PUCHAR>(digest.data()),
                                           static_cast<ULONG>(digest.size()), const_cast<PUCHAR>(signature.data()),
                                           static_cast<ULONG>(signature.size()), BCRYPT_PAD_PKCS1));
}

bool Checker::verifyEc(const Bytes& digest, const Bytes& signature) const {
    return succeeded(BCryptVerifySignature(ecKey_, nullptr, const_cast<PUCHAR>(digest.data()),
                                           static_cast<ULONG>(digest.size()), const_cast<PUCHAR>(signature.data()),
                                           static_cast<ULONG>(signature.size()), 0));
}

bool Checker::encryptRsa(const Bytes& plain, Bytes& cipher) const {
    cipher.assign(std::max<size_t>(rsaBytes_, plain.size()), 0);
    std::memcpy(cipher.data(), plain.data(), plain.size());
    DWORD length = static_cast<DWORD>(plain.size());
    if (!CryptEncrypt(rsaenhKey_, 0, TRUE, 0, cipher.data(), &length, static_cast<DWORD>(cipher.size()))) return false;
    cipher.resize(length);
    return true;
}

}  // namespace stress

#include "softtoken/Crypto.h"

#include <gcrypt.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>

#include "encoding/Hex.h"
#include "softtoken/Asn1.h"
#include "softtoken/Secrets.h"
#include "softtoken/Status.h"

namespace softtoken::crypto {
namespace {

// libgcrypt's Windows entropy gatherer notes that disk statistics are off; that is no
// fault of ours, so informational lines are dropped and only real problems reach stderr.
void logHandler(void*, int level, const char* format, va_list args) {
    if (level == GCRY_LOG_INFO || level == GCRY_LOG_DEBUG) return;
    std::vfprintf(stderr, format, args);
}

void initialiseOnce() {
    static const bool ready = [] {
        gcry_set_log_handler(logHandler, nullptr);
        gcry_check_version(nullptr);
        gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
        gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
        return true;
    }();
    (void)ready;
}

struct SexpDeleter {
    void operator()(gcry_sexp_t sexp) const { gcry_sexp_release(sexp); }
};
using Sexp = std::unique_ptr<gcry_sexp, SexpDeleter>;

Bytes tokenData(gcry_sexp_t sexp, const char* name) {
    Sexp token(gcry_sexp_find_token(sexp, name, 0));
    if (!token) return {};
    size_t length = 0;
    const char* data = gcry_sexp_nth_data(token.get(), 1, &length);
    return data ? Bytes(data, data + length) : Bytes{};
}

// An MPI value as an unsigned big-endian number left-padded to width bytes.
Bytes paddedValue(gcry_sexp_t sexp, const char* name, size_t width) {
    Bytes value = tokenData(sexp, name);
    while (value.size() > 1 && value[0] == 0 && value.size() > width) value.erase(value.begin());
    if (value.size() < width) value.insert(value.begin(), width - value.size(), 0);
    return value;
}

using SharedSexp = std::shared_ptr<gcry_sexp>;

// Private keys parsed before, by their protected form: the same blob is the same key, so an
// entry never goes stale, and a key is unprotected once per process, not per operation.
// libgcrypt only reads a key while using it, so threads may share one.
std::mutex parsedMutex;
std::map<Bytes, SharedSexp> parsed;

SharedSexp parsedPrivateKey(const Bytes& sealed) {
    const size_t kMaximum = 64;
    {
        std::lock_guard<std::mutex> guard(parsedMutex);
        auto found = parsed.find(sealed);
        if (found != parsed.end()) return found->second;
    }
    orvane::SecretBuffer canonical;
    gcry_sexp_t sexp = nullptr;
    if (!unprotectSecret(sealed, canonical) || gcry_sexp_new(&sexp, canonical.data(), canonical.size(), 1) != 0)
        return nullptr;
    SharedSexp key(sexp, SexpDeleter());
    std::lock_guard<std::mutex> guard(parsedMutex);
    if (parsed.size() >= kMaximum) parsed.clear();
    parsed.emplace(sealed, key);
    return key;
}

const char* curveName(int keyType) {
    switch (keyType) {
    case 5: return "NIST P-256";
    case 6: return "NIST P-384";
    case 7: return "NIST P-521";
    default: return nullptr;
    }
}

size_t curveBytes(int keyType) { return keyType == 5 ? 32 : keyType == 6 ? 48 : 66; }

// ECDSA uses the leftmost bits of a digest longer than the curve order; libgcrypt does not
// cut a raw value itself. P-256 and P-384 orders are whole bytes, and no digest exceeds P-521.
Bytes ecdsaInput(int keyType, const Bytes& digest) {
    size_t limit = curveBytes(keyType);
    return digest.size() > limit ? Bytes(digest.begin(), digest.begin() + limit) : digest;
}

int rsaBits(int keyType) {
    switch (keyType) {
    case 1: return 1024;
    case 2: return 2048;
    case 3: return 3072;
    case 4: return 4096;
    default: return 0;
    }
}

const char* digestName(size_t length) {
    switch (length) {
    case 20: return "sha1";
    case 32: return "sha256";
    case 48: return "sha384";
    case 64: return "sha512";
    default: return nullptr;
    }
}

int hashAlgorithm(int mechanism) {
    switch (mechanism) {
    case 2: return GCRY_MD_SHA1;
    case 3: return GCRY_MD_SHA256;
    case 4: return GCRY_MD_SHA384;
    case 5: return GCRY_MD_SHA512;
    default: return 0;
    }
}

Sexp publicKeySexp(const PublicKeyInfo& info) {
    gcry_sexp_t key = nullptr;
    gcry_error_t error;
    if (info.isRsa)
        error = gcry_sexp_build(&key, nullptr, "(public-key (rsa (n %b) (e %b)))", static_cast<int>(info.modulus.size()),
                                info.modulus.data(), static_cast<int>(info.exponent.size()), info.exponent.data());
    else
        error = gcry_sexp_build(&key, nullptr, "(public-key (ecc (curve %s) (q %b)))", curveName(info.keyType),
                                static_cast<int>(info.point.size()), info.point.data());
    return error ? nullptr : Sexp(key);
}

orvane::SecretBuffer canonicalForm(gcry_sexp_t sexp) {
    size_t length = gcry_sexp_sprint(sexp, GCRYSEXP_FMT_CANON, nullptr, 0);
    orvane::SecretBuffer canonical(length);
    gcry_sexp_sprint(sexp, GCRYSEXP_FMT_CANON, canonical.data(), canonical.size());
    canonical.resize(length);
    return canonical;
}

}  // namespace

int generateKeyPair(int keyType, Bytes& publicKey, Bytes& privateKey) {
    initialiseOnce();
    gcry_sexp_t parameters = nullptr;
    if (int bits = rsaBits(keyType))
        gcry_sexp_build(&parameters, nullptr, "(genkey (rsa (nbits %d)))", bits);
    else if (const char* curve = curveName(keyType))
        gcry_sexp_build(&parameters, nullptr, "(genkey (ecc (curve %s)))", curve);
    else
        return kUnsupported;
    Sexp request(parameters);
    gcry_sexp_t generated = nullptr;
    if (!request || gcry_pk_genkey(&generated, request.get()) != 0) return kCryptoFailure;
    Sexp keys(generated);
    Sexp privatePart(gcry_sexp_find_token(keys.get(), "private-key", 0));
    if (!privatePart) return kCryptoFailure;

    if (rsaBits(keyType)) {
        publicKey = tokenData(privatePart.get(), "n");
        while (publicKey.size() > 1 && publicKey[0] == 0) publicKey.erase(publicKey.begin());
    } else {
        publicKey = encodeEcPublicKeyInfo(keyType, tokenData(privatePart.get(), "q"));
    }
    orvane::SecretBuffer canonical = canonicalForm(privatePart.get());
    if (!protectSecret(canonical.data(), canonical.size(), privateKey)) return kCryptoFailure;
    return kOk;
}

int signDigest(int keyType, const Bytes& privateKey, const Bytes& digest, Bytes& signature) {
    initialiseOnce();
    SharedSexp key = parsedPrivateKey(privateKey);
    if (!key) return kCryptoFailure;
    gcry_sexp_t data = nullptr;
    int digestLength = static_cast<int>(digest.size());
    if (rsaBits(keyType)) {
        const char* name = digestName(digest.size());
        if (name == nullptr) return kBadArguments;
        gcry_sexp_build(&data, nullptr, "(data (flags pkcs1) (hash %s %b))", name, digestLength, digest.data());
    } else if (curveName(keyType)) {
        if (digest.empty()) return kBadArguments;
        Bytes input = ecdsaInput(keyType, digest);
        gcry_sexp_build(&data, nullptr, "(data (flags raw) (value %b))", static_cast<int>(input.size()), input.data());
    } else {
        return kUnsupported;
    }
    Sexp request(data);
    gcry_sexp_t result = nullptr;
    if (!request || gcry_pk_sign(&result, request.get(), key.get()) != 0) return kCryptoFailure;
    Sexp signed_(result);
    if (int bits = rsaBits(keyType)) {
        signature = paddedValue(signed_.get(), "s", static_cast<size_t>(bits / 8));
    } else {
        signature = paddedValue(signed_.get(), "r", curveBytes(keyType));
        Bytes s = paddedValue(signed_.get(), "s", curveBytes(keyType));
        signature.insert(signature.end(), s.begin(), s.end());
    }
    return kOk;
}

int decrypt(const Bytes& privateKey, const Bytes& cipher, Bytes& plain) {
    initialiseOnce();
    SharedSexp key = parsedPrivateKey(privateKey);
    if (!key) return kCryptoFailure;
    size_t modulusBytes = (gcry_pk_get_nbits(key.get()) + 7) / 8;
    if (cipher.size() > modulusBytes) return kBadArguments;
    for (const char* padding : {"oaep", "pkcs1"}) {
        gcry_sexp_t data = nullptr;
        gcry_sexp_build(&data, nullptr, "(enc-val (flags %s) (rsa (a %b)))", padding, static_cast<int>(cipher.size()),
                        cipher.data());
        Sexp request(data);
        gcry_sexp_t result = nullptr;
        if (request && gcry_pk_decrypt(&result, request.get(), key.get()) == 0) {
            Sexp decrypted(result);
            plain = tokenData(decrypted.get(), "value");
            // A PKCS#1 v1.5 block with fewer than 8 padding bytes is malformed.
            if (padding[0] == 'p' && plain.size() + 11 > modulusBytes) break;
            return kOk;
        }
    }
    return kCryptoFailure;
}

int encrypt(const Bytes& publicKeyInfo, bool oaep, const Bytes& plain, Bytes& cipher) {
    initialiseOnce();
    PublicKeyInfo info;
    if (!parseSubjectPublicKeyInfo(publicKeyInfo, info) || !info.isRsa) return kBadArguments;
    // libgcrypt's PKCS#1 v1.5 encoding accepts fewer than the 8 random bytes the scheme requires.
    size_t overhead = oaep ? 2 * 20 + 2 : 11;
    if (info.modulus.size() < overhead || plain.size() > info.modulus.size() - overhead) return kBadArguments;
    Sexp key = publicKeySexp(info);
    gcry_sexp_t data = nullptr;
    gcry_sexp_build(&data, nullptr, "(data (flags %s) (value %b))", oaep ? "oaep" : "pkcs1",
                    static_cast<int>(plain.size()), plain.data());
    Sexp request(data);
    gcry_sexp_t result = nullptr;
    if (!key || !request || gcry_pk_encrypt(&result, request.get(), key.get()) != 0) return kCryptoFailure;
    Sexp encrypted(result);
    cipher = paddedValue(encrypted.get(), "a", info.modulus.size());
    return kOk;
}

int verifyDigest(const Bytes& publicKeyInfo, const Bytes& digest, const Bytes& signature) {
    initialiseOnce();
    PublicKeyInfo info;
    if (!parseSubjectPublicKeyInfo(publicKeyInfo, info)) return kBadArguments;
    Sexp key = publicKeySexp(info);
    gcry_sexp_t data = nullptr, sig = nullptr;
    int digestLength = static_cast<int>(digest.size());
    if (info.isRsa) {
        const char* name = digestName(digest.size());
        if (name == nullptr) return kBadArguments;
        gcry_sexp_build(&data, nullptr, "(data (flags pkcs1) (hash %s %b))", name, digestLength, digest.data());
        gcry_sexp_build(&sig, nullptr, "(sig-val (rsa (s %b)))", static_cast<int>(signature.size()), signature.data());
    } else {
        size_t half = signature.size() / 2;
        if (signature.empty() || signature.size() % 2 != 0) return kSignatureInvalid;
        Bytes input = ecdsaInput(info.keyType, digest);
        gcry_sexp_build(&data, nullptr, "(data (flags raw) (value %b))", static_cast<int>(input.size()), input.data());
        gcry_sexp_build(&sig, nullptr, "(sig-val (ecdsa (r %b) (s %b)))", static_cast<int>(half), signature.data(),
                        static_cast<int>(half), signature.data() + half);
    }
    Sexp request(data), signatureValue(sig);
    if (!key || !request || !signatureValue) return kCryptoFailure;
    return gcry_pk_verify(signatureValue.get(), request.get(), key.get()) == 0 ? kOk : kSignatureInvalid;
}

size_t hashLength(int mechanism) {
    int algorithm = hashAlgorithm(mechanism);
    return algorithm ? gcry_md_get_algo_dlen(algorithm) : 0;
}

void* hashOpen(int mechanism) {
    initialiseOnce();
    int algorithm = hashAlgorithm(mechanism);
    gcry_md_hd_t hash = nullptr;
    if (algorithm == 0 || gcry_md_open(&hash, algorithm, 0) != 0) return nullptr;
    return hash;
}

void hashWrite(void* hash, const unsigned char* data, size_t length) {
    gcry_md_write(static_cast<gcry_md_hd_t>(hash), data, length);
}

Bytes hashDigest(void* hash, int mechanism) {
    initialiseOnce();
    int algorithm = hashAlgorithm(mechanism);
    Bytes result(hashLength(mechanism));
    if (hash == nullptr) {
        gcry_md_hash_buffer(algorithm, result.data(), "", 0);
        return result;
    }
    // Reading finalises a libgcrypt context, so read a copy and keep the original going.
    gcry_md_hd_t copy = nullptr;
    if (gcry_md_copy(&copy, static_cast<gcry_md_hd_t>(hash)) != 0) throw std::bad_alloc();
    std::memcpy(result.data(), gcry_md_read(copy, algorithm), result.size());
    gcry_md_close(copy);
    return result;
}

int unwrapKey(const orvane::SecretBuffer& kek, const Bytes& wrapped, orvane::SecretBuffer& key) {
    initialiseOnce();
    int algorithm = kek.size() == 16 ? GCRY_CIPHER_AES128 : kek.size() == 24 ? GCRY_CIPHER_AES192
                  : kek.size() == 32 ? GCRY_CIPHER_AES256 : 0;
    if (algorithm == 0 || wrapped.size() < 24 || wrapped.size() % 8 != 0) return kBadArguments;
    gcry_cipher_hd_t cipher = nullptr;
    if (gcry_cipher_open(&cipher, algorithm, GCRY_CIPHER_MODE_AESWRAP, 0) != 0) return kCryptoFailure;
    orvane::SecretBuffer out(wrapped.size() - 8);
    bool ok = gcry_cipher_setkey(cipher, kek.data(), kek.size()) == 0 &&
              gcry_cipher_decrypt(cipher, out.data(), out.size(), wrapped.data(), wrapped.size()) == 0;
    gcry_cipher_close(cipher);
    if (!ok) return kCryptoFailure;
    key.swap(out);
    return kOk;
}

int decryptSymmetric(const Bytes& key, const Bytes& iv, const Bytes& cipher, Bytes& plain) {
    initialiseOnce();
    int algorithm = key.size() == 16 ? GCRY_CIPHER_AES128 : key.size() == 24 ? GCRY_CIPHER_AES192
                  : key.size() == 32 ? GCRY_CIPHER_AES256 : 0;
    if (algorithm == 0 || cipher.empty() || cipher.size() % 16 != 0 || (!iv.empty() && iv.size() != 16))
        return kBadArguments;
    gcry_cipher_hd_t handle = nullptr;
    if (gcry_cipher_open(&handle, algorithm, iv.empty() ? GCRY_CIPHER_MODE_ECB : GCRY_CIPHER_MODE_CBC, 0) != 0)
        return kCryptoFailure;
    Bytes out(cipher.size());
    bool ok = gcry_cipher_setkey(handle, key.data(), key.size()) == 0 &&
              (iv.empty() || gcry_cipher_setiv(handle, iv.data(), iv.size()) == 0) &&
              gcry_cipher_decrypt(handle, out.data(), out.size(), cipher.data(), cipher.size()) == 0;
    gcry_cipher_close(handle);
    if (!ok) return kCryptoFailure;
    plain.swap(out);
    return kOk;
}

bool derivePinHash(const char* pin, size_t length, const Bytes& salt, int iterations, unsigned char* out,
                   size_t outLength) {
    initialiseOnce();
    return iterations > 0 && !salt.empty() &&
           gcry_kdf_derive(pin, length, GCRY_KDF_PBKDF2, GCRY_MD_SHA256, salt.data(), salt.size(),
                           static_cast<unsigned long>(iterations), outLength, out) == 0;
}

void randomBytes(unsigned char* buffer, size_t length) {
    initialiseOnce();
    gcry_randomize(buffer, length, GCRY_STRONG_RANDOM);
}

Bytes randomBytes(size_t length) {
    Bytes bytes(length);
    randomBytes(bytes.data(), length);
    return bytes;
}

}  // namespace softtoken::crypto

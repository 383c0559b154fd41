// The independent side of the run: Wine's bcrypt checks every signature and hashes the signed
// data itself, and Wine's rsaenh encrypts what the provider is asked to decrypt. The public
// keys come from the token's own export, never from the provider. One per worker thread.
#pragma once

#include <windows.h>
#include <bcrypt.h>
#include <wincrypt.h>

#include "stress/Records.h"

namespace stress {

class Checker {
public:
    // DER SubjectPublicKeyInfo of an RSA and of a P-256 key pair.
    Checker(const Bytes& rsaPublicKey, const Bytes& ecPublicKey);
    ~Checker();
    Checker(const Checker&) = delete;
    Checker& operator=(const Checker&) = delete;
    bool ready() const { return ready_; }

    // algorithm: BCRYPT_SHA1_ALGORITHM ... BCRYPT_SHA512_ALGORITHM
    bool digest(LPCWSTR algorithm, const Bytes& data, Bytes& out) const;
    // Big-endian PKCS#1 v1.5 signature of the digest.
    bool verifyRsa(LPCWSTR algorithm, const Bytes& digest, const Bytes& signature) const;
    // r || s, big-endian.
    bool verifyEc(const Bytes& digest, const Bytes& signature) const;
    // PKCS#1 v1.5 with the RSA public key; little-endian, as CryptoAPI hands ciphertext out.
    bool encryptRsa(const Bytes& plain, Bytes& cipher) const;

private:
    bool ready_ = false;
    BCRYPT_ALG_HANDLE rsaAlgorithm_ = nullptr, ecAlgorithm_ = nullptr;
    BCRYPT_KEY_HANDLE rsaKey_ = nullptr, ecKey_ = nullptr;
    HCRYPTPROV rsaenh_ = 0;
    HCRYPTKEY rsaenhKey_ = 0;
    DWORD rsaBytes_ = 0;
};

}  // namespace stress

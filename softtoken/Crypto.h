// The software token's cryptography. Everything here is done by libgcrypt; nothing of
// libgcrypt shows outside this interface.
#pragma once

#include <string>
#include <vector>

#include "token/SecretBytes.h"

namespace softtoken::crypto {

using Bytes = std::vector<unsigned char>;

// Key pairs. The public key comes back in the token's form (bare modulus for RSA,
// SubjectPublicKeyInfo for EC); the private key as a canonical s-expression protected for the
// user (softtoken/Secrets.h), the form in which private keys are given back below too.
int generateKeyPair(int keyType, Bytes& publicKey, Bytes& privateKey);

// RSA: PKCS#1 v1.5 over a bare digest, the DigestInfo chosen by the digest length.
// EC: ECDSA, the signature as r || s, each padded to the curve size.
int signDigest(int keyType, const Bytes& privateKey, const Bytes& digest, Bytes& signature);

// RSA decryption; OAEP (SHA-1) is tried first, then PKCS#1 v1.5.
int decrypt(const Bytes& privateKey, const Bytes& cipher, Bytes& plain);

// Public-key operations from a DER SubjectPublicKeyInfo. Encryption takes at most k - 11
// bytes (PKCS#1 v1.5) or k - 42 bytes (OAEP with SHA-1), k being the modulus length.
int encrypt(const Bytes& publicKeyInfo, bool oaep, const Bytes& plain, Bytes& cipher);
int verifyDigest(const Bytes& publicKeyInfo, const Bytes& digest, const Bytes& signature);

// Hashes by token mechanism number (2 = SHA-1 ... 5 = SHA-512); 0 for other numbers.
size_t hashLength(int mechanism);
void* hashOpen(int mechanism);
void hashWrite(void* hash, const unsigned char* data, size_t length);
// The digest of everything written so far; the hash stays open for more. A null hash gives
// the digest of no data.
Bytes hashDigest(void* hash, int mechanism);

// RFC 3394 unwrap; fails when the integrity check does not hold (wrong KEK).
int unwrapKey(const orvane::SecretBuffer& kek, const Bytes& wrapped, orvane::SecretBuffer& key);

// AES decryption without padding removal: CBC when an IV is given, else ECB.
int decryptSymmetric(const Bytes& key, const Bytes& iv, const Bytes& cipher, Bytes& plain);

// PBKDF2-HMAC-SHA256 of a PIN into out.
bool derivePinHash(const char* pin, size_t length, const Bytes& salt, int iterations, unsigned char* out,
                   size_t outLength);

void randomBytes(unsigned char* buffer, size_t length);
Bytes randomBytes(size_t length);

}  // namespace softtoken::crypto

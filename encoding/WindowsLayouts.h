// The published layouts of the Windows key blobs that callers hand to the import entries and
// that the export entries hand out, with the published constants the readers compare with.
// Declared here rather than taken from wincrypt.h and bcrypt.h so that the blob readers build
// on any host (the fuzzers run natively); the entry points check these declarations against
// the SDK's own. Every integer of a blob is little-endian: the readers read the words byte by
// byte at the offsets below and never overlay a struct on caller bytes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orvane::layouts {

// --- CryptoAPI ---

// BLOBHEADER (PUBLICKEYSTRUC): the first eight bytes of every CryptoAPI key blob.
struct BlobHeader {
    uint8_t bType;
    uint8_t bVersion;
    uint16_t reserved;
    uint32_t aiKeyAlg;
};
static_assert(sizeof(BlobHeader) == 8, "BLOBHEADER layout");
static_assert(offsetof(BlobHeader, aiKeyAlg) == 4, "BLOBHEADER layout");

// RSAPUBKEY: follows the BLOBHEADER of a PUBLICKEYBLOB; the modulus, little-endian and
// bitlen / 8 bytes long, follows it.
struct RsaPubKey {
    uint32_t magic;
    uint32_t bitlen;
    uint32_t pubexp;
};
static_assert(sizeof(RsaPubKey) == 12, "RSAPUBKEY layout");

// The 32-bit word after the BLOBHEADER of a SIMPLEBLOB (the ALG_ID of the key that encrypted
// the session key) and of a PLAINTEXTKEYBLOB (the key size); the key bytes follow it.
const size_t kSimpleBlobKeyOffset = sizeof(BlobHeader) + sizeof(uint32_t);
// A SYMMETRICWRAPKEYBLOB holds the wrapped key right after its BLOBHEADER.
const size_t kSymmetricWrapKeyOffset = sizeof(BlobHeader);
// Where the RSAPUBKEY words and the modulus of a PUBLICKEYBLOB are.
const size_t kRsaPubKeyMagicOffset = sizeof(BlobHeader) + offsetof(RsaPubKey, magic);
const size_t kRsaPubKeyBitLengthOffset = sizeof(BlobHeader) + offsetof(RsaPubKey, bitlen);
const size_t kRsaPubKeyExponentOffset = sizeof(BlobHeader) + offsetof(RsaPubKey, pubexp);
const size_t kRsaPubKeyModulusOffset = sizeof(BlobHeader) + sizeof(RsaPubKey);

// bType values.
const uint8_t kSimpleBlob = 0x1;             // SIMPLEBLOB
const uint8_t kPublicKeyBlob = 0x6;          // PUBLICKEYBLOB
const uint8_t kPrivateKeyBlob = 0x7;         // PRIVATEKEYBLOB
const uint8_t kPlaintextKeyBlob = 0x8;       // PLAINTEXTKEYBLOB
const uint8_t kOpaqueKeyBlob = 0x9;          // OPAQUEKEYBLOB
const uint8_t kPublicKeyBlobEx = 0xA;        // PUBLICKEYBLOBEX
const uint8_t kSymmetricWrapKeyBlob = 0xB;   // SYMMETRICWRAPKEYBLOB
const uint8_t kCurrentBlobVersion = 2;       // CUR_BLOB_VERSION

const uint32_t kRsa1Magic = 0x31415352;  // "RSA1": RSAPUBKEY.magic of a public key, BCRYPT_RSAPUBLIC_MAGIC

// ALG_IDs the blob readers and writers name.
const uint32_t kCalgRsaKeyx = 0xA400;    // CALG_RSA_KEYX
const uint32_t kCalg3Des = 0x6603;       // CALG_3DES
const uint32_t kCalgAes128 = 0x660E;     // CALG_AES_128
const uint32_t kCalgAes256 = 0x6610;     // CALG_AES_256

// --- CNG ---

// BCRYPT_RSAKEY_BLOB: six words, then the public exponent and the modulus, both big-endian.
struct BcryptRsaKeyBlob {
    uint32_t Magic;
    uint32_t BitLength;
    uint32_t cbPublicExp;
    uint32_t cbModulus;
    uint32_t cbPrime1;
    uint32_t cbPrime2;
};
static_assert(sizeof(BcryptRsaKeyBlob) == 24, "BCRYPT_RSAKEY_BLOB layout");

// BCRYPT_KEY_DATA_BLOB_HEADER: three words, then cbKeyData key bytes.
struct BcryptKeyDataBlobHeader {
    uint32_t dwMagic;
    uint32_t dwVersion;
    uint32_t cbKeyData;
};
static_assert(sizeof(BcryptKeyDataBlobHeader) == 12, "BCRYPT_KEY_DATA_BLOB_HEADER layout");

const uint32_t kBcryptRsaPublicMagic = kRsa1Magic;  // BCRYPT_RSAPUBLIC_MAGIC
const uint32_t kBcryptKeyDataBlobMagic = 0x4D42444B;  // BCRYPT_KEY_DATA_BLOB_MAGIC, "KDBM"

}  // namespace orvane::layouts

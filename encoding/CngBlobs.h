// CNG key blobs: reading what a caller hands to KSPImportKey and writing the public blobs that
// KSPExportKey hands out, plus the reading of the padding flags. Pure functions over bytes (no
// Win32, no logging), so they build on any host; the entry points log and map the refusals to
// their status codes. The published layouts are in encoding/WindowsLayouts.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "encoding/WindowsLayouts.h"
#include "encoding/KeyTypes.h"

namespace orvane::cng {

using Bytes = std::vector<unsigned char>;

// dwFlags bits of the encryption and signature entries.
const uint32_t kPadPkcs1Flag = 0x2;  // BCRYPT_PAD_PKCS1
const uint32_t kPadOaepFlag = 0x4;   // NCRYPT_PAD_OAEP_FLAG
const uint32_t kPadPssFlag = 0x8;    // BCRYPT_PAD_PSS
const uint32_t kSilentFlag = 0x40;   // NCRYPT_SILENT_FLAG

// The token library's padding code for orvane_encrypt: 4 (OAEP) or 1 (PKCS #1 v1.5), the
// values of the library's PaddingMode.
inline int paddingModeForFlags(uint32_t flags) { return (flags & kPadOaepFlag) ? 4 : 1; }
// PSS alone is refused; PSS together with PKCS #1 signs as PKCS #1.
inline bool asksForPssOnly(uint32_t flags) { return (flags & kPadPssFlag) && !(flags & kPadPkcs1Flag); }

enum class BlobRefusal { kNone, kBadData, kUnsupportedSize };

struct RsaPublicKey {
    Bytes modulus;  // big-endian, as the blob holds it
    uint32_t bitLength = 0;
};

// A BCRYPT_RSAKEY_BLOB holding a public key. Too short, a wrong magic, exponent and modulus
// beyond the blob, or a modulus longer than any RSA key the token knows (512 bytes): kBadData.
// A bit length other than 1024, 2048, 3072 or 4096 is refused last, as kUnsupportedSize, with
// bitLength filled so that it can be reported.
BlobRefusal parseRsaPublicBlob(const unsigned char* blob, size_t length, RsaPublicKey& key);

// A BCRYPT_KEY_DATA_BLOB: kBadData unless the header is whole, carries "KDBM" and the key
// bytes fit in the blob; kUnsupportedSize, with the bytes taken, for a key that is not 16, 24
// or 32 bytes.
BlobRefusal parseKeyDataBlob(const unsigned char* blob, size_t length, Bytes& keyBytes);

// Token symmetric key type of a raw key: 16 bytes AES-128 (8), 24 triple DES (11), 32 AES-256
// (10); 0 for any other length.
using orvane::symmetricKeyTypeForLength;

// BCRYPT_RSAKEY_BLOB of a big-endian modulus with exponent 65537: 27 + n bytes.
Bytes encodeRsaPublicBlob(const unsigned char* modulus, size_t modulusLength);

}  // namespace orvane::cng

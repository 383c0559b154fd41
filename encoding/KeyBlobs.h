// CryptoAPI key blobs: reading what a caller hands to CPImportKey and writing the
// PUBLICKEYBLOB that CPExportKey hands out. Pure functions over bytes (no Win32, no
// logging), so they build on any host and can be fuzzed; the entry points log and map the
// refusals to their error codes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "encoding/WindowsLayouts.h"
#include "encoding/KeyTypes.h"

namespace orvane::blobs {

using Bytes = std::vector<unsigned char>;

// Every import payload is measured as the blob length less this.
const size_t kPayloadOffset = layouts::kSimpleBlobKeyOffset;

struct BlobHeader {
    uint8_t type = 0;
    uint8_t version = 0;
    uint32_t algId = 0;
};

// False when fewer than 8 bytes are given.
bool readBlobHeader(const unsigned char* blob, size_t length, BlobHeader& header);

// The types CPImportKey accepts: SIMPLEBLOB, PUBLICKEYBLOB, PLAINTEXTKEYBLOB, SYMMETRICWRAPKEYBLOB.
// PRIVATEKEYBLOB and type 10 (PUBLICKEYBLOBEX) are answered as not implemented; every other
// type, OPAQUEKEYBLOB (9) among them, as unsupported.
enum class ImportType { kAccepted, kNotImplemented, kUnsupported };
ImportType classifyImportType(uint8_t type);

struct RsaPublicKey {
    Bytes modulus;         // big-endian, as the token and DER want it
    uint32_t bitLength = 0;
    unsigned char exponent[3] = {};  // the low three bytes of the blob's exponent, big-endian
};

enum class RsaBlobRefusal { kNone, kBadMagic, kModulusBeyondBlob, kUnsupportedSize };

// A PUBLICKEYBLOB: RSAPUBKEY magic at 8, bit length at 12, exponent at 16, little-endian
// modulus at 20. Sizes other than 1024, 2048, 3072 and 4096 bits are refused last, after
// everything else was read.
RsaBlobRefusal parseRsaPublicKeyBlob(const unsigned char* blob, size_t length, RsaPublicKey& key);

// Token key type (1-4) of an RSA size in bits; 0 when the size is not one the token knows.
using orvane::rsaKeyTypeForBits;

// The bytes after the fixed part of SIMPLEBLOB and PLAINTEXTKEYBLOB (offset 12, length
// less 12), and of SYMMETRICWRAPKEYBLOB (offset 8, length less 12: the last four bytes are
// not part of the wrapped key). Empty when the blob is too short to hold any.
Bytes simpleBlobPayload(const unsigned char* blob, size_t length);
Bytes symmetricWrapPayload(const unsigned char* blob, size_t length);

// Token symmetric key type for a session key's ALG_ID: 3DES 11, AES-128 8, AES-256 10; 0 otherwise.
int32_t sessionKeyTypeForAlgId(uint32_t algId);

// PUBLICKEYBLOB of a big-endian modulus: header (type 6, version 2), "RSA1", the modulus
// size in bits, exponent 65537, then the modulus reversed to little-endian.
Bytes encodeRsaPublicKeyBlob(uint32_t algId, const unsigned char* modulus, size_t modulusLength);

}  // namespace orvane::blobs

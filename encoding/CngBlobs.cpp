#include "encoding/CngBlobs.h"

#include "encoding/ByteOrder.h"

namespace orvane::cng {
namespace {

using orvane::appendLittleEndian32;
using orvane::readLittleEndian32;
using layouts::BcryptKeyDataBlobHeader;
using layouts::BcryptRsaKeyBlob;

// RSA-4096, the largest key the token holds.
const size_t kLargestModulus = 512;

uint32_t wordAt(const unsigned char* blob, size_t offset) { return readLittleEndian32(blob + offset); }

}  // namespace

BlobRefusal parseRsaPublicBlob(const unsigned char* blob, size_t length, RsaPublicKey& key) {
    if (blob == nullptr || length < sizeof(BcryptRsaKeyBlob) ||
        wordAt(blob, offsetof(BcryptRsaKeyBlob, Magic)) != layouts::kBcryptRsaPublicMagic)
        return BlobRefusal::kBadData;
    uint32_t bitLength = wordAt(blob, offsetof(BcryptRsaKeyBlob, BitLength));
    uint32_t exponentLength = wordAt(blob, offsetof(BcryptRsaKeyBlob, cbPublicExp));
    uint32_t modulusLength = wordAt(blob, offsetof(BcryptRsaKeyBlob, cbModulus));
    // 64-bit sums: two words near 4 GB must not wrap round to a small total.
    uint64_t needed = uint64_t{sizeof(BcryptRsaKeyBlob)} + exponentLength + modulusLength;
    if (needed > length || modulusLength > kLargestModulus) return BlobRefusal::kBadData;
    const unsigned char* modulus = blob + sizeof(BcryptRsaKeyBlob) + exponentLength;
    key.modulus.assign(modulus, modulus + modulusLength);
    key.bitLength = bitLength;
    if (rsaKeyTypeForBits(bitLength) == 0) return BlobRefusal::kUnsupportedSize;
    return BlobRefusal::kNone;
}

BlobRefusal parseKeyDataBlob(const unsigned char* blob, size_t length, Bytes& keyBytes) {
    if (blob == nullptr || length < sizeof(BcryptKeyDataBlobHeader) ||
        wordAt(blob, offsetof(BcryptKeyDataBlobHeader, dwMagic)) != layouts::kBcryptKeyDataBlobMagic)
        return BlobRefusal::kBadData;
    uint32_t keyLength = wordAt(blob, offsetof(BcryptKeyDataBlobHeader, cbKeyData));
    if (uint64_t{sizeof(BcryptKeyDataBlobHeader)} + keyLength > length) return BlobRefusal::kBadData;
    const unsigned char* key = blob + sizeof(BcryptKeyDataBlobHeader);
    keyBytes.assign(key, key + keyLength);
    return symmetricKeyTypeForLength(keyLength) == 0 ? BlobRefusal::kUnsupportedSize : BlobRefusal::kNone;
}

Bytes encodeRsaPublicBlob(const unsigned char* modulus, size_t modulusLength) {
    Bytes blob;
    blob.reserve(sizeof(BcryptRsaKeyBlob) + 3 + modulusLength);
    appendLittleEndian32(blob, layouts::kBcryptRsaPublicMagic);
    appendLittleEndian32(blob, static_cast<uint32_t>(modulusLength * 8));
    appendLittleEndian32(blob, 3);
    appendLittleEndian32(blob, static_cast<uint32_t>(modulusLength));
    appendLittleEndian32(blob, 0);
    appendLittleEndian32(blob, 0);
    blob.insert(blob.end(), {0x01, 0x00, 0x01});
    blob.insert(blob.end(), modulus, modulus + modulusLength);
    return blob;
}

}  // namespace orvane::cng

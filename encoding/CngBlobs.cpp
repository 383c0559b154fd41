#include "encoding/CngBlobs.h"

#include "encoding/ByteOrder.h"
#include "encoding/KeyBlobs.h"

namespace orvane::cng {
namespace {

using orvane::appendLittleEndian32;
using orvane::readLittleEndian32;

// RSA-4096, the largest key the token holds.
const size_t kLargestModulus = 512;


}  // namespace

BlobRefusal parseRsaPublicBlob(const unsigned char* blob, size_t length, RsaPublicKey& key) {
    if (blob == nullptr || length < sizeof(RsaKeyBlobHeader) || readLittleEndian32(blob) != kRsaPublicMagic)
        return BlobRefusal::kBadData;
    RsaKeyBlobHeader header = {readLittleEndian32(blob), readLittleEndian32(blob + 4), readLittleEndian32(blob + 8),
                               readLittleEndian32(blob + 12), readLittleEndian32(blob + 16),
                               readLittleEndian32(blob + 20)};
    // 64-bit sums: two words near 4 GB must not wrap round to a small total.
    uint64_t needed = uint64_t{sizeof(RsaKeyBlobHeader)} + header.cbPublicExp + header.cbModulus;
    if (needed > length || header.cbModulus > kLargestModulus) return BlobRefusal::kBadData;
    const unsigned char* modulus = blob + sizeof(RsaKeyBlobHeader) + header.cbPublicExp;
    key.modulus.assign(modulus, modulus + header.cbModulus);
    key.bitLength = header.bitLength;
    if (blobs::rsaKeyTypeForBits(header.bitLength) == 0) return BlobRefusal::kUnsupportedSize;
    return BlobRefusal::kNone;
}

BlobRefusal parseKeyDataBlob(const unsigned char* blob, size_t length, Bytes& keyBytes) {
    if (blob == nullptr || length < sizeof(KeyDataBlobHeader) || readLittleEndian32(blob) != kKeyDataBlobMagic)
        return BlobRefusal::kBadData;
    uint32_t keyLength = readLittleEndian32(blob + 8);
    if (uint64_t{sizeof(KeyDataBlobHeader)} + keyLength > length) return BlobRefusal::kBadData;
    const unsigned char* key = blob + sizeof(KeyDataBlobHeader);
    keyBytes.assign(key, key + keyLength);
    return symmetricKeyTypeForLength(keyLength) == 0 ? BlobRefusal::kUnsupportedSize : BlobRefusal::kNone;
}

int32_t symmetricKeyTypeForLength(size_t length) {
    switch (length) {
    case 16: return 8;
    case 24: return 11;
    case 32: return 10;
    default: return 0;
    }
}

Bytes encodeRsaPublicBlob(const unsigned char* modulus, size_t modulusLength) {
    Bytes blob;
    blob.reserve(sizeof(RsaKeyBlobHeader) + 3 + modulusLength);
    appendLittleEndian32(blob, kRsaPublicMagic);
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

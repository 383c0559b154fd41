#include "encoding/KeyBlobs.h"

#include <utility>

#include "encoding/ByteOrder.h"

namespace orvane::blobs {
namespace {

using orvane::appendLittleEndian32;
using orvane::readLittleEndian32;

const size_t kRsaModulusOffset = 20;

}  // namespace

bool readBlobHeader(const unsigned char* blob, size_t length, BlobHeader& header) {
    if (blob == nullptr || length < kBlobHeaderSize) return false;
    header.type = blob[0];
    header.version = blob[1];
    header.algId = readLittleEndian32(blob + 4);
    return true;
}

ImportType classifyImportType(uint8_t type) {
    switch (type) {
    case kSimpleBlob:
    case kPublicKeyBlob:
    case kPlaintextKeyBlob:
    case kSymmetricWrapKeyBlob: return ImportType::kAccepted;
    case kPrivateKeyBlob:
    case kOpaqueKeyBlob: return ImportType::kNotImplemented;
    default: return ImportType::kUnsupported;
    }
}

RsaBlobRefusal parseRsaPublicKeyBlob(const unsigned char* blob, size_t length, RsaPublicKey& key) {
    if (blob == nullptr || length < kRsaModulusOffset || readLittleEndian32(blob + 8) != kRsaPublicMagic)
        return RsaBlobRefusal::kBadMagic;
    key.bitLength = readLittleEndian32(blob + 12);
    size_t modulusLength = key.bitLength / 8;
    if (modulusLength > length - kRsaModulusOffset) return RsaBlobRefusal::kModulusBeyondBlob;
    uint32_t exponent = readLittleEndian32(blob + 16);
    key.exponent[0] = static_cast<unsigned char>(exponent >> 16);
    key.exponent[1] = static_cast<unsigned char>(exponent >> 8);
    key.exponent[2] = static_cast<unsigned char>(exponent);
    const unsigned char* littleEndian = blob + kRsaModulusOffset;
    key.modulus.assign(littleEndian, littleEndian + modulusLength);
    for (size_t i = 0, j = modulusLength; i + 1 < j; ++i, --j) std::swap(key.modulus[i], key.modulus[j - 1]);
    if (rsaKeyTypeForBits(key.bitLength) == 0) return RsaBlobRefusal::kUnsupportedSize;
    return RsaBlobRefusal::kNone;
}

int32_t rsaKeyTypeForBits(uint32_t bits) {
    switch (bits) {
    case 1024: return 1;
    case 2048: return 2;
    case 3072: return 3;
    case 4096: return 4;
    default: return 0;
    }
}

Bytes simpleBlobPayload(const unsigned char* blob, size_t length) {
    if (blob == nullptr || length <= kPayloadOffset) return Bytes();
    return Bytes(blob + kPayloadOffset, blob + length);
}

Bytes symmetricWrapPayload(const unsigned char* blob, size_t length) {
    if (blob == nullptr || length <= kPayloadOffset) return Bytes();
    return Bytes(blob + kBlobHeaderSize, blob + kBlobHeaderSize + (length - kPayloadOffset));
}

int32_t sessionKeyTypeForAlgId(uint32_t algId) {
    switch (algId) {
    case 0x6603: return 11;  // CALG_3DES
    case 0x660E: return 8;   // CALG_AES_128
    case 0x6610: return 10;  // CALG_AES_256
    default: return 0;
    }
}

Bytes encodeRsaPublicKeyBlob(uint32_t algId, const unsigned char* modulus, size_t modulusLength) {
    Bytes blob = {kPublicKeyBlob, 2, 0, 0};
    appendLittleEndian32(blob, algId);
    appendLittleEndian32(blob, kRsaPublicMagic);
    appendLittleEndian32(blob, static_cast<uint32_t>(modulusLength * 8));
    appendLittleEndian32(blob, 65537);
    for (size_t i = modulusLength; i > 0; --i) blob.push_back(modulus[i - 1]);
    return blob;
}

}  // namespace orvane::blobs

#include "encoding/KeyBlobs.h"

#include <utility>

#include "encoding/ByteOrder.h"

namespace orvane::blobs {
namespace {

using orvane::appendLittleEndian32;
using orvane::KeyFamily;
using orvane::keyTypeRowFor;
using orvane::readLittleEndian32;

}  // namespace

bool readBlobHeader(const unsigned char* blob, size_t length, BlobHeader& header) {
    if (blob == nullptr || length < sizeof(layouts::BlobHeader)) return false;
    header.type = blob[offsetof(layouts::BlobHeader, bType)];
    header.version = blob[offsetof(layouts::BlobHeader, bVersion)];
    header.algId = readLittleEndian32(blob + offsetof(layouts::BlobHeader, aiKeyAlg));
    return true;
}

ImportType classifyImportType(uint8_t type) {
    switch (type) {
    case layouts::kSimpleBlob:
    case layouts::kPublicKeyBlob:
    case layouts::kPlaintextKeyBlob:
    case layouts::kSymmetricWrapKeyBlob: return ImportType::kAccepted;
    case layouts::kPrivateKeyBlob:
    case layouts::kPublicKeyBlobEx: return ImportType::kNotImplemented;
    default: return ImportType::kUnsupported;
    }
}

RsaBlobRefusal parseRsaPublicKeyBlob(const unsigned char* blob, size_t length, RsaPublicKey& key) {
    if (blob == nullptr || length < layouts::kRsaPubKeyModulusOffset ||
        readLittleEndian32(blob + layouts::kRsaPubKeyMagicOffset) != layouts::kRsa1Magic)
        return RsaBlobRefusal::kBadMagic;
    key.bitLength = readLittleEndian32(blob + layouts::kRsaPubKeyBitLengthOffset);
    size_t modulusLength = key.bitLength / 8;
    if (modulusLength > length - layouts::kRsaPubKeyModulusOffset) return RsaBlobRefusal::kModulusBeyondBlob;
    uint32_t exponent = readLittleEndian32(blob + layouts::kRsaPubKeyExponentOffset);
    key.exponent[0] = static_cast<unsigned char>(exponent >> 16);
    key.exponent[1] = static_cast<unsigned char>(exponent >> 8);
    key.exponent[2] = static_cast<unsigned char>(exponent);
    const unsigned char* littleEndian = blob + layouts::kRsaPubKeyModulusOffset;
    key.modulus.assign(littleEndian, littleEndian + modulusLength);
    for (size_t i = 0, j = modulusLength; i + 1 < j; ++i, --j) std::swap(key.modulus[i], key.modulus[j - 1]);
    if (rsaKeyTypeForBits(key.bitLength) == 0) return RsaBlobRefusal::kUnsupportedSize;
    return RsaBlobRefusal::kNone;
}

Bytes simpleBlobPayload(const unsigned char* blob, size_t length) {
    if (blob == nullptr || length <= kPayloadOffset) return Bytes();
    return Bytes(blob + layouts::kSimpleBlobKeyOffset, blob + length);
}

Bytes symmetricWrapPayload(const unsigned char* blob, size_t length) {
    if (blob == nullptr || length <= kPayloadOffset) return Bytes();
    const unsigned char* wrapped = blob + layouts::kSymmetricWrapKeyOffset;
    return Bytes(wrapped, wrapped + (length - kPayloadOffset));
}

int32_t sessionKeyTypeForAlgId(uint32_t algId) {
    switch (algId) {
    case layouts::kCalg3Des: return keyTypeRowFor(KeyFamily::kDes3, 192)->code;
    case layouts::kCalgAes128: return keyTypeRowFor(KeyFamily::kAes, 128)->code;
    case layouts::kCalgAes256: return keyTypeRowFor(KeyFamily::kAes, 256)->code;
    default: return 0;
    }
}

Bytes encodeRsaPublicKeyBlob(uint32_t algId, const unsigned char* modulus, size_t modulusLength) {
    Bytes blob = {layouts::kPublicKeyBlob, layouts::kCurrentBlobVersion, 0, 0};
    appendLittleEndian32(blob, algId);
    appendLittleEndian32(blob, layouts::kRsa1Magic);
    appendLittleEndian32(blob, static_cast<uint32_t>(modulusLength * 8));
    appendLittleEndian32(blob, 65537);
    for (size_t i = modulusLength; i > 0; --i) blob.push_back(modulus[i - 1]);
    return blob;
}

}  // namespace orvane::blobs

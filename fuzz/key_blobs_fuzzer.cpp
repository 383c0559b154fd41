// libFuzzer target: the CryptoAPI import blobs (encoding/KeyBlobs), read in the order
// CPImportKey reads them, and the CAPIPUBLICBLOB that KSPImportKey reads with the same parser.
// Checks that what is read lies inside the input and that a public key read from a blob comes
// back as an equivalent blob and as DER that the software token reads as the same key.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "encoding/ByteOrder.h"
#include "encoding/Der.h"
#include "encoding/Hex.h"
#include "encoding/KeyBlobs.h"
#include "fuzz/FuzzCheck.h"
#include "softtoken/Asn1.h"

namespace {

namespace blobs = orvane::blobs;
namespace layouts = orvane::layouts;

// An INTEGER's magnitude as a DER reader gives it back: leading zeros gone, one byte kept.
orvane::Bytes withoutLeadingZeros(const orvane::Bytes& value) {
    size_t zeros = 0;
    while (zeros + 1 < value.size() && value[zeros] == 0) ++zeros;
    return orvane::Bytes(value.begin() + static_cast<ptrdiff_t>(zeros), value.end());
}

void checkPublicKey(const uint8_t* data, size_t size, const blobs::BlobHeader& header) {
    blobs::RsaPublicKey key;
    blobs::RsaBlobRefusal refusal = blobs::parseRsaPublicKeyBlob(data, size, key);
    if (refusal == blobs::RsaBlobRefusal::kBadMagic || refusal == blobs::RsaBlobRefusal::kModulusBeyondBlob) return;
    FUZZ_CHECK(key.modulus.size() == key.bitLength / 8);
    FUZZ_CHECK(layouts::kRsaPubKeyModulusOffset + key.modulus.size() <= size);
    FUZZ_CHECK((refusal == blobs::RsaBlobRefusal::kNone) == (blobs::rsaKeyTypeForBits(key.bitLength) != 0));
    if (refusal != blobs::RsaBlobRefusal::kNone) return;

    // The blob written for this modulus reads back as the same key. Its header, words and
    // modulus equal the input's whenever the input holds the same values.
    blobs::Bytes again = blobs::encodeRsaPublicKeyBlob(header.algId, key.modulus.data(), key.modulus.size());
    FUZZ_CHECK(again.size() == layouts::kRsaPubKeyModulusOffset + key.modulus.size());
    blobs::RsaPublicKey reread;
    FUZZ_CHECK(blobs::parseRsaPublicKeyBlob(again.data(), again.size(), reread) == blobs::RsaBlobRefusal::kNone);
    FUZZ_CHECK(reread.modulus == key.modulus && reread.bitLength == key.bitLength);
    FUZZ_CHECK(sameBytes(again.data() + layouts::kRsaPubKeyModulusOffset, data + layouts::kRsaPubKeyModulusOffset,
                         key.modulus.size()));
    bool sameWords = data[0] == layouts::kPublicKeyBlob && data[1] == layouts::kCurrentBlobVersion && data[2] == 0 &&
                     data[3] == 0 && orvane::readLittleEndian32(data + layouts::kRsaPubKeyExponentOffset) == 65537;
    if (sameWords) FUZZ_CHECK(sameBytes(again.data(), data, again.size()));

    // The DER that both import entries build from the blob is the same RSA key.
    orvane::Bytes der = orvane::encodeRsaPublicKeyDer(key.modulus, orvane::Bytes(key.exponent, key.exponent + 3));
    softtoken::PublicKeyInfo info;
    FUZZ_CHECK(softtoken::parseSubjectPublicKeyInfo(der, info) && info.isRsa);
    FUZZ_CHECK(info.modulus == withoutLeadingZeros(key.modulus));
    FUZZ_CHECK(info.exponent == withoutLeadingZeros(orvane::Bytes(key.exponent, key.exponent + 3)));
}

void checkPayloads(const uint8_t* data, size_t size) {
    blobs::Bytes simple = blobs::simpleBlobPayload(data, size);
    blobs::Bytes wrapped = blobs::symmetricWrapPayload(data, size);
    if (size <= blobs::kPayloadOffset) {
        FUZZ_CHECK(simple.empty() && wrapped.empty());
        return;
    }
    FUZZ_CHECK(simple.size() == size - blobs::kPayloadOffset && wrapped.size() == simple.size());
    FUZZ_CHECK(sameBytes(simple.data(), data + layouts::kSimpleBlobKeyOffset, simple.size()));
    FUZZ_CHECK(sameBytes(wrapped.data(), data + layouts::kSymmetricWrapKeyOffset, wrapped.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) data = nullptr;  // an entry may be handed no buffer at all
    blobs::BlobHeader header;
    bool whole = blobs::readBlobHeader(data, size, header);
    FUZZ_CHECK(whole == (size >= sizeof(layouts::BlobHeader)));
    // KSPImportKey reads a CAPIPUBLICBLOB whatever its type says.
    checkPublicKey(data, size, header);
    checkPayloads(data, size);
    if (whole && blobs::classifyImportType(header.type) == blobs::ImportType::kAccepted) {
        int32_t sessionKeyType = blobs::sessionKeyTypeForAlgId(header.algId);
        FUZZ_CHECK(sessionKeyType == 0 || sessionKeyType == 8 || sessionKeyType == 10 || sessionKeyType == 11);
    }
    return 0;
}

// libFuzzer target: the CNG import blobs (encoding/CngBlobs) that KSPImportKey reads, an RSA
// public blob and a key data blob, and the padding flags of the crypto entries. Checks that
// what is read lies inside the input and that an imported public key exported again, as a
// CNG or a legacy blob, reads back as the same key.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "encoding/ByteOrder.h"
#include "encoding/CngBlobs.h"
#include "encoding/KeyBlobs.h"
#include "fuzz/FuzzCheck.h"

namespace {

namespace cng = orvane::cng;
namespace blobs = orvane::blobs;
namespace layouts = orvane::layouts;
using layouts::BcryptKeyDataBlobHeader;
using layouts::BcryptRsaKeyBlob;

uint32_t wordAt(const uint8_t* data, size_t offset) { return orvane::readLittleEndian32(data + offset); }

void checkRsaPublicBlob(const uint8_t* data, size_t size) {
    cng::RsaPublicKey key;
    cng::BlobRefusal refusal = cng::parseRsaPublicBlob(data, size, key);
    if (refusal == cng::BlobRefusal::kBadData) return;
    uint32_t exponentLength = wordAt(data, offsetof(BcryptRsaKeyBlob, cbPublicExp));
    size_t modulusOffset = sizeof(BcryptRsaKeyBlob) + exponentLength;
    FUZZ_CHECK(key.modulus.size() == wordAt(data, offsetof(BcryptRsaKeyBlob, cbModulus)));
    FUZZ_CHECK(key.modulus.size() <= 512 && modulusOffset + key.modulus.size() <= size);
    FUZZ_CHECK(sameBytes(key.modulus.data(), data + modulusOffset, key.modulus.size()));
    FUZZ_CHECK((refusal == cng::BlobRefusal::kNone) == (blobs::rsaKeyTypeForBits(key.bitLength) != 0));
    if (refusal != cng::BlobRefusal::kNone) return;

    // Exported as a CNG blob: the same modulus, and the input itself when the input already
    // said what the export says (exponent 65537, no primes, bit length of the modulus).
    cng::Bytes again = cng::encodeRsaPublicBlob(key.modulus.data(), key.modulus.size());
    FUZZ_CHECK(again.size() == sizeof(BcryptRsaKeyBlob) + 3 + key.modulus.size());
    cng::RsaPublicKey reread;
    cng::BlobRefusal rereadRefusal = cng::parseRsaPublicBlob(again.data(), again.size(), reread);
    FUZZ_CHECK(rereadRefusal != cng::BlobRefusal::kBadData && reread.modulus == key.modulus);
    FUZZ_CHECK(reread.bitLength == key.modulus.size() * 8);
    static const uint8_t kExponent[] = {0x01, 0x00, 0x01};
    bool sameWords = key.bitLength == key.modulus.size() * 8 && exponentLength == 3 &&
                     sameBytes(data + sizeof(BcryptRsaKeyBlob), kExponent, 3) &&
                     wordAt(data, offsetof(BcryptRsaKeyBlob, cbPrime1)) == 0 &&
                     wordAt(data, offsetof(BcryptRsaKeyBlob, cbPrime2)) == 0;
    if (sameWords) FUZZ_CHECK(sameBytes(again.data(), data, again.size()));

    // Exported as a legacy blob: the same modulus, reversed.
    cng::Bytes legacy = blobs::encodeRsaPublicKeyBlob(layouts::kCalgRsaKeyx, key.modulus.data(), key.modulus.size());
    blobs::RsaPublicKey legacyKey;
    FUZZ_CHECK(blobs::parseRsaPublicKeyBlob(legacy.data(), legacy.size(), legacyKey) != blobs::RsaBlobRefusal::kBadMagic);
    FUZZ_CHECK(legacyKey.modulus == key.modulus);
}

void checkKeyDataBlob(const uint8_t* data, size_t size) {
    cng::Bytes keyBytes;
    cng::BlobRefusal refusal = cng::parseKeyDataBlob(data, size, keyBytes);
    if (refusal == cng::BlobRefusal::kBadData) return;
    FUZZ_CHECK(keyBytes.size() == wordAt(data, offsetof(BcryptKeyDataBlobHeader, cbKeyData)));
    FUZZ_CHECK(sizeof(BcryptKeyDataBlobHeader) + keyBytes.size() <= size);
    FUZZ_CHECK(sameBytes(keyBytes.data(), data + sizeof(BcryptKeyDataBlobHeader), keyBytes.size()));
    int32_t type = cng::symmetricKeyTypeForLength(keyBytes.size());
    FUZZ_CHECK((refusal == cng::BlobRefusal::kNone) == (type == 8 || type == 10 || type == 11));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) data = nullptr;  // an entry may be handed no buffer at all
    checkRsaPublicBlob(data, size);
    checkKeyDataBlob(data, size);
    if (size >= 4) {
        uint32_t flags = wordAt(data, 0);
        int padding = cng::paddingModeForFlags(flags);
        FUZZ_CHECK(padding == 1 || padding == 4);
        FUZZ_CHECK(!cng::asksForPssOnly(flags) || (flags & cng::kPadPssFlag));
    }
    return 0;
}

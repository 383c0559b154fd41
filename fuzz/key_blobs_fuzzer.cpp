// libFuzzer target: the CryptoAPI key blob readers and the public blob writer, built natively
// with sanitizers. Every input must come back as a value or a refusal, never a fault.
#include <cstddef>
#include <cstdint>

#include "encoding/KeyBlobs.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    namespace blobs = orvane::blobs;
    blobs::BlobHeader header;
    if (blobs::readBlobHeader(data, size, header)) blobs::classifyImportType(header.type);
    blobs::RsaPublicKey key;
    if (blobs::parseRsaPublicKeyBlob(data, size, key) == blobs::RsaBlobRefusal::kNone)
        blobs::encodeRsaPublicKeyBlob(header.algId, key.modulus.data(), key.modulus.size());
    blobs::simpleBlobPayload(data, size);
    blobs::symmetricWrapPayload(data, size);
    return 0;
}

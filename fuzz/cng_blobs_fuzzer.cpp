// libFuzzer target: the CNG key blob and property value readers, built natively with sanitizers.
#include <cstddef>
#include <cstdint>

#include "encoding/CngBlobs.h"
#include "encoding/ProviderPropertyValues.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    namespace cng = orvane::cng;
    cng::RsaPublicKey key;
    if (cng::parseRsaPublicBlob(data, size, key) == cng::BlobRefusal::kNone)
        cng::encodeRsaPublicBlob(key.modulus.data(), key.modulus.size());
    cng::Bytes keyBytes;
    cng::parseKeyDataBlob(data, size, keyBytes);
    orvane::properties::pinFromPropertyValue(data, size);
    orvane::properties::windowHandleFromPropertyValue(data, size);
    return 0;
}

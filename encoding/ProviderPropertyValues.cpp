#include "encoding/ProviderPropertyValues.h"

#include "encoding/ByteOrder.h"
#include "encoding/KeyTypes.h"

namespace orvane::properties {

std::string pinFromPropertyValue(const unsigned char* value, size_t length) {
    if (value == nullptr) return std::string();
    // Made at its final size, so that no outgrown copy of the PIN is left in freed memory.
    size_t end = 0;
    while (end < length && value[end] != 0) ++end;
    return std::string(reinterpret_cast<const char*>(value), end);
}

uint64_t windowHandleFromPropertyValue(const unsigned char* value, size_t length) {
    if (value == nullptr || length < kWindowHandleValueSize) return 0;
    uint64_t handle = 0;
    for (size_t i = kWindowHandleValueSize; i-- > 0;) handle = (handle << 8) | value[i];
    return handle;
}

bool dwordFromPropertyValue(const unsigned char* value, size_t length, uint32_t& word) {
    if (value == nullptr || length < 4) return false;
    word = readLittleEndian32(value);
    return true;
}

uint32_t usageFromKeyUsageFlags(uint32_t flags, uint32_t current) {
    uint32_t usage = usageFor((flags & kAllowSigningFlag) != 0, (flags & kAllowDecryptFlag) != 0);
    return usage != kUsageNone ? usage : current;
}

ChainingMode chainingModeFromPropertyValue(const unsigned char* value, size_t length) {
    if (value == nullptr) return ChainingMode::kUnsupported;
    std::u16string text;
    for (size_t i = 0; i + 1 < length; i += 2) {
        char16_t unit = static_cast<char16_t>(value[i] | (value[i + 1] << 8));
        if (unit == u'\0') break;
        text.push_back(unit);
    }
    if (text == u"ChainingModeCBC") return ChainingMode::kCbc;
    if (text == u"ChainingModeECB") return ChainingMode::kEcb;
    return ChainingMode::kUnsupported;
}

size_t expectedIvSize(uint32_t symmetricKeyLength) { return ivBytesOf(symmetricKeyTypeForLength(symmetricKeyLength)); }

}  // namespace orvane::properties

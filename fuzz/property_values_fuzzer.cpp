// libFuzzer target: the property values callers hand to KSPSetProviderProperty and
// KSPSetKeyProperty (encoding/ProviderPropertyValues), and the key and property names that
// KSP entries narrow (encoding/WideNames). Every reader gets the whole input, as each entry
// would for its property; checks that nothing is read past the stated length.
#include <cstddef>
#include <cstdint>
#include <string>

#include "encoding/ProviderPropertyValues.h"
#include "encoding/WideNames.h"
#include "fuzz/FuzzCheck.h"

namespace {

namespace properties = orvane::properties;

// The UTF-16LE text of a name, as CNG hands it over, with its terminator.
std::string wideValue(const char* name) {
    std::string value;
    for (const char* c = name; *c; ++c) value.append({*c, '\0'});
    value.append(2, '\0');
    return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) data = nullptr;  // an entry may be handed no buffer at all
    std::string pin = properties::pinFromPropertyValue(data, size);
    FUZZ_CHECK(pin.size() <= size && sameBytes(pin.data(), data, pin.size()));
    FUZZ_CHECK(pin.find('\0') == std::string::npos && (pin.size() == size || data[pin.size()] == 0));

    uint64_t window = properties::windowHandleFromPropertyValue(data, size);
    if (size < properties::kWindowHandleValueSize) {
        FUZZ_CHECK(window == 0);
    } else {
        for (size_t i = 0; i < properties::kWindowHandleValueSize; ++i)
            FUZZ_CHECK(static_cast<uint8_t>(window >> (8 * i)) == data[i]);
    }

    uint32_t word = 0;
    bool read = properties::dwordFromPropertyValue(data, size, word);
    FUZZ_CHECK(read == (size >= 4));
    if (read) {
        FUZZ_CHECK(word == (uint32_t{data[0]} | uint32_t{data[1]} << 8 | uint32_t{data[2]} << 16 | uint32_t{data[3]} << 24));
        uint32_t usage = properties::usageFromKeyUsageFlags(word, 7);
        FUZZ_CHECK(usage == 1 || usage == 2 || usage == 3 || (usage == 7 && (word & 3) == 0));
        FUZZ_CHECK(properties::expectedIvSize(word) == 0 || properties::expectedIvSize(word) == 8 ||
                   properties::expectedIvSize(word) == 16);
    }

    // Only the exact names, ended by a terminator or by the end of the value, are known.
    properties::ChainingMode mode = properties::chainingModeFromPropertyValue(data, size);
    if (mode != properties::ChainingMode::kUnsupported) {
        std::string name = wideValue(mode == properties::ChainingMode::kCbc ? "ChainingModeCBC" : "ChainingModeECB");
        size_t text = name.size() - 2;
        FUZZ_CHECK(size >= text && sameBytes(data, name.data(), text));
        FUZZ_CHECK(size - text < 2 || (data[text] == 0 && data[text + 1] == 0));
    }

    // A name as CNG hands it over: UTF-16 units up to the terminator, or no name at all.
    if (data == nullptr) FUZZ_CHECK(orvane::narrowLowBytes(static_cast<const wchar_t*>(nullptr)).empty());
    std::wstring name;
    for (size_t i = 0; i + 1 < size; i += 2) name.push_back(static_cast<wchar_t>(data[i] | data[i + 1] << 8));
    std::string narrow = orvane::narrowLowBytes(name);
    FUZZ_CHECK(narrow.size() == std::wstring(name.c_str()).size());
    for (size_t i = 0; i < narrow.size(); ++i) FUZZ_CHECK(static_cast<uint8_t>(narrow[i]) == data[2 * i]);
    return 0;
}

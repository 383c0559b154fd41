// Values a caller hands to KSPSetProviderProperty. Pure functions over bytes (no Win32, no
// logging); the entry point decides what a refusal means.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace orvane::properties {

// "SmartCardPin" is read as narrow text up to its first zero byte, so a wide PIN reaches the
// token as its first character. The stated length bounds the scan: a value without a
// terminator is never read past its end.
inline std::string pinFromPropertyValue(const unsigned char* value, size_t length) {
    std::string pin;
    if (value == nullptr) return pin;
    for (size_t i = 0; i < length && value[i] != 0; ++i) pin.push_back(static_cast<char>(value[i]));
    return pin;
}

const size_t kWindowHandleValueSize = 8;

// "HWND Handle": the first eight bytes, little-endian. Fewer bytes (or none) mean "no window",
// which clears the handle rather than failing.
inline uint64_t windowHandleFromPropertyValue(const unsigned char* value, size_t length) {
    if (value == nullptr || length < kWindowHandleValueSize) return 0;
    uint64_t handle = 0;
    for (size_t i = kWindowHandleValueSize; i-- > 0;) handle = (handle << 8) | value[i];
    return handle;
}

}  // namespace orvane::properties

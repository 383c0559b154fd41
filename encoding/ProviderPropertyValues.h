// Values a caller hands to KSPSetProviderProperty and KSPSetKeyProperty. Pure functions over
// bytes (no Win32, no logging); the entry points decide what a refusal means and log it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace orvane::properties {

// "SmartCardPin" is read as narrow text up to its first zero byte, so a wide PIN reaches the
// token as its first character. The stated length bounds the scan: a value without a
// terminator is never read past its end.
std::string pinFromPropertyValue(const unsigned char* value, size_t length);

const size_t kWindowHandleValueSize = 8;

// "HWND Handle": the first eight bytes, little-endian. Fewer bytes (or none) mean "no window",
// which clears the handle rather than failing.
uint64_t windowHandleFromPropertyValue(const unsigned char* value, size_t length);

// "Length" and "Key Usage": the first 32-bit word, little-endian; false when fewer than four
// bytes came (the entry then leaves the key as it was).
bool dwordFromPropertyValue(const unsigned char* value, size_t length, uint32_t& word);

const uint32_t kAllowDecryptFlag = 0x1;  // NCRYPT_ALLOW_DECRYPT_FLAG
const uint32_t kAllowSigningFlag = 0x2;  // NCRYPT_ALLOW_SIGNING_FLAG

// The token usage code a "Key Usage" value asks for: signing 1, decryption 2, both 3; a value
// with neither flag leaves the current code.
uint32_t usageFromKeyUsageFlags(uint32_t flags, uint32_t current);

enum class ChainingMode { kCbc, kEcb, kUnsupported };

// "ChainingMode": UTF-16LE text up to its terminator (or the end of the value, an odd last byte
// ignored), compared exactly with "ChainingModeCBC" and "ChainingModeECB".
ChainingMode chainingModeFromPropertyValue(const unsigned char* value, size_t length);

// The "IV" size a symmetric key of this many bytes takes: 16 for AES-128 and AES-256, 8 for
// triple DES (24 bytes); 0 when any size is accepted.
size_t expectedIvSize(uint32_t symmetricKeyLength);

}  // namespace orvane::properties

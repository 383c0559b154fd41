// Hexadecimal text for key ids, log lines and stored byte strings.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace orvane {

// Two upper-case digits per byte, in byte order, no separators.
inline std::string toHex(const unsigned char* data, size_t length) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(length * 2);
    for (size_t i = 0; i < length; ++i) {
        text.push_back(digits[data[i] >> 4]);
        text.push_back(digits[data[i] & 0x0F]);
    }
    return text;
}

inline std::string toHex(const std::vector<unsigned char>& bytes) { return toHex(bytes.data(), bytes.size()); }

// Lenient reading: an optional "0x" prefix is dropped, an odd length gets a leading "0",
// and a character that is not a hex digit counts as 0.
std::vector<unsigned char> hexToBytes(const std::string& text);

// Strict reading for stored data: false on an odd length or a non-hex character.
bool parseHex(const std::string& text, std::vector<unsigned char>& bytes);

}  // namespace orvane

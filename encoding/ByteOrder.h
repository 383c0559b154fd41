// RSA signatures and ciphertexts are little-endian on the CryptoAPI side and big-endian at
// the token; digests and plaintexts are never reversed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace orvane {

inline void reverseBytes(unsigned char* data, size_t length) {
    for (size_t i = 0, j = length; i + 1 < j; ++i, --j) {
        unsigned char swap = data[i];
        data[i] = data[j - 1];
        data[j - 1] = swap;
    }
}

inline std::vector<unsigned char> reversedCopy(const unsigned char* data, size_t length) {
    std::vector<unsigned char> copy(data, data + length);
    reverseBytes(copy.data(), copy.size());
    return copy;
}

// Little-endian 32-bit words, as the Windows key blob headers hold them.
inline uint32_t readLittleEndian32(const unsigned char* at) {
    return static_cast<uint32_t>(at[0]) | static_cast<uint32_t>(at[1]) << 8 | static_cast<uint32_t>(at[2]) << 16 |
           static_cast<uint32_t>(at[3]) << 24;
}

inline void appendLittleEndian32(std::vector<unsigned char>& out, uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<unsigned char>(value >> shift));
}

}  // namespace orvane

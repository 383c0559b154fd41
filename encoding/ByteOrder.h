// RSA signatures and ciphertexts are little-endian on the CryptoAPI side and big-endian at
// the token; digests and plaintexts are never reversed.
#pragma once

#include <cstddef>
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

}  // namespace orvane

#include "encoding/Hex.h"

namespace orvane {
namespace {

int nibble(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::vector<unsigned char> hexToBytes(const std::string& text) {
    std::string digits = text;
    if (digits.size() >= 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) digits.erase(0, 2);
    if (digits.size() % 2 != 0) digits.insert(digits.begin(), '0');
    std::vector<unsigned char> bytes;
    bytes.reserve(digits.size() / 2);
    for (size_t i = 0; i < digits.size(); i += 2) {
        int high = nibble(digits[i]);
        int low = nibble(digits[i + 1]);
        bytes.push_back(static_cast<unsigned char>(((high < 0 ? 0 : high) << 4) | (low < 0 ? 0 : low)));
    }
    return bytes;
}

bool parseHex(const std::string& text, std::vector<unsigned char>& bytes) {
    if (text.size() % 2 != 0) return false;
    std::vector<unsigned char> result;
    result.reserve(text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2) {
        int high = nibble(text[i]);
        int low = nibble(text[i + 1]);
        if (high < 0 || low < 0) return false;
        result.push_back(static_cast<unsigned char>((high << 4) | low));
    }
    bytes.swap(result);
    return true;
}

}  // namespace orvane

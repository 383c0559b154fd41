// The token's key types and usage codes, in one table for both faces and the blob readers:
// what a type is called, how large it is, how the token encrypts with it and how large a
// CryptoAPI signature answer is. Pure data like the rest of encoding/, so the core, both faces
// and the blob readers share it on any host; token/KeyPairFacts.cpp checks the codes against
// the library's own declarations.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orvane {

// OrvaneKeyPair::keyUsage: 1 signature, 2 exchange, 3 both.
enum KeyUsage : uint32_t {
    kUsageNone = 0,
    kUsageSignature = 1,
    kUsageExchange = 2,
    kUsageSignatureAndExchange = 3,
};

constexpr bool usageAllowsSigning(int64_t usage) {
    return usage == kUsageSignature || usage == kUsageSignatureAndExchange;
}
constexpr bool usageAllowsExchange(int64_t usage) {
    return usage == kUsageExchange || usage == kUsageSignatureAndExchange;
}
constexpr uint32_t usageFor(bool signing, bool exchange) {
    return signing && exchange ? kUsageSignatureAndExchange
           : signing           ? kUsageSignature
           : exchange          ? kUsageExchange
                               : kUsageNone;
}

enum class KeyFamily { kRsa, kEc, kAes, kDes3 };

struct KeyTypeRow {
    int32_t code;               // OrvaneKeyPair::keyType / OrvaneSymmetricKey::keyType
    KeyFamily family;
    uint32_t bits;              // modulus, curve or key size
    uint32_t secretBytes;       // raw key length of a symmetric type; 0 for pairs
    uint32_t ivBytes;           // IV length of a symmetric type (its block size); 0 for pairs
    const wchar_t* cngName;     // CNG algorithm name of a key pair
    int encryptionType;         // orvane_encrypt's first argument for an RSA size; 0 otherwise
    uint32_t cspSignatureSize;  // CPSignHash's size answer; 0: the default answer
};

inline constexpr KeyTypeRow kKeyTypes[] = {
    {1, KeyFamily::kRsa, 1024, 0, 0, L"RSA", 7, 0},
    {2, KeyFamily::kRsa, 2048, 0, 0, L"RSA", 8, 0},
    {3, KeyFamily::kRsa, 3072, 0, 0, L"RSA", 9, 384},
    {4, KeyFamily::kRsa, 4096, 0, 0, L"RSA", 10, 512},
    {5, KeyFamily::kEc, 256, 0, 0, L"ECDSA_P256", 0, 0},
    {6, KeyFamily::kEc, 384, 0, 0, L"ECDSA_P384", 0, 0},
    {7, KeyFamily::kEc, 521, 0, 0, L"ECDSA_P521", 0, 0},
    {8, KeyFamily::kAes, 128, 16, 16, nullptr, 0, 0},
    {10, KeyFamily::kAes, 256, 32, 16, nullptr, 0, 0},
    {11, KeyFamily::kDes3, 192, 24, 8, nullptr, 0, 0},
};

inline constexpr int32_t kDefaultRsaKeyType = 2;       // RSA-2048: what an unknown RSA size becomes
inline constexpr uint32_t kDefaultCspSignatureSize = 256;

constexpr const KeyTypeRow* keyTypeRow(int32_t code) {
    for (const KeyTypeRow& row : kKeyTypes)
        if (row.code == code) return &row;
    return nullptr;
}

constexpr const KeyTypeRow* keyTypeRowFor(KeyFamily family, uint32_t bits) {
    for (const KeyTypeRow& row : kKeyTypes)
        if (row.family == family && row.bits == bits) return &row;
    return nullptr;
}

// The smallest and largest RSA size the token knows, and the size of its default type.
constexpr uint32_t rsaBitsBound(bool largest) {
    uint32_t bound = 0;
    for (const KeyTypeRow& row : kKeyTypes)
        if (row.family == KeyFamily::kRsa && (bound == 0 || (largest ? row.bits > bound : row.bits < bound)))
            bound = row.bits;
    return bound;
}
inline constexpr uint32_t kSmallestRsaBits = rsaBitsBound(false);
inline constexpr uint32_t kLargestRsaBits = rsaBitsBound(true);
inline constexpr uint32_t kDefaultRsaBits = keyTypeRow(kDefaultRsaKeyType)->bits;

// Key pair size: 1024-4096 for RSA, 256/384/521 for EC; 0 for any other code.
constexpr uint32_t keyPairBits(int32_t code) {
    const KeyTypeRow* row = keyTypeRow(code);
    return row != nullptr && (row->family == KeyFamily::kRsa || row->family == KeyFamily::kEc) ? row->bits : 0;
}

constexpr bool isEcKeyType(int32_t code) {
    const KeyTypeRow* row = keyTypeRow(code);
    return row != nullptr && row->family == KeyFamily::kEc;
}

// The RSA type of a size in bits; 0 when the token knows no such size.
constexpr int32_t rsaKeyTypeForBits(uint32_t bits) {
    const KeyTypeRow* row = keyTypeRowFor(KeyFamily::kRsa, bits);
    return row != nullptr ? row->code : 0;
}

// The same, with RSA-2048 for a size the token does not know.
constexpr int32_t rsaKeyTypeOrDefault(uint32_t bits) {
    int32_t code = rsaKeyTypeForBits(bits);
    return code != 0 ? code : kDefaultRsaKeyType;
}

// The encryption type for an RSA size; RSA-2048's for any size not in the table.
constexpr int encryptionTypeCodeForSize(uint32_t bits) { return keyTypeRow(rsaKeyTypeOrDefault(bits))->encryptionType; }

// "ECDSA_P256", "ECDSA_P384", "ECDSA_P521" for EC types; "RSA" for every other type.
constexpr const wchar_t* cngAlgorithmName(int32_t code) { return isEcKeyType(code) ? keyTypeRow(code)->cngName : L"RSA"; }

// The EC type of a CNG algorithm name, compared exactly; 0 for any other name.
constexpr int32_t ecKeyTypeForCngName(const wchar_t* name) {
    for (const KeyTypeRow& row : kKeyTypes) {
        if (row.family != KeyFamily::kEc) continue;
        size_t i = 0;
        while (name[i] != L'\0' && name[i] == row.cngName[i]) ++i;
        if (name[i] == row.cngName[i]) return row.code;
    }
    return 0;
}

// The symmetric type of a raw key: 16 bytes AES-128, 24 triple DES, 32 AES-256; 0 otherwise.
constexpr int32_t symmetricKeyTypeForLength(size_t length) {
    for (const KeyTypeRow& row : kKeyTypes)
        if (row.secretBytes != 0 && row.secretBytes == length) return row.code;
    return 0;
}

// The IV length of a symmetric type; 0 for any other code.
constexpr uint32_t ivBytesOf(int32_t code) {
    const KeyTypeRow* row = keyTypeRow(code);
    return row != nullptr ? row->ivBytes : 0;
}

// The AES type of a raw key: AES-128 for 16 bytes, AES-256 for any other length.
constexpr int32_t aesKeyTypeForLength(size_t length) {
    return length == 16 ? keyTypeRowFor(KeyFamily::kAes, 128)->code : keyTypeRowFor(KeyFamily::kAes, 256)->code;
}

// The signature a key pair type makes: the modulus for RSA, r and s side by side for EC; 0 otherwise.
constexpr uint32_t signatureBytes(int32_t code) {
    const KeyTypeRow* row = keyTypeRow(code);
    if (row == nullptr) return 0;
    return row->family == KeyFamily::kRsa ? row->bits / 8 : row->family == KeyFamily::kEc ? 2 * ((row->bits + 7) / 8) : 0;
}
constexpr uint32_t largestSignatureBytes() {
    uint32_t largest = 0;
    for (const KeyTypeRow& row : kKeyTypes)
        if (signatureBytes(row.code) > largest) largest = signatureBytes(row.code);
    return largest;
}
inline constexpr uint32_t kLargestSignatureBytes = largestSignatureBytes();

// CPSignHash's answer to a size query, by the key type it chose.
constexpr uint32_t cspSignatureSize(int64_t code) {
    const KeyTypeRow* row = code >= INT32_MIN && code <= INT32_MAX ? keyTypeRow(static_cast<int32_t>(code)) : nullptr;
    return row != nullptr && row->cspSignatureSize != 0 ? row->cspSignatureSize : kDefaultCspSignatureSize;
}

}  // namespace orvane

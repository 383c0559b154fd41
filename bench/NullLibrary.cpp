// A token library that does nothing: OrvaneDSCLibrary.dll with the software token's exports,
// answering at once with one signed-on token, its key pairs and fixed bytes. Built only for
// the benchmark, so that what remains of a provider call is the provider's own cost.
#include <windows.h>

#include <atomic>
#include <cstring>

#include "token/OrvaneDSCLibrary.h"

namespace {

const char kSerial[] = "NULL-0001";
const int kSignatureBytes = 256;

std::atomic<int> keyPairCount{2};

// Key pair i has the key id 00..00 i (big-endian) and a 2048-bit modulus of fixed bytes.
OrvaneKeyPair keyPair(int i) {
    OrvaneKeyPair pair{};
    pair.keyIndex = i + 1;
    pair.keyId[14] = static_cast<uint8_t>(i >> 8);
    pair.keyId[15] = static_cast<uint8_t>(i);
    pair.publicKeyLength = kSignatureBytes;
    std::memset(pair.publicKey, 0xC5, kSignatureBytes);
    std::strcpy(pair.label, "null key");
    pair.keyUsage = 3;
    pair.keyType = ORVANE_KEY_RSA_2048;
    return pair;
}

int digestBytes(int mechanism) {
    switch (mechanism) {
    case ORVANE_MECH_SHA1: return 20;
    case ORVANE_MECH_SHA384: return 48;
    case ORVANE_MECH_SHA512: return 64;
    default: return 32;
    }
}

}  // namespace

// Not imported by the provider: the benchmark sets how many key pairs the token holds.
extern "C" __declspec(dllexport) void nullLibrarySetKeyPairs(int count) { keyPairCount = count; }

int orvane_init(int, void*, int) { return 0; }

std::vector<std::string> orvane_getConnectedDeviceList(bool, void*) { return {kSerial}; }

int orvane_initDevice(const char*, bool, void*) { return 0; }

TokenInfo orvane_getTokenInfo(const char* serialNumber, void*) {
    TokenInfo info;
    info.label = "Null token";
    info.serialNumber = serialNumber ? serialNumber : "";
    info.loginState = 1;
    info.ssoState = 1;
    return info;
}

int orvane_validatePassword(const char*, const char*, int, int* remainingAttempts, void*) {
    if (remainingAttempts) *remainingAttempts = 10;
    return 0;
}

// The lists belong to the library until the next call on the same thread. Held through plain
// pointers: a MinGW thread_local with a destructor, in a DLL, can outlive its storage.
std::vector<OrvaneKeyPair>& orvane_getKeyPairList(const char*, void*) {
    thread_local std::vector<OrvaneKeyPair>* list = new std::vector<OrvaneKeyPair>;
    int count = keyPairCount;
    if (static_cast<int>(list->size()) != count) {
        list->clear();
        for (int i = 0; i < count; ++i) list->push_back(keyPair(i));
    }
    return *list;
}

std::vector<OrvaneCertificate>& orvane_getCertificateList(const char*, void*) {
    thread_local std::vector<OrvaneCertificate>* none = new std::vector<OrvaneCertificate>;
    none->clear();
    return *none;
}

std::vector<OrvaneSymmetricKey>& orvane_getAesKeyList(const char*, void*) {
    thread_local std::vector<OrvaneSymmetricKey>* none = new std::vector<OrvaneSymmetricKey>;
    none->clear();
    return *none;
}

int orvane_getCertificateDetails(const unsigned char*, int, CertificateDetails&, void*) { return 1; }
int orvane_generateKeyPair(const char*, const char*, OrvaneKeyPair*, void*) { return 1; }
int orvane_deleteKeyPair(const char*, const unsigned char*, const char*, bool, void*) { return 1; }
int orvane_importCertificate(const char*, const char*, OrvaneCertificate*, void*) { return 1; }
int orvane_importAesKey(const char*, const char*, OrvaneSymmetricKey*, void*) { return 1; }

int orvane_signHash(const char*, const unsigned char*, const char*, const unsigned char*, int, unsigned char* signature,
                    int* signatureLength, bool, void*) {
    if (signatureLength == nullptr || *signatureLength < kSignatureBytes) return 1;
    std::memset(signature, 0x5A, kSignatureBytes);
    *signatureLength = kSignatureBytes;
    return 0;
}

int orvane_decrypt(const char*, const unsigned char*, const char*, const unsigned char*, int, unsigned char**, int*,
                   bool, void*) {
    return 1;
}
int orvane_decryptSymetric(const char*, const unsigned char*, int, unsigned char*, int*, const unsigned char*, int,
                           const unsigned char*, int, void*) {
    return 1;
}
int orvane_decrypt_aes(const char*, const unsigned char*, int, const unsigned char*, int, unsigned char**, int*, bool,
                       const unsigned char*, int, void*) {
    return 1;
}
int orvane_encrypt(EncryptionType, PaddingMode, const unsigned char*, int, unsigned char*, int*, const unsigned char*,
                   int, void*) {
    return 1;
}
int orvane_verifySignatureHash(unsigned int, const char*, const unsigned char*, int, const unsigned char*, int,
                               const unsigned char*, int, void*) {
    return 1;
}

// The handle carries the mechanism; nothing is kept.
int orvane_initHash(const char*, int mechanism, void** hashHandle, void*) {
    if (hashHandle == nullptr) return 1;
    *hashHandle = reinterpret_cast<void*>(static_cast<uintptr_t>(0x10000 + mechanism));
    return 0;
}

int orvane_updateHash(void* hashHandle, const unsigned char*, int, void*) { return hashHandle ? 0 : 1; }

int orvane_finalHash(void* hashHandle, unsigned char* digest, int* digestLength, void*) {
    if (hashHandle == nullptr || digestLength == nullptr) return 1;
    int size = digestBytes(static_cast<int>(reinterpret_cast<uintptr_t>(hashHandle) - 0x10000));
    if (*digestLength < size) {
        *digestLength = size;
        return 1;
    }
    std::memset(digest, 0xD1, static_cast<size_t>(size));
    *digestLength = size;
    return 0;
}

int orvane_generateRamdomNumber(const char*, int length, unsigned char* buffer, bool, void*) {
    if (length > 0 && buffer) std::memset(buffer, 0x42, static_cast<size_t>(length));
    return 0;
}

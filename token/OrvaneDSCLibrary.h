// Interface of the token maker's access library OrvaneDSCLibrary.
//
// The provider imports these 23 functions by name. The records below are shared
// with the library byte for byte, so their layout is fixed and checked at compile
// time. Unread stretches of the records and the unread members of TokenInfo and
// CertificateDetails are named here once and must not change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#if defined(ORVANE_DSC_BUILDING)
#define ORVANE_DSC_API __declspec(dllexport)
#else
#define ORVANE_DSC_API __declspec(dllimport)
#endif

// Library status codes that callers tell apart; every other non-zero value is a failure.
enum : int {
    ORVANE_OK = 0,
    ORVANE_CLOCK_MISMATCH = 48,  // orvane_validatePassword: token and system clocks disagree
    ORVANE_SSO_EXPIRED = 49,     // private-key operations: single sign-on has run out
};

// Token key type codes (OrvaneKeyPair::keyType, OrvaneSymmetricKey::keyType).
enum : int32_t {
    ORVANE_KEY_RSA_1024 = 1,
    ORVANE_KEY_RSA_2048 = 2,
    ORVANE_KEY_RSA_3072 = 3,
    ORVANE_KEY_RSA_4096 = 4,
    ORVANE_KEY_EC_P256 = 5,
    ORVANE_KEY_EC_P384 = 6,
    ORVANE_KEY_EC_P521 = 7,
    ORVANE_KEY_AES_128 = 8,
    ORVANE_KEY_AES_256 = 10,
    ORVANE_KEY_DES3 = 11,
};

// Hash mechanism numbers for orvane_initHash / orvane_verifySignatureHash.
enum : int {
    ORVANE_MECH_SHA1 = 2,
    ORVANE_MECH_SHA256 = 3,
    ORVANE_MECH_SHA384 = 4,
    ORVANE_MECH_SHA512 = 5,
};

enum EncryptionType : int {
    ENCRYPTION_RSA_1024 = 7,
    ENCRYPTION_RSA_2048 = 8,
    ENCRYPTION_RSA_3072 = 9,
    ENCRYPTION_RSA_4096 = 10,
};

enum PaddingMode : int {
    PADDING_PKCS1 = 1,
    PADDING_OAEP = 4,
};

struct OrvaneKeyPair {
    int32_t keyIndex;
    uint8_t keyId[16];
    uint8_t publicKey[1024];
    int32_t publicKeyLength;
    uint8_t certLinkId[128];
    int32_t certLinkIdLength;
    char label[128];
    uint8_t reserved[4];
    int32_t keyUsage;
    int32_t keyType;
    int32_t tokenFlag;
};

struct OrvaneCertificate {
    int32_t certIndex;
    uint8_t headReserved[16];
    uint8_t certData[3072];
    int32_t certLength;
    uint8_t certLinkId[128];
    int32_t certLinkIdLength;
    char label[128];
    uint8_t tailReserved[24];
};

struct OrvaneSymmetricKey {
    int32_t keyIndex;
    uint8_t headReserved[4];
    uint8_t keyId[16];
    uint8_t keyData[128];
    int32_t keyDataLength;
    char label[128];
    uint8_t middleReserved[140];
    int32_t keyType;
    bool keyFlag;
    uint8_t tailReserved[3];
};

// Returned by value; the provider reads label, loginState and ssoState only.
struct TokenInfo {
    std::string label;
    std::string manufacturer;
    std::string model;
    std::string serialNumber;
    std::string firmwareVersion;
    std::string hardwareVersion;
    std::string utcTime;
    int32_t maxPinLength = 0;
    int32_t minPinLength = 0;
    int32_t pinRetriesLeft = 0;
    int32_t loginState = 0;  // 1 = signed on in Token Manager
    int32_t ssoState = 0;    // 1 = single sign-on active
    int32_t totalMemory = 0;
    int32_t freeMemory = 0;
    int32_t flags = 0;
    std::string tokenManagerVersion;
    std::string reserved;
};

// Filled from a DER certificate; publicKey has the same form as OrvaneKeyPair::publicKey
// of the matching key pair (bare RSA modulus, or DER SubjectPublicKeyInfo for EC).
struct CertificateDetails {
    std::string subject;
    std::string issuer;
    std::string serialNumber;
    std::string notBefore;
    std::string notAfter;
    std::vector<unsigned char> publicKey;
};

static_assert(sizeof(bool) == 1, "records carry 8-bit booleans");

static_assert(sizeof(OrvaneKeyPair) == 1324, "OrvaneKeyPair layout");
static_assert(offsetof(OrvaneKeyPair, keyIndex) == 0, "OrvaneKeyPair layout");
static_assert(offsetof(OrvaneKeyPair, keyId) == 4, "OrvaneKeyPair layout");
static_assert(offsetof(OrvaneKeyPair, publicKey) == 20, "OrvaneKeyPair layout");
static_assert(offsetof(OrvaneKeyPair, publicKeyLength) == 1044, "OrvaneKeyPair layout");
static_assert(offsetof(OrvaneKeyPair, certLinkId) == 1048, "OrvaneKeyPair layout");
static_assert(offsetof(OrvaneKeyPair, certLinkIdLength) == 1176, "OrvaneKeyPair layout");
static_assert(offsetof(OrvaneKeyPair, label) == 1180, "OrvaneKeyPair layout");
static_assert(offsetof(OrvaneKeyPair, keyUsage) == 1312, "OrvaneKeyPair layout");
static_assert(offsetof(OrvaneKeyPair, keyType) == 1316, "OrvaneKeyPair layout");
static_assert(offsetof(OrvaneKeyPair, tokenFlag) == 1320, "OrvaneKeyPair layout");

static_assert(sizeof(OrvaneCertificate) == 3380, "OrvaneCertificate layout");
static_assert(offsetof(OrvaneCertificate, certData) == 20, "OrvaneCertificate layout");
static_assert(offsetof(OrvaneCertificate, certLength) == 3092, "OrvaneCertificate layout");
static_assert(offsetof(OrvaneCertificate, certLinkId) == 3096, "OrvaneCertificate layout");
static_assert(offsetof(OrvaneCertificate, certLinkIdLength) == 3224, "OrvaneCertificate layout");
static_assert(offsetof(OrvaneCertificate, label) == 3228, "OrvaneCertificate layout");
static_assert(offsetof(OrvaneCertificate, tailReserved) == 3356, "OrvaneCertificate layout");

static_assert(sizeof(OrvaneSymmetricKey) == 432, "OrvaneSymmetricKey layout");
static_assert(offsetof(OrvaneSymmetricKey, keyId) == 8, "OrvaneSymmetricKey layout");
static_assert(offsetof(OrvaneSymmetricKey, keyData) == 24, "OrvaneSymmetricKey layout");
static_assert(offsetof(OrvaneSymmetricKey, keyDataLength) == 152, "OrvaneSymmetricKey layout");
static_assert(offsetof(OrvaneSymmetricKey, middleReserved) == 284, "OrvaneSymmetricKey layout");
static_assert(offsetof(OrvaneSymmetricKey, keyType) == 424, "OrvaneSymmetricKey layout");
static_assert(offsetof(OrvaneSymmetricKey, keyFlag) == 428, "OrvaneSymmetricKey layout");

// loginState and ssoState are the fourth and fifth integers of the block after the seven strings.
static_assert(offsetof(TokenInfo, loginState) == offsetof(TokenInfo, maxPinLength) + 3 * sizeof(int32_t),
              "TokenInfo layout");
static_assert(offsetof(TokenInfo, ssoState) == offsetof(TokenInfo, maxPinLength) + 4 * sizeof(int32_t),
              "TokenInfo layout");
static_assert(offsetof(TokenInfo, maxPinLength) == 7 * sizeof(std::string), "TokenInfo layout");

// Library and device
ORVANE_DSC_API int orvane_init(int mode, void* reserved, int option);
ORVANE_DSC_API std::vector<std::string> orvane_getConnectedDeviceList(bool flag, void* ctx);
ORVANE_DSC_API int orvane_initDevice(const char* serialNumber, bool flag, void* ctx);
ORVANE_DSC_API TokenInfo orvane_getTokenInfo(const char* serialNumber, void* ctx);

// PIN
ORVANE_DSC_API int orvane_validatePassword(const char* serialNumber, const char* pin, int userType,
                                           int* remainingAttempts, void* ctx);

// Lists (owned by the library; copy at once)
ORVANE_DSC_API std::vector<OrvaneKeyPair>& orvane_getKeyPairList(const char* serialNumber, void* ctx);
ORVANE_DSC_API std::vector<OrvaneCertificate>& orvane_getCertificateList(const char* serialNumber, void* ctx);
ORVANE_DSC_API std::vector<OrvaneSymmetricKey>& orvane_getAesKeyList(const char* serialNumber, void* ctx);
ORVANE_DSC_API int orvane_getCertificateDetails(const unsigned char* certData, int certLength,
                                                CertificateDetails& details, void* ctx);

// Key management
ORVANE_DSC_API int orvane_generateKeyPair(const char* serialNumber, const char* pin, OrvaneKeyPair* keyPair,
                                          void* ctx);
ORVANE_DSC_API int orvane_deleteKeyPair(const char* serialNumber, const unsigned char* keyId, const char* pin,
                                        bool flag, void* ctx);
ORVANE_DSC_API int orvane_importCertificate(const char* serialNumber, const char* pin,
                                            OrvaneCertificate* certificate, void* ctx);
ORVANE_DSC_API int orvane_importAesKey(const char* serialNumber, const char* pin, OrvaneSymmetricKey* key,
                                       void* ctx);

// Private-key operations. Buffers that the library allocates (orvane_decrypt's *plain,
// orvane_decrypt_aes's *unwrapped) are allocated with new[]; the caller releases them with delete[].
ORVANE_DSC_API int orvane_signHash(const char* serialNumber, const unsigned char* keyId, const char* pin,
                                   const unsigned char* hash, int hashLength, unsigned char* signature,
                                   int* signatureLength, bool flag, void* ctx);
ORVANE_DSC_API int orvane_decrypt(const char* serialNumber, const unsigned char* keyId, const char* pin,
                                  const unsigned char* cipher, int cipherLength, unsigned char** plain,
                                  int* plainLength, bool flag, void* ctx);
ORVANE_DSC_API int orvane_decryptSymetric(const char* serialNumber, const unsigned char* cipher, int cipherLength,
                                          unsigned char* plain, int* plainLength, const unsigned char* iv,
                                          int ivLength, const unsigned char* key, int keyLength, void* ctx);
ORVANE_DSC_API int orvane_decrypt_aes(const char* serialNumber, const unsigned char* kekData, int kekDataLength,
                                      const unsigned char* wrapped, int wrappedLength, unsigned char** unwrapped,
                                      int* unwrappedLength, bool kekFlag, const unsigned char* iv, int ivLength,
                                      void* ctx);

// Public-key operations. orvane_encrypt writes a modulus-sized ciphertext; *cipherLength is output only.
// With a modulus of k bytes it takes at most k - 11 bytes of plaintext with PADDING_PKCS1 and
// k - 42 with PADDING_OAEP (SHA-1); longer plaintext is refused with a failure code.
ORVANE_DSC_API int orvane_encrypt(EncryptionType type, PaddingMode padding, const unsigned char* plain,
                                  int plainLength, unsigned char* cipher, int* cipherLength,
                                  const unsigned char* publicKey, int publicKeyLength, void* ctx);
ORVANE_DSC_API int orvane_verifySignatureHash(unsigned int mechanism, const char* serialNumber,
                                              const unsigned char* hash, int hashLength,
                                              const unsigned char* publicKey, int publicKeyLength,
                                              const unsigned char* signature, int signatureLength, void* ctx);

// Hashing. orvane_finalHash answers the digest of all data fed so far and leaves the handle
// usable: it may be called again (the digest of everything fed up to then), and
// orvane_updateHash after a digest adds more data. A *digestLength smaller than the digest is
// answered with a failure code and the needed size in *digestLength; the handle stays usable.
// There is no call to release a handle, so the provider cannot free one: an abandoned handle
// keeps about 150 bytes, or about 1.5 KB once data has been fed, until the process ends.
// A pointer that orvane_initHash did not hand out is refused with a failure code.
ORVANE_DSC_API int orvane_initHash(const char* serialNumber, int mechanism, void** hashHandle, void* ctx);
ORVANE_DSC_API int orvane_updateHash(void* hashHandle, const unsigned char* data, int dataLength, void* ctx);
ORVANE_DSC_API int orvane_finalHash(void* hashHandle, unsigned char* digest, int* digestLength, void* ctx);

// Random numbers
ORVANE_DSC_API int orvane_generateRamdomNumber(const char* serialNumber, int length, unsigned char* buffer,
                                               bool flag, void* ctx);
